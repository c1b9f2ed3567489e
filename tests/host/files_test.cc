// What a table leaves on disk, read by a reader of its own and compared with what was put in.

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <random>

#include "tests/support/file_reader.h"
#include "tests/support/host.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::size_t largest_group = (65536 - 9 - 14) / 8;  // doc ids of a full data block

class HostFilesTest : public HostTest {
 protected:
  HostFilesTest() {
    configure({{"commit_num", 1000}, {"merge_num", 1}, {"commit_time", 0}, {"merge_time", 0}});
  }

  void add(const std::vector<host_posting> &postings) {
    insert_all(postings);
    all.insert(all.end(), postings.begin(), postings.end());
  }
  void add_random(std::size_t count, std::uint32_t terms) {
    std::vector<host_posting> postings;
    for (std::size_t i = 0; i < count; ++i) {
      const auto word = static_cast<std::uint32_t>(random() % terms);
      postings.push_back({{word / 7, word % 7, word}, random() % 1'000'000 + 1});
    }
    add(postings);
  }
  // Ids `from`, `from` - 1 and so on.
  void add_falling(const host_term &term, std::uint64_t from, std::size_t count) {
    std::vector<host_posting> postings;
    for (std::size_t i = 0; i < count; ++i)
      postings.push_back({term, from - i});
    add(postings);
  }
  // The table's files as they lie there now, in a copy where nothing moves.
  file_table read_now() {
    const std::string copy = root.path("copy");
    std::filesystem::remove_all(copy);
    std::filesystem::copy(root.path("t"), copy);
    file_table files = read_table_files(copy);
    EXPECT_THAT(files.faults, IsEmpty());
    return files;
  }
  // The data file holds `all`, each once and in key order, and the log nothing.
  file_content expect_merged() {
    std::vector<file_posting> expected, found;
    for (const host_posting &posting : all)
      expected.push_back({posting.term, posting.id});
    std::sort(expected.begin(), expected.end(), file_key_before);
    expected.erase(std::unique(expected.begin(), expected.end()), expected.end());
    const file_table files = read_now();
    for (const file_content::record &record : files.data.records)
      found.push_back(record.posting);
    EXPECT_EQ(found, expected);
    EXPECT_EQ(files.data.terms, key_count().second);
    EXPECT_EQ(totals().xcount, expected.size());
    EXPECT_EQ(files.log.blocks, 0U);
    return files.data;
  }

  std::mt19937_64 random{20};
  std::vector<host_posting> all;  // that were inserted
};

TEST_F(HostFilesTest, LogHoldsEveryChangeThatASyncCovered) {
  EXPECT_EQ(read_whole(path("sdb_1.log")).size() + read_whole(path("sdb_1.dat")).size(), 0U);
  insert_all({{cat, 1}, {cat, 9}, {dog, 5}});
  sync();
  remove_all({{cat, 9}, {dog, 4}});  // dog 4 is not there: nothing is logged
  sync();
  insert_all({{cat, 9}, {ant, 2}});  // cat 9 is there, if as deleted
  sync();
  insert_all({{ant, 3}});  // pending

  const file_content file = read_now().log;
  using mark = file_mark;
  EXPECT_THAT(file.last, ElementsAre(std::pair{file_posting{ant, 2}, mark::inserted},
                                     std::pair{file_posting{cat, 1}, mark::inserted},
                                     std::pair{file_posting{cat, 9}, mark::deleted},
                                     std::pair{file_posting{dog, 5}, mark::inserted}));
  EXPECT_EQ(file.records.size(), 5U);
  EXPECT_EQ(read_whole(path("sdb_1.log")).size(), 8U << 20);
}

TEST_F(HostFilesTest, LogGoesOnInItsLastBlockAfterEveryOpenUntilAMerge) {
  for (int life = 0; life < 6; ++life) {
    add_random(3000, 20'000);
    reopen();
    const file_content file = read_now().log;
    EXPECT_EQ(file.last.size(), std::set(all.begin(), all.end()).size());
    EXPECT_EQ(file.terms, key_count().first);
  }
  EXPECT_GT(read_now().log.blocks, 4U);
  add_random(200'000, 30'000);
  merge();
  merge();  // what came while the first ran
  expect_merged();
  EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(HostFilesTest, TermOverManyBlocksIsContinuedFromBlockToBlock) {
  // One block to the last byte, several, and one more posting than that, neighbours in between.
  add({{ant, 1}, {dog, 1}});
  add_falling({0, 0, 0}, 100'000, largest_group);
  add_falling(cat, 900'000, 5 * largest_group + 1);
  merge();
  merge();
  const file_content data = expect_merged();
  EXPECT_EQ(data.terms, 4U);
  EXPECT_EQ(data.blocks, 7U);
  add_falling(cat, 900'001, 1);  // shifts every later block
  add_falling(cat, 700'000, 3);
  merge();
  expect_merged();
  EXPECT_EQ(find(cat).size(), 5 * largest_group + 5);
}

}  // namespace
