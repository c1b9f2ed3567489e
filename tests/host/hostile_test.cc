// Files that are damaged, forged or nonsense: the table opens, answers from what is whole, takes
// updates, and never crashes or asks for memory without bound.

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <random>
#include <sys/resource.h>

#include "tests/support/file_reader.h"
#include "tests/support/host.h"

namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;

constexpr std::size_t block_bytes = 65536;

// A table with a data file and a log of several blocks each, in which no posting is in both, as a
// kill leaves it.
class HostDamageTest : public HostTest, public ::testing::WithParamInterface<std::string> {
 protected:
  using ids = std::set<std::uint64_t>;
  static constexpr host_term fresh{9999, 9, 9};

  void SetUp() override {
    configure({{"commit_num", 500}, {"commit_time", 0}, {"merge_time", 0}});
    std::vector<host_posting> merged, logged, deleted;
    for (std::uint32_t term = 0; term < 40; ++term) {
      for (std::uint64_t id = 1; id <= (term % 10 == 0 ? 9000U : 300U); ++id)
        merged.push_back({{term / 8, term % 8, 1}, id});
    }
    for (std::uint32_t i = 0; i < 20'000; ++i)
      logged.push_back({{i % 60 / 8, i % 8, 1}, 20'000 + i});
    for (std::uint32_t i = 0; i < 100; ++i)
      deleted.push_back(logged[i * 3]);
    insert_all(merged);
    merge();
    insert_all(logged);
    sync();
    remove_all(deleted);
    close();
    data = read_data_file(path("sdb_1.dat"));
    changes = read_log_file(path("sdb_1.log"));
    // Two blocks of zeros behind the end are enough.
    fs::resize_file(path("sdb_1.dat"), (data.blocks + data.index_blocks + 2) * block_bytes);
    fs::resize_file(path("sdb_1.log"), (changes.blocks + 2) * block_bytes);
    for (const std::string &file : files())
      whole[file] = read_whole(path(file));
  }
  // Nothing has asked for memory without bound.
  void TearDown() override {
    rusage use{};
    EXPECT_EQ(getrusage(RUSAGE_SELF, &use), 0);
    EXPECT_LT(use.ru_maxrss >> 10, 2048);  // MiB
  }

  std::uint64_t below(std::uint64_t limit) { return random() % limit; }
  std::string noise(std::size_t count) {
    std::string bytes(count, '\0');
    for (char &byte : bytes)
      byte = static_cast<char>(random());
    return bytes;
  }
  // Goes wrong in one of the ways of disks, copies and hands, in this block or from there on.
  // Checksums that were right are not made right again.
  void damage(std::string &bytes, std::size_t block, bool to_the_end) {
    const std::size_t begin = block * block_bytes;
    const std::size_t at = begin + below(below(2) == 0 ? 100 : block_bytes);
    const std::size_t rest = begin + block_bytes - at;
    if (to_the_end) return bytes.resize(at);
    switch (below(4)) {
      case 0:
        bytes[at] ^= static_cast<char>(1 + below(255));
        break;
      case 1:
        bytes.replace(at, rest, noise(rest));
        break;
      case 2:
        bytes.replace(begin, block_bytes, std::string(block_bytes, '\0'));
        break;
      default:
        bytes.replace(begin, block_bytes, bytes.substr(0, block_bytes));
    }
  }
  // Changes numbers of a block, mostly those of its head, under a checksum that holds.
  void forge(std::string &bytes) {
    const std::size_t block = below(bytes.size() / block_bytes) * block_bytes;
    for (std::uint64_t count = 1 + below(3); count > 0; --count) {
      constexpr std::array<std::uint64_t, 4> extremes{0, 1, 127, 255};
      const std::size_t at = block + 4 + below(below(3) == 0 ? block_bytes - 4 : 60);
      bytes[at] = static_cast<char>(below(2) == 0 ? random() : extremes[below(4)]);
    }
    const std::uint32_t sum =
        file_checksum(std::string_view(bytes).substr(block + 4, block_bytes - 4));
    for (std::size_t i = 0; i < 4; ++i)
      bytes[block + i] = static_cast<char>(sum >> (8 * i));
  }
  // Puts the table's files back as they were, with one of them changed.
  void lay_out(const std::string &name, const std::string &bytes) {
    for (const std::string &file : files())
      fs::remove_all(path(file));
    for (const auto &[file, content] : whole)
      write_file(file, file == name ? bytes : content);
  }

  // What must be found although blocks [first, last] of one file are damaged, and what may be.
  struct bounds {
    std::map<host_term, ids> least, most;
    std::set<host_term> damaged;  // of these a query may fail
  };
  // `merged`: deletes that the log holds may have been done.
  bounds bounds_of(bool in_data, std::size_t first, std::size_t last, bool merged) const {
    bounds of;
    for (const file_content::record &record : data.records) {
      const auto &[term, id] = record.posting;
      of.most[term].insert(id);
      if (in_data && record.block >= first && record.block <= last) {
        of.damaged.insert(term);
      } else {
        of.least[term].insert(id);
      }
    }
    for (const file_content::record &record : changes.records) {
      const auto &[term, id] = record.posting;
      of.most[term].insert(id);
      const bool read = in_data || record.block < first;  // a log ends at its first damaged block
      if (read && record.mark == file_mark::inserted) of.least[term].insert(id);
      if (merged && record.mark == file_mark::deleted) of.least[term].erase(id);
    }
    of.least[fresh] = of.most[fresh] = {1, 2, 3};
    return of;
  }
  void expect_within(bounds of) const {
    for (const auto &[term, most] : of.most) {
      const host_answer answer = query({{term}});
      ids found;
      for (const auto &[id, tag] : answer.ids)
        found.insert(id);
      const ids &least = of.least[term];
      const bool may_fail = of.damaged.contains(term);
      EXPECT_TRUE(std::includes(found.begin(), found.end(), least.begin(), least.end()) || may_fail)
          << term[0] << '.' << term[1] << " lost postings";
      EXPECT_TRUE(std::includes(most.begin(), most.end(), found.begin(), found.end()))
          << term[0] << '.' << term[1] << " holds what was never inserted";
      EXPECT_TRUE(answer.status == 0 || may_fail) << answer.status;
    }
  }

  file_content data;
  file_content changes;
  std::map<std::string, std::string> whole;  // the table's files
  std::mt19937_64 random{1};
};

TEST_P(HostDamageTest, WhatLiesOutsideTheDamageStays) {
  const std::string file = GetParam();
  const bool in_data = file == "sdb_1.dat";
  const std::size_t blocks = in_data ? data.blocks + data.index_blocks : changes.blocks;
  for (int i = 0; i < 30 && !HasFailure(); ++i) {
    const std::size_t first = below(blocks);
    const std::size_t last = below(5) == 0 ? blocks : first;
    SCOPED_TRACE("case " + std::to_string(i) + ", block " + std::to_string(first));
    std::string bytes = whole[file];
    damage(bytes, first, last == blocks);
    lay_out(file, bytes);
    open();
    insert_all({{fresh, 1}, {fresh, 2}, {fresh, 3}});
    sync();
    expect_within(bounds_of(in_data, first, last, false));
    merge();
    for (int life = 0; life < 2; ++life) {
      expect_within(bounds_of(in_data, first, last, true));
      reopen();
    }
    close();
  }
}

// No result but those that are told of damage; and cleared, the table is as good as new.
TEST_P(HostDamageTest, NonsenseUnderRightChecksumsAndNoiseBreakNothing) {
  const auto fair = AnyOf(0, 1, ZEM_SDB_E_CHECKSUM, ZEM_SDB_E_KIND, ZEM_SDB_E_SHARD);
  for (int i = 0; i < 50 && !HasFailure(); ++i) {
    SCOPED_TRACE("case " + std::to_string(i));
    std::string bytes = whole[GetParam()];
    for (std::uint64_t count = 1 + below(3); count > 0; --count)
      forge(bytes);
    lay_out(GetParam(), i % 5 == 0 ? noise(below(4 * block_bytes)) : bytes);
    for (int life = 0; life < 2; ++life) {
      open();
      for (std::uint32_t term = 0; term < 60; ++term)
        EXPECT_THAT(query({{{term / 8, term % 8, 1}}}).status, fair);
      EXPECT_THAT(zem_sdb_insert(sdb.get(), table, 5, host_head(fresh), fresh[2]), fair);
      EXPECT_THAT(zem_sdb_sync(sdb.get(), table), fair);
      EXPECT_THAT(zem_sdb_merge(sdb.get(), table), fair);
      wait_idle();
      totals();
      EXPECT_THAT(zem_sdb_table_close(sdb.get(), table), fair);
    }
    open();
    EXPECT_THAT(zem_sdb_table_clear(sdb.get(), table), fair);
    insert(fresh, 6);
    sync();
    EXPECT_THAT(find(fresh), ::testing::Contains(6));
    close();
  }
}

INSTANTIATE_TEST_SUITE_P(Files, HostDamageTest, ::testing::Values("sdb_1.dat", "sdb_1.log"),
                         [](const auto &each) { return each.index == 0 ? "Data" : "Log"; });

}  // namespace
