#include "src/spm.h"

#include <array>
#include <gmock/gmock.h>

#include "tests/support/faulty_files.h"
#include "tests/support/log_file.h"

namespace {

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

TEST_F(LogTest, InsertsOfKnownAndDeletesOfUnknownPostingsLeaveNoTrace) {
  insert(cat, 7);
  insert(dog, 7);
  remove(dog, 7);
  ASSERT_EQ(commit(), zem_ok);
  insert(cat, 7);
  insert(dog, 7);
  remove(cat, 8);
  EXPECT_THAT(postings(), testing::ElementsAre(log_posting{cat, 7}, log_posting{dog, 7, true}));
  EXPECT_FALSE(zem_spm_dirty(*spm));
}

TEST_F(LogTest, AGroupIsOverOnceAnotherWriterHasWritten) {
  zem_proc other;
  for (std::uint64_t id = 9; id > 5; --id)
    ASSERT_EQ(zem_spm_insert(*spm, id % 2 == 0 ? other : proc, id, cat, mkey), zem_yes);
  expect_to_stay();
}

TEST_F(LogTest, APostingGoesIntoTheBlockOnlyWithRoomForIt) {
  for (const std::size_t left : {13U, 12U, 27U, 26U, 9U, 8U, 23U, 22U}) {
    SCOPED_TRACE(left);
    const bool inserts = left / 2 == 6 || left / 2 == 13;  // else deletes
    const bool opens = left > 20;                          // a group
    start();
    if (!inserts && opens) insert(cat, 5);
    fill_until(left);
    const std::uint64_t id = inserts || opens ? 5 : next_id - 1;
    const zem_term &term = opens ? cat : dog;
    const std::vector<log_posting> before = postings();
    ASSERT_GE(inserts ? try_insert(term, id) : try_remove(term, id), zem_ok);
    EXPECT_EQ(spm->blk_no, left % 2 == 1 ? 0U : 1U);
    EXPECT_NE(postings(), before);
    expect_to_stay();
  }
}

TEST_F(LogTest, CommitWritesOnlyWhatIsNewAndNeverAnEmptyBlock) {
  faulty_files files;
  const auto expect = [&](std::uint64_t writes, std::uint64_t syncs) {
    EXPECT_EQ(commit(), zem_ok);
    EXPECT_EQ(std::pair(files.count(file_op::write), files.count(file_op::sync)),
              std::pair(writes, syncs));
  };
  expect(0, 0);
  insert(cat, 7);
  expect(2, 1);  // body, head
  expect(2, 1);
  fill_until(8);
  expect(4, 3);  // between body and head, and at the end
  insert(cat, 6);
  EXPECT_EQ(spm->blk_no, 1U);
  EXPECT_EQ(files.count(file_op::write), 4U) << "the full block is in the file";
}

// Growing the file, the body and the head: whichever cannot be written, the posting that needed the
// room is as if it had never been offered.
TEST_F(LogTest, AFailedBlockWriteLeavesNoTraceAndARetryIsLogged) {
  for (const auto &[op, nth] :
       {std::pair{file_op::allocate, 1U}, {file_op::write, 1U}, {file_op::write, 2U}}) {
    start();
    fill_until(20);
    const std::vector<log_posting> before = postings();
    const zem_mkey key = mkey;
    faulty_files files;
    files.fail_once(nth, ENOSPC, {op});
    EXPECT_EQ(try_insert({9, 9, 9}, 7), -ENOSPC);
    EXPECT_EQ(postings(), before);
    EXPECT_EQ(zem_mkey_compare(key, mkey.term, mkey.id), 0);
    EXPECT_EQ(try_insert({9, 9, 9}, 7), zem_yes);
    expect_to_stay();
  }
}

TEST_F(LogTest, AfterAFailedSyncCommitsFailUntouchedAndPostingsGoOn) {
  insert(cat, 7);
  ASSERT_EQ(commit(), zem_ok);
  insert(cat, 6);
  faulty_files files;
  files.fail_once(1, EIO, {file_op::sync});
  EXPECT_EQ(commit(), -EIO);
  const std::uint64_t writes = files.count(file_op::write);
  EXPECT_EQ(commit(), -EIO);
  EXPECT_EQ(files.count(file_op::write), writes);
  EXPECT_EQ(files.count(file_op::sync), 1U);
  EXPECT_TRUE(zem_spm_dirty(*spm));
  fill_until(8);
  insert(ant, 5);
  EXPECT_EQ(spm->blk_no, 1U);
  ASSERT_EQ(reopen(), zem_ok);
  EXPECT_THAT(postings(), testing::ElementsAre(log_posting{cat, 7}))
      << "the head stayed with its body";
}

TEST_F(LogTest, OneSyncAndItsFailureServeAllCommitsThatBeganBeforeIt) {
  for (const bool fails : {false, true}) {
    insert(cat, 7 - fails);
    std::array<zem_spm_sync, 2> jobs;
    for (zem_spm_sync &job : jobs)
      ASSERT_EQ(zem_spm_commit_begin(*spm, job), zem_ok);
    insert(dog, 7 - fails);
    faulty_files files;
    if (fails) files.fail_once(1, EIO, {file_op::sync});
    for (const zem_spm_sync &job : jobs)
      EXPECT_EQ(zem_spm_commit_end(job), fails ? -EIO : zem_ok);
    EXPECT_EQ(files.count(file_op::sync), 1U);
    EXPECT_TRUE(zem_spm_dirty(*spm)) << "it grew meanwhile";
  }
}

}  // namespace
