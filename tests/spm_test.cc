#include "src/spm.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

#include "tests/support/faulty_files.h"
#include "tests/support/log_file.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST_F(LogTest, WritesTheBlockByteByByte) {
  insert({0x01020304, 5, 6}, 0x1112131415161718);
  insert({0x01020304, 5, 6}, 7);
  insert({0x01020304, 8, 9}, 1);
  remove({0x01020304, 5, 6}, 7);
  ASSERT_EQ(commit(), zem_ok);

  constexpr std::array<std::uint8_t, 87> written{
      0xc1, 0xff, 0xc4, 0xaa,                                             // checksum
      1,    4,    0,    2,    0,                                          // kind, counts
      0x04, 0x03, 0x02, 0x01, 5,    0,    0,    0,    6,  0, 0, 0, 2, 0,  // group
      0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11, 0,                  // insert
      7,    0,    0,    0,    0,    0,    0,    0,    0,                  // insert
      0x04, 0x03, 0x02, 0x01, 8,    0,    0,    0,    9,  0, 0, 0, 1, 0,  // group
      1,    0,    0,    0,    0,    0,    0,    0,    0,                  // insert
      0x04, 0x03, 0x02, 0x01, 5,    0,    0,    0,    6,  0, 0, 0, 1, 0,  // group
      7,    0,    0,    0,    0,    0,    0,    0,    255};               // delete
  std::vector<std::byte> expected(zem_block_size);
  std::transform(written.begin(), written.end(), expected.begin(),
                 [](std::uint8_t byte) { return std::byte{byte}; });
  EXPECT_EQ(read_block(0), expected);
  EXPECT_EQ(spm->file.size, 8U << 20);
}

TEST_F(LogTest, ResultsTellWhetherTheKeyGrew) {
  EXPECT_EQ(try_insert(cat, 7), zem_yes);
  EXPECT_EQ(try_insert(cat, 9), zem_ok);
  EXPECT_EQ(try_insert(cat, 3), zem_yes);
  EXPECT_EQ(try_remove(cat, 3), zem_ok);

  zem_mkey other;
  EXPECT_EQ(zem_spm_delete(*spm, proc, 9, cat, other), zem_yes);
  EXPECT_EQ(zem_mkey_compare(other, cat, 9), 0);
}

TEST_F(LogTest, InsertsOfKnownAndDeletesOfUnknownPostingsLeaveNoTrace) {
  insert(cat, 7);
  insert(dog, 7);
  remove(dog, 7);
  ASSERT_EQ(commit(), zem_ok);
  const std::uint32_t pos = spm->blk_pos;

  EXPECT_EQ(try_insert(cat, 7), zem_ok);
  EXPECT_EQ(try_insert(dog, 7), zem_ok);
  EXPECT_EQ(try_remove(cat, 8), zem_ok);

  EXPECT_THAT(postings(), ElementsAre(log_posting{cat, 7}, log_posting{dog, 7, true}));
  EXPECT_EQ(spm->blk_pos, pos);
  EXPECT_FALSE(zem_spm_dirty(*spm));
}

TEST_F(LogTest, CountsRecordsOfTheBlockAndInsertsOfTheLog) {
  insert(cat, 7);  // opens its term
  insert(cat, 9);
  insert(dog, 1);  // opens its term
  remove(cat, 9);
  remove(dog, 1);  // the only one of its term still
  EXPECT_EQ(spm->blk_recs, 5U);
  EXPECT_EQ(spm->blk_terms, 3U);
  EXPECT_EQ(spm->sum_recs, 3U);
  EXPECT_EQ(spm->sum_terms, 2U);

  ASSERT_EQ(commit(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(spm->blk_recs, 5U);
  EXPECT_EQ(spm->sum_recs, 5U);
  EXPECT_EQ(spm->sum_terms, 3U);
}

TEST_F(LogTest, TermsThatAlternateOpenAGroupEachTime) {
  insert(cat, 7);
  insert(dog, 7);
  insert(cat, 8);
  EXPECT_EQ(spm->blk_pos, 9U + 3 * (14 + 9));
  ASSERT_EQ(commit(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(postings(),
              ElementsAre(log_posting{cat, 8}, log_posting{cat, 7}, log_posting{dog, 7}));
}

TEST_F(LogTest, AGroupIsOverOnceAnotherWriterHasWritten) {
  insert(cat, 7);
  zem_proc other;
  ASSERT_EQ(zem_spm_insert(*spm, other, 6, cat, mkey), zem_yes);
  insert(cat, 5);
  ASSERT_EQ(zem_spm_insert(*spm, other, 4, cat, mkey), zem_yes);
  EXPECT_EQ(spm->blk_pos, 9U + 4 * (14 + 9));
  ASSERT_EQ(commit(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(postings().size(), 4U);
}

// Bytes left in the block, the operation, and whether it still goes there.
struct block_edge {
  std::size_t left;
  bool insert;
  bool opens;
  bool fits;
};

class LogEdgeTest : public LogTest, public ::testing::WithParamInterface<block_edge> {};

TEST_P(LogEdgeTest, APostingGoesIntoTheBlockOnlyWithRoomForIt) {
  const block_edge edge = GetParam();
  const zem_term &term = edge.opens ? cat : dog;
  if (!edge.insert && edge.opens) insert(cat, 5);
  fill_until(edge.left);
  const std::uint64_t id = edge.insert || edge.opens ? 5 : next_id - 1;
  const std::vector<log_posting> before = postings();

  ASSERT_GE(edge.insert ? try_insert(term, id) : try_remove(term, id), zem_ok);

  EXPECT_EQ(spm->blk_no, edge.fits ? 0U : 1U);
  EXPECT_TRUE(edge.fits || spm->blk_pos == 9U + 14 + 9) << "a new block begins with a group";
  const std::vector<log_posting> after = postings();
  EXPECT_NE(after, before);
  ASSERT_EQ(commit(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(postings(), after);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, LogEdgeTest,
    ::testing::Values(block_edge{13, true, false, true}, block_edge{12, true, false, false},
                      block_edge{27, true, true, true}, block_edge{26, true, true, false},
                      block_edge{9, false, false, true}, block_edge{8, false, false, false},
                      block_edge{23, false, true, true}, block_edge{22, false, true, false}));

TEST_F(LogTest, CommitWritesOnlyWhatIsNewAndNeverAnEmptyBlock) {
  faulty_files files;
  EXPECT_EQ(commit(), zem_ok);
  EXPECT_EQ(files.count(file_op::write), 0U);
  EXPECT_EQ(files.count(file_op::sync), 0U);

  insert(cat, 7);
  EXPECT_TRUE(zem_spm_dirty(*spm));
  EXPECT_EQ(commit(), zem_ok);
  EXPECT_EQ(files.count(file_op::write), 2U) << "body, head";
  EXPECT_EQ(files.count(file_op::sync), 1U);

  EXPECT_FALSE(zem_spm_dirty(*spm));
  EXPECT_EQ(commit(), zem_ok);
  EXPECT_EQ(files.count(file_op::write), 2U);
  EXPECT_EQ(files.count(file_op::sync), 1U);

  insert(cat, 5);
  EXPECT_EQ(commit(), zem_ok);
  EXPECT_EQ(files.count(file_op::write), 4U);
  EXPECT_EQ(files.count(file_op::sync), 3U) << "between body and head, and at the end";
  EXPECT_EQ(spm->blk_no, 0U);
}

TEST_F(LogTest, AFullBlockThatACommitHasWrittenIsNotWrittenAgain) {
  fill_until(8);
  ASSERT_EQ(commit(), zem_ok);
  faulty_files files;
  insert(cat, 7);
  EXPECT_EQ(spm->blk_no, 1U);
  EXPECT_EQ(files.count(file_op::write), 0U);
}

// Growing the file, the body and the head: whichever cannot be written, the posting that needed the
// room is as if it had never been offered.
TEST_F(LogTest, AFailedBlockWriteLeavesNoTraceAndARetryIsLogged) {
  for (const file_op op : {file_op::allocate, file_op::write}) {
    for (std::uint64_t nth = 1; nth <= (op == file_op::write ? 2 : 1); ++nth) {
      zem_spm_shrink(*spm);
      ASSERT_EQ(zem_spm_open(*spm, zem_file_mode::fresh), zem_ok);
      zem_proc_shrink(proc);
      mkey = {};
      fill_until(20);
      const std::vector<log_posting> before = postings();
      const zem_mkey key = mkey;

      faulty_files files;
      files.fail_once(nth, ENOSPC, {op});
      EXPECT_EQ(try_insert({9, 9, 9}, 7), -ENOSPC);
      EXPECT_EQ(postings(), before);
      EXPECT_EQ(zem_mkey_compare(key, mkey.term, mkey.id), 0);
      EXPECT_EQ(spm->blk_no, 0U);

      EXPECT_EQ(try_insert({9, 9, 9}, 7), zem_yes);
      EXPECT_EQ(spm->blk_no, 1U);
      ASSERT_EQ(commit(), zem_ok);
      const std::vector<log_posting> after = postings();
      ASSERT_EQ(reopen(), zem_ok);
      EXPECT_EQ(postings(), after);
    }
  }
}

TEST_F(LogTest, AfterAFailedSyncCommitsFailUntouchedAndPostingsGoOn) {
  insert(cat, 7);
  faulty_files files;
  files.fail_once(1, EIO, {file_op::sync});
  EXPECT_EQ(commit(), -EIO);
  EXPECT_EQ(zem_spm_failure(*spm), -EIO);
  const std::uint64_t writes = files.count(file_op::write);

  insert(cat, 6);
  EXPECT_EQ(commit(), -EIO);
  EXPECT_EQ(files.count(file_op::write), writes);
  EXPECT_EQ(files.count(file_op::sync), 1U);
  EXPECT_TRUE(zem_spm_dirty(*spm));

  fill_until(8);
  insert_falling(cat, 5, 3);
  EXPECT_EQ(spm->blk_no, 1U);
  fill_until(8);
  insert_falling(ant, 5, 3);
  EXPECT_EQ(spm->blk_no, 2U);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(spm->blk_no, 1U) << "full blocks went to the file";
}

TEST_F(LogTest, ABlockThatHoldsCommittedPostingsKeepsItsHeadWhenItsBodyCannotBeSynced) {
  insert(cat, 7);
  ASSERT_EQ(commit(), zem_ok);
  insert(cat, 6);
  faulty_files files;
  files.fail_from(1, EIO, {file_op::sync});
  EXPECT_EQ(commit(), -EIO);
  fill_until(8);
  insert(ant, 5);
  EXPECT_EQ(spm->blk_no, 1U);

  files.fail_none();
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(postings(), ElementsAre(log_posting{cat, 7}));
}

TEST_F(LogTest, ALogThatGrewDuringTheSyncStaysDirty) {
  insert(cat, 7);
  zem_spm_sync job;
  ASSERT_EQ(zem_spm_commit_begin(*spm, job), zem_ok);
  insert(cat, 6);
  EXPECT_EQ(zem_spm_commit_end(job), zem_ok);
  EXPECT_TRUE(zem_spm_dirty(*spm)) << "appended";

  ASSERT_EQ(zem_spm_commit_begin(*spm, job), zem_ok);
  fill_until(8);
  insert(ant, 5);
  EXPECT_EQ(zem_spm_commit_end(job), zem_ok);
  ASSERT_EQ(commit(), zem_ok);
  EXPECT_FALSE(zem_spm_dirty(*spm));
}

TEST_F(LogTest, OneSyncServesAllCommitsThatBeganBeforeIt) {
  insert(cat, 7);
  std::array<zem_spm_sync, 2> jobs;
  for (zem_spm_sync &job : jobs)
    ASSERT_EQ(zem_spm_commit_begin(*spm, job), zem_ok);
  faulty_files files;
  for (const zem_spm_sync &job : jobs)
    EXPECT_EQ(zem_spm_commit_end(job), zem_ok);
  EXPECT_EQ(files.count(file_op::sync), 1U);
}

TEST_F(LogTest, AFailureThatOneSyncMetIsMissedByNone) {
  insert(cat, 7);
  std::array<zem_spm_sync, 2> jobs;
  for (zem_spm_sync &job : jobs)
    ASSERT_EQ(zem_spm_commit_begin(*spm, job), zem_ok);
  zem_spm other;
  zem_spm_swap(*spm, other);  // the failure follows the file

  faulty_files files;
  files.fail_once(1, EIO, {file_op::sync});
  EXPECT_EQ(zem_spm_commit_end(jobs[0]), -EIO);
  EXPECT_EQ(zem_spm_commit_end(jobs[1]), -EIO);
  EXPECT_EQ(zem_spm_failure(other), -EIO);
  EXPECT_EQ(zem_spm_failure(*spm), zem_ok);
}

TEST_F(LogTest, ASyncOutlivesTheCloseOfItsLog) {
  insert(cat, 7);
  zem_spm_sync job;
  ASSERT_EQ(zem_spm_commit_begin(*spm, job), zem_ok);
  ASSERT_EQ(zem_spm_close(*spm), zem_ok);
  EXPECT_EQ(zem_spm_commit_end(job), zem_ok);
  EXPECT_FALSE(zem_spm_dirty(*spm));
}

TEST_F(LogTest, SyncsRunBesideTheWriter) {
  std::atomic<bool> done = false;
  zem_mutex mutex(zem_lock_rank::table);  // stands for the shard's lock
  std::thread committer([&] {
    while (!done) {
      zem_spm_sync job;
      {
        zem_lock_guard held(mutex);
        ASSERT_EQ(zem_spm_commit_begin(*spm, job), zem_ok);
      }
      ASSERT_EQ(zem_spm_commit_end(job), zem_ok);
    }
  });
  for (std::uint64_t id = 0; id < 20000; ++id) {
    zem_lock_guard held(mutex);
    ASSERT_GE(try_insert({static_cast<std::uint32_t>(id % 7), 0, 0}, id), zem_ok);
  }
  done = true;
  committer.join();
  ASSERT_EQ(commit(), zem_ok);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_EQ(spm->tree.count, 20000);
}

TEST_F(LogTest, ASwappedLogGoesOnInItsRenamedFile) {
  insert(cat, 7);
  zem_spm frozen;
  frozen.file.name = dir.path("1_m.log");
  ASSERT_EQ(zem_file_rename(spm->file.name, frozen.file.name), zem_ok);
  zem_spm_swap(*spm, frozen);
  ASSERT_EQ(zem_spm_open(*spm, zem_file_mode::fresh), zem_ok);
  zem_proc_shrink(proc);
  insert(dog, 1);
  ASSERT_EQ(commit(), zem_ok);

  EXPECT_EQ(spm->file.name, dir.path("1.log"));
  EXPECT_THAT(postings(), ElementsAre(log_posting{dog, 1}));
  EXPECT_THAT(log_postings(frozen), ElementsAre(log_posting{cat, 7}));
  EXPECT_TRUE(zem_spm_dirty(frozen));
  ASSERT_EQ(zem_spm_commit(frozen), zem_ok);
  EXPECT_NE(read_file(dir.path("1_m.log")), read_file(dir.path("1.log")));

  zem_spm_shrink(frozen);
  EXPECT_THAT(log_postings(frozen), IsEmpty());
  EXPECT_EQ(zem_xtree_msize(frozen.tree), 0U);
  EXPECT_EQ(frozen.file.name, dir.path("1_m.log"));
}

}  // namespace
