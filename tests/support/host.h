// A host of the library as a program sees it: a database in a directory of its own, used through the
// public interface alone, and everything that its error log was told.
//
// The fixture's table "t" exists and is open when a test begins. Verbs that insert, query or count
// may be called from any thread; those that configure, open or close belong to one.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
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

// Value lists of numbers, and the three parallel lists that postings cross the interface in.
host_list host_longs(const std::vector<std::uint64_t> &values);
struct host_postings {
  explicit host_postings(const std::vector<host_posting> &postings);
  host_list ids, heads, thirds;
};
host_doc host_batch(const std::vector<std::pair<host_posting, std::uint32_t>> &changes,
                    std::uint32_t count);
std::uint64_t host_head(const host_term &term) noexcept;

// What a database has told its host. The library may write while a test reads.
class host_log {
 public:
  host_log();
  zem_err *get() const { return log_.get(); }
  std::vector<std::string> errors() const;  // oldest first
  std::vector<std::string> infos() const;
  void forget();

 private:
  friend class host_hold;
  static void take(void *self, int level, const char *line);
  mutable std::mutex mutex_;
  std::condition_variable released_;
  std::string held_;  // lines that begin so wait; empty: none
  std::vector<std::string> errors_, infos_;
  std::unique_ptr<zem_err, host_delete> log_;
};

// Holds up whoever writes a line that begins with `text`, and so the work that it tells of.
class host_hold {
 public:
  host_hold(host_log &log, std::string text);
  ~host_hold();
  host_hold(const host_hold &) = delete;
  host_hold &operator=(const host_hold &) = delete;

 private:
  host_log &log_;
};

struct host_totals {
  std::uint64_t count = 0, xcount = 0, fsize = 0, msize = 0;
};

struct host_row {
  host_posting key;
  std::uint32_t attribute = 0;
  friend bool operator==(const host_row &, const host_row &) = default;
};
std::vector<host_row> host_rows(const zem_keys *keys);

std::set<std::string> host_names_in(const std::string &directory);

class HostTest : public ::testing::Test {
 protected:
  static constexpr host_term ant{0, 0, 1};
  static constexpr host_term cat{1, 0, 0};
  static constexpr host_term dog{1, 0, 3};

  HostTest();

  // Writes "sdb.xml" and opens the table anew. What is not named has its default, but for
  // `flush_time`: the timer keeps out of these tests.
  void configure(std::map<std::string, std::uint32_t> settings);
  void write_file(const std::string &file, const std::string &text) const;
  std::string path(const std::string &file) const { return root.path("t/" + file); }
  std::set<std::string> files() const { return host_names_in(root.path("t")); }

  void open();
  void close();
  void reopen() { close(), open(); }
  // All of these also expect success.
  void insert(const host_term &term, std::uint64_t id) const;
  void remove(const host_term &term, std::uint64_t id) const;
  void insert_all(const std::vector<host_posting> &postings) const;
  void remove_all(const std::vector<host_posting> &postings) const;
  void sync() const;
  void wait_idle() const;
  void merge() const;                                            // and waits until it has ended
  std::vector<std::uint64_t> find(const host_term &term) const;  // sorted, rising
  host_totals totals() const;
  std::pair<std::uint64_t, std::uint64_t> key_count() const;  // of shard 1: log, data file
  std::vector<host_row> shards() const;

  // Expects no id twice in the answer, and nothing else.
  host_answer query(const std::vector<host_item> &items) const;

  temp_dir root;
  host_log log;
  host_sdb sdb{zem_sdb_new(root.path().c_str(), log.get())};
  std::uint64_t table = 0;
};
