// Our library, through its public header.
#pragma once

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/peers/work.h"
#include "include/zem_sdb.h"

class sdb_store {
 public:
  static constexpr const char *name = "sdb";

  sdb_store(const std::string &directory, bool synced, bool tuned, std::uint32_t split_mib = 512)
      : synced_(synced) {
    std::filesystem::create_directories(directory + "/t");
    std::ofstream(directory + "/t/sdb.xml")
        << "<table><split_num>" << split_mib << "</split_num>"
        << (tuned
                ? "<commit_time>0</commit_time><merge_time>0</merge_time><merge_num>64</merge_num>"
                : "")
        << "</table>";
    sdb_ = zem_sdb_new(directory.c_str(), nullptr);
    table_ = zem_sdb_table_open(sdb_, "t");
    if (table_ == 0) throw std::runtime_error("sdb: no table");
  }
  ~sdb_store() {
    zem_sdb_free(sdb_);
    zem_sdb_doc_free(batch_);
    zem_sdb_keys_free(keys_);
    zem_var_free(ids_);
    zem_var_free(thirds_);
    zem_var_free(heads_);
  }
  sdb_store(const sdb_store &) = delete;
  sdb_store &operator=(const sdb_store &) = delete;

  void write(std::span<const posting> postings) {
    for (const posting &each : postings) {
      const std::uint32_t term[3] = {word0, each.term, word2};
      zem_sdb_doc_add(batch_, each.id, term, 1);
    }
    check(zem_sdb_update(sdb_, table_, batch_, keys_));
    zem_sdb_doc_clear(batch_);
    zem_sdb_keys_clear(keys_);
    if (synced_) check(zem_sdb_sync(sdb_, table_));
  }
  // The ids belong to the store until the next question.
  std::span<const std::uint64_t> find(std::uint32_t term) {
    zem_var_shrink(heads_, 0);
    zem_var_shrink(thirds_, 0);
    zem_var_shrink(ids_, 0);
    zem_var_add_long(heads_, std::uint64_t{term} << 32 | word0);
    zem_var_add_integer(thirds_, word2);
    check(zem_sdb_query(sdb_, table_, heads_, thirds_, ids_));
    const std::uint64_t *ids = nullptr;
    const auto count = zem_var_longs(ids_, &ids, nullptr);
    return {ids, static_cast<std::size_t>(count)};
  }
  void come_to_rest() {
    check(zem_sdb_sync(sdb_, table_));
    check(zem_sdb_merge(sdb_, table_));
    check(zem_sdb_wait(sdb_, table_, 3'600'000));
  }

 private:
  static constexpr std::uint32_t word0 = 1;
  static constexpr std::uint32_t word2 = 7;
  static void check(std::int32_t st) {
    if (st < 0) throw std::runtime_error(zem_sdb_error(st));
  }

  const bool synced_;
  zem_sdb *sdb_ = nullptr;
  std::uint64_t table_ = 0;
  zem_doc *batch_ = zem_sdb_doc_new();
  zem_keys *keys_ = zem_sdb_keys_new();
  zem_var *heads_ = zem_var_new(1, 0);
  zem_var *thirds_ = zem_var_new(1, 0);
  zem_var *ids_ = zem_var_new(0, 0);
};
