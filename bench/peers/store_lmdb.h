// A memory-mapped B+-tree: one key a term, its ids as sorted duplicates of fixed size.
#pragma once

#include <filesystem>
#include <lmdb.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/peers/work.h"

class lmdb_store {
 public:
  static constexpr const char *name = "lmdb";

  lmdb_store(const std::string &directory, bool synced, bool) {
    constexpr std::size_t map_bytes = std::size_t{64} << 30;
    std::filesystem::create_directories(directory);
    check(mdb_env_create(&env_));
    check(mdb_env_set_mapsize(env_, map_bytes));
    check(mdb_env_open(env_, directory.c_str(), synced ? 0 : MDB_NOSYNC | MDB_WRITEMAP, 0666));
    MDB_txn *txn = nullptr;
    check(mdb_txn_begin(env_, nullptr, 0, &txn));
    check(mdb_dbi_open(txn, nullptr, MDB_CREATE | MDB_DUPSORT | MDB_DUPFIXED | MDB_INTEGERDUP,
                       &dbi_));
    check(mdb_txn_commit(txn));
  }
  ~lmdb_store() {
    if (reader_ != nullptr) mdb_txn_abort(reader_);
    mdb_env_close(env_);
  }
  lmdb_store(const lmdb_store &) = delete;
  lmdb_store &operator=(const lmdb_store &) = delete;

  void write(std::span<const posting> postings) {
    MDB_txn *txn = nullptr;
    check(mdb_txn_begin(env_, nullptr, 0, &txn));
    MDB_cursor *cursor = nullptr;  // finds the next key of a sorted batch near the last one
    check(mdb_cursor_open(txn, dbi_, &cursor));
    for (const posting &each : postings) {
      term_key key(each.term);
      std::uint64_t id = each.id;
      MDB_val data{sizeof id, &id};
      const int rc = mdb_cursor_put(cursor, &key.val, &data, MDB_NODUPDATA);
      if (rc != MDB_KEYEXIST) check(rc);
    }
    mdb_cursor_close(cursor);
    check(mdb_txn_commit(txn));
  }
  std::span<const std::uint64_t> find(std::uint32_t term) {
    ids_.clear();
    check(reader_ == nullptr ? mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reader_)
                             : mdb_txn_renew(reader_));
    MDB_cursor *cursor = nullptr;
    check(mdb_cursor_open(reader_, dbi_, &cursor));
    term_key key(term);
    MDB_val data;
    int rc = mdb_cursor_get(cursor, &key.val, &data, MDB_SET_KEY);
    if (rc == 0) rc = mdb_cursor_get(cursor, &key.val, &data, MDB_GET_MULTIPLE);
    while (rc == 0) {
      const auto *ids = static_cast<const std::uint64_t *>(data.mv_data);
      ids_.insert(ids_.end(), ids, ids + data.mv_size / sizeof *ids);
      rc = mdb_cursor_get(cursor, &key.val, &data, MDB_NEXT_MULTIPLE);
    }
    mdb_cursor_close(cursor);
    mdb_txn_reset(reader_);
    if (rc != MDB_NOTFOUND) check(rc);
    return ids_;
  }
  void come_to_rest() { check(mdb_env_sync(env_, 1)); }

 private:
  struct term_key {
    explicit term_key(std::uint32_t term) {
      for (int i = 0; i < 4; ++i) {
        bytes[i] = i == 3 ? 1 : 0;
        bytes[4 + i] = static_cast<unsigned char>(term >> (8 * (3 - i)));
        bytes[8 + i] = i == 3 ? 7 : 0;
      }
    }
    unsigned char bytes[12];
    MDB_val val{sizeof bytes, bytes};
  };
  static void check(int rc) {
    if (rc != 0) throw std::runtime_error(mdb_strerror(rc));
  }

  MDB_env *env_ = nullptr;
  MDB_dbi dbi_ = 0;
  MDB_txn *reader_ = nullptr;
  std::vector<std::uint64_t> ids_;
};
