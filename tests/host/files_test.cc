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

constexpr std::size_t block_bytes = 65536;
constexpr std::size_t largest_group = (block_bytes - 9 - 14) / 8;  // doc ids of a full data block

class HostFilesTest : public HostTest {
 protected:
  HostFilesTest() {
    configure({{"commit_num", 1000}, {"merge_num", 1}, {"commit_time", 0}, {"merge_time", 0}});
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
  static std::vector<file_posting> postings_of(const file_data &data) {
    std::vector<file_posting> postings;
    for (const file_data::record &record : data.records)
      postings.push_back(record.posting);
    return postings;
  }
  // In key order, each once.
  static std::vector<file_posting> sorted(const std::vector<host_posting> &postings) {
    std::vector<file_posting> result;
    for (const host_posting &posting : postings)
      result.push_back({posting.term, posting.id});
    std::sort(result.begin(), result.end(), file_key_before);
    result.erase(std::unique(result.begin(), result.end()), result.end());
    return result;
  }
  static std::vector<host_posting> falling(const host_term &term, std::uint64_t from,
                                           std::size_t count) {
    std::vector<host_posting> postings;
    for (std::size_t i = 0; i < count; ++i)
      postings.push_back({term, from - i});
    return postings;
  }
  std::vector<host_posting> random_postings(std::size_t count, std::uint32_t terms) {
    std::vector<host_posting> postings;
    for (std::size_t i = 0; i < count; ++i) {
      const auto word = static_cast<std::uint32_t>(random() % terms);
      postings.push_back({{word / 7, word % 7, word}, random() % 1'000'000 + 1});
    }
    return postings;
  }

  std::mt19937_64 random{20};
};

TEST_F(HostFilesTest, FilesOfAnEmptyTableAreEmpty) {
  const file_table files = read_now();
  EXPECT_EQ(files.logs.at(1).blocks + files.data.at(1).index_blocks, 0U);
  EXPECT_EQ(read_whole(path("sdb_1.log")).size() + read_whole(path("sdb_1.dat")).size(), 0U);
}

TEST_F(HostFilesTest, LogHoldsEveryChangeThatASyncCovered) {
  insert_all({{cat, 1}, {cat, 9}, {dog, 5}});
  sync();
  remove_all({{cat, 9}, {dog, 4}});  // dog 4 is not there: nothing is logged
  sync();
  insert_all({{cat, 9}, {ant, 2}});  // cat 9 is there, if as deleted
  sync();
  insert_all({{ant, 3}});  // pending

  const file_log file = read_now().logs.at(1);
  using mark = file_mark;
  EXPECT_THAT(file.last, ElementsAre(std::pair{file_posting{ant, 2}, mark::inserted},
                                     std::pair{file_posting{cat, 1}, mark::inserted},
                                     std::pair{file_posting{cat, 9}, mark::deleted},
                                     std::pair{file_posting{dog, 5}, mark::inserted}));
  EXPECT_EQ(file.records.size(), 5U);
  EXPECT_EQ(file.blocks, 1U);
  EXPECT_EQ(read_whole(path("sdb_1.log")).size(), 8U << 20);
}

TEST_F(HostFilesTest, LogGoesOnInItsLastBlockAfterEveryOpen) {
  std::vector<host_posting> all;
  for (int life = 0; life < 6; ++life) {
    const std::vector<host_posting> postings = random_postings(3000, 20'000);
    insert_all(postings);
    all.insert(all.end(), postings.begin(), postings.end());
    reopen();
    const file_log file = read_now().logs.at(1);
    EXPECT_EQ(file.last.size(), sorted(all).size());
    EXPECT_EQ(file.terms_opened, key_count().first);
  }
  EXPECT_GT(read_now().logs.at(1).blocks, 4U);
}

TEST_F(HostFilesTest, CopyTakenAfterASyncIsATableOfItsOwn) {
  insert_all({{cat, 1}, {cat, 2}});
  merge();
  insert_all({{cat, 3}});
  sync();
  insert_all({{cat, 4}});  // in the copy it never happened
  read_now();
  sdb.reset(zem_sdb_new(root.path().c_str(), log.get()));
  table = zem_sdb_table_open(sdb.get(), "copy");
  EXPECT_THAT(find(cat), ElementsAre(1, 2, 3));
}

TEST_F(HostFilesTest, MergedFileHoldsAllPostingsInKeyOrder) {
  std::vector<host_posting> all;
  for (const std::size_t count : {std::size_t{1}, std::size_t{40'000}, std::size_t{200'000}}) {
    const std::vector<host_posting> postings = random_postings(count, 30'000);
    insert_all(postings);
    all.insert(all.end(), postings.begin(), postings.end());
    merge();
    merge();  // what came while the first ran
    const file_table files = read_now();
    EXPECT_EQ(postings_of(files.data.at(1)), sorted(all));
    EXPECT_EQ(files.data.at(1).terms, key_count().second);
    EXPECT_EQ(files.data.at(1).records.size(), totals().xcount);
    EXPECT_EQ(files.logs.at(1).blocks, 0U);
  }
  EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(HostFilesTest, TermOverManyBlocksIsContinuedFromBlockToBlock) {
  // One block to the last byte, several, and one more posting than that, neighbours in between.
  std::vector<host_posting> all{{ant, 1}, {dog, 1}};
  for (const host_posting &posting : falling({0, 0, 0}, 100'000, largest_group))
    all.push_back(posting);
  for (const host_posting &posting : falling(cat, 900'000, 5 * largest_group + 1))
    all.push_back(posting);
  insert_all(all);
  merge();
  merge();
  const file_data data = read_now().data.at(1);
  EXPECT_EQ(postings_of(data), sorted(all));
  EXPECT_EQ(data.terms, 4U);
  EXPECT_EQ(data.data_blocks, 7U);
  EXPECT_EQ(find(cat).size(), 5 * largest_group + 1);

  insert_all(falling(cat, 900'001, 1));  // shifts every later block
  insert_all(falling(cat, 700'000, 3));
  merge();
  EXPECT_EQ(read_now().data.at(1).records.size(), all.size() + 4);
  EXPECT_EQ(find(cat).size(), 5 * largest_group + 5);
}

TEST_F(HostFilesTest, DeletesAloneLeaveAFileThatHoldsNothing) {
  const std::vector<host_posting> postings = random_postings(5000, 100);
  insert_all(postings);
  sync();
  remove_all(postings);
  merge();
  file_data data = read_now().data.at(1);
  EXPECT_EQ(data.records.size() + data.data_blocks, 0U);
  EXPECT_EQ(data.index_blocks, 1U);
  reopen();
  EXPECT_EQ(totals().xcount, 0U);

  insert_all(postings);
  merge();
  remove_all(postings);  // not in the log: nothing happens
  merge();
  data = read_now().data.at(1);
  EXPECT_EQ(postings_of(data), sorted(postings));
}

TEST_F(HostFilesTest, ClearLeavesTheFilesOfANewTable) {
  insert_all(random_postings(60'000, 5000));
  merge();
  insert_all(random_postings(5000, 5000));
  EXPECT_EQ(zem_sdb_table_clear(sdb.get(), table), 0);
  const file_table files = read_now();
  EXPECT_EQ(files.logs.at(1).blocks + files.data.at(1).index_blocks, 0U);
}

TEST_F(HostFilesTest, EveryShardOfAListHasFilesOfItsOwn) {
  close();
  write_file("sdb.lst", "4\n9");
  open();
  const std::vector<host_posting> postings = random_postings(3000, 300);
  insert_all(postings);
  merge();
  close();
  for (const char *stray : {"sdb_1.log", "sdb_1.dat"})
    std::filesystem::remove(path(stray));  // of the shard that the list no longer names
  const file_table files = read_table_files(root.path("t"));
  EXPECT_THAT(files.faults, IsEmpty());
  // An empty shard's high key is the least of all keys: what is not above it is shard 4's.
  const std::vector<file_posting> first = postings_of(files.data.at(4));
  for (const file_posting &posting : first)
    EXPECT_EQ(posting.term, file_term{});
  EXPECT_EQ(first.size() + files.data.at(9).records.size(), sorted(postings).size());
  open();
}

}  // namespace
