// A host of the library as a program sees it: a database in a directory of its own, used through the
// public interface alone, and everything that its error log was told.
//
// The fixture's table "t" exists and is open when a test begins. Verbs that insert, query or count
// may be called from any thread; those that configure, open or close belong to one.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "include/zem_sdb.h"
#include "tests/support/temp_dir.h"

struct host_delete {
  void operator()(zem_var *list) const { zem_var_free(list); }
  void operator()(zem_keys *keys) const { zem_sdb_keys_free(keys); }
  void operator()(zem_doc *batch) const { zem_sdb_doc_free(batch); }
  void operator()(zem_err *log) const { zem_err_free(log); }
  void operator()(zem_sdb *sdb) const { zem_sdb_free(sdb); }
};
using host_list = std::unique_ptr<zem_var, host_delete>;
using host_keys = std::unique_ptr<zem_keys, host_delete>;
using host_doc = std::unique_ptr<zem_doc, host_delete>;
using host_sdb = std::unique_ptr<zem_sdb, host_delete>;

using host_term = std::array<std::uint32_t, 3>;
struct host_posting {
  host_term term{};
  std::uint64_t id = 0;
  friend auto operator<=>(const host_posting &, const host_posting &) = default;
};

// One item of a query.
struct host_item {
  host_term term{};
  std::uint32_t span01 = 0;
  std::uint32_t span2 = 0;
};
struct host_answer {
  std::int32_t status = 0;
  std::map<std::uint64_t, std::uint32_t> ids;  // each with its tag
};
struct host_totals {
  std::uint64_t count = 0, xcount = 0, fsize = 0, msize = 0;
};
struct host_row {
  host_posting key;
  std::uint32_t attribute = 0;
  friend bool operator==(const host_row &, const host_row &) = default;
};

inline std::uint64_t host_head(const host_term &term) noexcept {
  return std::uint64_t{term[1]} << 32 | term[0];
}

inline host_list host_longs(const std::vector<std::uint64_t> &values) {
  host_list list(zem_var_new(0, 0));
  for (const std::uint64_t value : values)
    EXPECT_EQ(zem_var_add_long(list.get(), value), 1);
  return list;
}
using host_changes = std::vector<std::pair<host_posting, std::uint32_t>>;  // each with its flag
inline host_doc host_batch(const host_changes &changes, std::uint32_t count) {
  host_doc batch(zem_sdb_doc_new());
  for (const auto &[posting, flag] : changes)
    EXPECT_GE(zem_sdb_doc_add(batch.get(), posting.id, posting.term.data(), flag), 0);
  zem_sdb_doc_set_val(batch.get(), 1, count);
  return batch;
}
inline std::vector<host_row> host_rows(const zem_keys *keys) {
  std::vector<host_row> rows(static_cast<std::size_t>(zem_sdb_keys_size(keys)));
  for (std::size_t i = 0; i < rows.size(); ++i)
    zem_sdb_keys_fetch(keys, static_cast<std::int64_t>(i), &rows[i].key.id, rows[i].key.term.data(),
                       &rows[i].attribute);
  return rows;
}

// What a database has told its host. The library may write while a test reads.
class host_log {
 public:
  zem_err *get() const { return log_.get(); }
  std::vector<std::string> errors() const {  // oldest first
    const std::lock_guard held(mutex_);
    return errors_;
  }
  std::vector<std::string> infos() const {
    const std::lock_guard held(mutex_);
    return infos_;
  }
  void forget() {
    const std::lock_guard held(mutex_);
    errors_.clear();
    infos_.clear();
  }

 private:
  static void take(void *self, int level, const char *line) {
    auto &log = *static_cast<host_log *>(self);
    const std::lock_guard held(log.mutex_);
    (level < 0 ? log.infos_ : log.errors_).emplace_back(line);
  }
  mutable std::mutex mutex_;
  std::vector<std::string> errors_, infos_;
  std::unique_ptr<zem_err, host_delete> log_{zem_err_new(take, this)};
};

class HostTest : public ::testing::Test {
 protected:
  static constexpr host_term ant{0, 0, 1};
  static constexpr host_term cat{1, 0, 0};
  static constexpr host_term dog{1, 0, 3};

  HostTest() {
    EXPECT_GE(zem_sdb_table_create(sdb.get(), "t"), 0);
    configure({});
  }

  // Writes "sdb.xml" and opens the table anew. What is not named has its default, but for
  // `flush_time`: the timer keeps out of these tests.
  void configure(std::map<std::string, std::uint32_t> settings) {
    settings.try_emplace("flush_time", 100'000);
    std::string text = "<table>";
    for (const auto &[key, value] : settings)
      text += "<" + key + ">" + std::to_string(value) + "</" + key + ">";
    if (table != 0) close();
    write_file("sdb.xml", text + "</table>");
    open();
  }
  void write_file(const std::string &file, const std::string &text) const {
    std::ofstream stream(path(file), std::ios::trunc | std::ios::binary);
    stream << text;
    ASSERT_TRUE(stream.flush());
  }
  std::string path(const std::string &file) const { return root.path("t/" + file); }
  std::set<std::string> files() const {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(root.path("t")))
      names.insert(entry.path().filename());
    return names;
  }

  void open() {
    table = zem_sdb_table_open(sdb.get(), "t");
    ASSERT_NE(table, 0U);
  }
  void close() { EXPECT_EQ(zem_sdb_table_close(sdb.get(), std::exchange(table, 0)), 0); }
  void reopen() { close(), open(); }

  // All of these also expect success.
  void insert(const host_term &term, std::uint64_t id) const {
    EXPECT_EQ(zem_sdb_insert(sdb.get(), table, id, host_head(term), term[2]), 0);
  }
  void remove(const host_term &term, std::uint64_t id) const {
    EXPECT_EQ(zem_sdb_delete(sdb.get(), table, id, host_head(term), term[2]), 0);
  }
  void change_all(decltype(zem_sdb_inserts) *verb, const std::vector<host_posting> &postings,
                  std::uint64_t store) const {
    const host_list ids = host_longs({}), heads = host_longs({}), thirds = host_longs({});
    for (const host_posting &posting : postings) {
      zem_var_add_long(ids.get(), posting.id);
      zem_var_add_long(heads.get(), host_head(posting.term));
      zem_var_add_integer(thirds.get(), posting.term[2]);
    }
    EXPECT_EQ(verb(sdb.get(), store, ids.get(), heads.get(), thirds.get()), 0);
  }
  void insert_all(const std::vector<host_posting> &some) const {
    change_all(zem_sdb_inserts, some, table);
  }
  void remove_all(const std::vector<host_posting> &some) const {
    change_all(zem_sdb_deletes, some, table);
  }
  void sync() const { EXPECT_EQ(zem_sdb_sync(sdb.get(), table), 0); }
  void wait_idle() const { EXPECT_EQ(zem_sdb_wait(sdb.get(), table, 120'000), 1); }
  void merge() const {  // and waits until it has ended
    EXPECT_EQ(zem_sdb_merge(sdb.get(), table), 0);
    wait_idle();
  }
  std::vector<std::uint64_t> find(const host_term &term) const {  // sorted, rising
    const host_answer answer = query({{term}});
    EXPECT_EQ(answer.status, 0);
    std::vector<std::uint64_t> ids;
    for (const auto &[id, tag] : answer.ids)
      ids.push_back(id);
    return ids;
  }
  host_totals totals() const {
    host_totals t;
    EXPECT_EQ(zem_sdb_table_count(sdb.get(), table, &t.count, &t.xcount, &t.fsize, &t.msize), 0);
    return t;
  }
  std::pair<std::uint64_t, std::uint64_t> key_count() const {  // of shard 1: log, data file
    std::pair<std::uint64_t, std::uint64_t> counts;
    EXPECT_EQ(zem_sdb_key_count(sdb.get(), table, 1, &counts.first, &counts.second), 0);
    return counts;
  }
  std::vector<host_row> shards() const {
    const host_keys keys(zem_sdb_keys_new());
    EXPECT_EQ(zem_sdb_shards(sdb.get(), table, keys.get()), 0);
    return host_rows(keys.get());
  }

  // Expects no id twice in the answer, and nothing else.
  host_answer query(const std::vector<host_item> &items) const { return query(items, table); }
  host_answer query(const std::vector<host_item> &items, std::uint64_t store) const {
    const host_list heads(zem_var_new(0, 1)), thirds(zem_var_new(0, 1)), ids(zem_var_new(0, 1));
    for (const host_item &item : items) {
      zem_var_add_long(heads.get(), host_head(item.term));
      zem_var_set_buf(heads.get(), -1, item.span01);
      zem_var_add_integer(thirds.get(), item.term[2]);
      zem_var_set_buf(thirds.get(), -1, item.span2);
    }
    host_answer answer;
    answer.status = zem_sdb_query(sdb.get(), store, heads.get(), thirds.get(), ids.get());
    const std::uint64_t *values = nullptr;
    const std::uint32_t *tags = nullptr;
    const std::int64_t found = zem_var_longs(ids.get(), &values, &tags);
    for (std::int64_t i = 0; i < found; ++i)
      EXPECT_TRUE(answer.ids.try_emplace(values[i], tags[i]).second) << values[i] << " twice";
    return answer;
  }

  temp_dir root;
  host_log log;
  host_sdb sdb{zem_sdb_new(root.path().c_str(), log.get())};
  std::uint64_t table = 0;
};
