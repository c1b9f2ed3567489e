#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "base/file.h"

#include "tests/support/faulty_files.h"
#include "tests/support/temp_dir.h"

namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

constexpr std::uint64_t mib = std::uint64_t{1} << 20;

std::span<const std::byte> bytes_of(const std::string &text) {
  return std::as_bytes(std::span(text));
}

class FileTest : public ::testing::Test {
 protected:
  FileTest() { file.name = name; }

  void open() { ASSERT_EQ(zem_file_open(file, zem_file_mode::existing), zem_ok); }
  void write(std::uint64_t offset, const std::string &text) {
    ASSERT_EQ(zem_file_write(file, offset, bytes_of(text)), zem_ok);
  }
  std::string read(std::uint64_t offset, std::size_t size) const {
    std::string text(size, '?');
    EXPECT_EQ(zem_file_read(file, offset, std::as_writable_bytes(std::span(text))), zem_ok);
    return text;
  }
  void put(const std::string &path, const std::string &text) const {
    std::ofstream(path, std::ios::binary) << text;
  }
  std::string content(const std::string &path) const {
    std::string text;
    EXPECT_EQ(zem_file_get_string(path, 64 * mib, text), zem_ok);
    return text;
  }
  std::uint64_t disk_size() const { return std::filesystem::file_size(name); }

  temp_dir dir;
  std::string name = dir.path("file");
  zem_file file;
};

TEST_F(FileTest, ReadsWhatWasWrittenAndZerosElsewhere) {
  open();
  write(3, "abc");

  EXPECT_EQ(file.size, 6U);
  EXPECT_EQ(read(0, 8), std::string("\0\0\0abc\0\0", 8));
  EXPECT_EQ(read(5, 3), std::string("c\0\0", 3));
  EXPECT_EQ(read(1000, 2), std::string("\0\0", 2));

  EXPECT_EQ(zem_file_close(file), zem_ok);
  open();
  EXPECT_EQ(file.size, 6U);
}

TEST_F(FileTest, InterruptedAndPartialTransfersGoOn) {
  std::string text(1000, '\0');
  for (std::size_t i = 0; i < text.size(); ++i)
    text[i] = static_cast<char>(i);
  faulty_files files;
  files.limit_transfer(7);

  files.fail_once(1, EINTR, {file_op::open});
  open();
  files.fail_once(5, EINTR, {file_op::write});
  write(11, text);
  files.fail_once(5, EINTR, {file_op::read});
  EXPECT_EQ(read(11, text.size()), text);
  files.fail_once(1, EINTR, {file_op::allocate});
  EXPECT_EQ(zem_file_expand(file, 5000), zem_ok);
  files.fail_once(1, EINTR, {file_op::truncate});
  EXPECT_EQ(zem_file_truncate(file, 2000), zem_ok);
  files.fail_once(1, EINTR, {file_op::sync});
  EXPECT_EQ(zem_file_sync(file), zem_ok);
  files.fail_once(1, EINTR, {file_op::sync_dir});
  EXPECT_EQ(zem_dir_sync(dir.path()), zem_ok);

  EXPECT_EQ(disk_size(), 2000U);
  EXPECT_EQ(file.size, 2000U);
}

TEST_F(FileTest, FailuresArePassedUpAndTheSizeStaysRight) {
  open();
  faulty_files files;
  files.limit_transfer(4096);
  const std::string text(5 * 4096, 'x');

  files.fail_once(3, ENOSPC, {file_op::write});
  EXPECT_EQ(zem_file_write(file, 0, bytes_of(text)), -ENOSPC);
  EXPECT_EQ(file.size, 8192U);
  EXPECT_EQ(disk_size(), 8192U);

  files.fail_once(2, EIO, {file_op::read});
  std::string into(8192, '?');
  EXPECT_EQ(zem_file_read(file, 0, std::as_writable_bytes(std::span(into))), -EIO);
  files.fail_once(1, ENOSPC, {file_op::allocate});
  EXPECT_EQ(zem_file_expand(file, mib), -ENOSPC);
  files.fail_once(1, EIO, {file_op::truncate});
  EXPECT_EQ(zem_file_truncate(file, 1), -EIO);
  files.fail_once(1, EIO, {file_op::sync});
  EXPECT_EQ(zem_file_sync(file), -EIO);
  EXPECT_EQ(file.size, 8192U);
  EXPECT_EQ(disk_size(), 8192U);

  // A write that moves nothing must end.
  files.fail_none();
  files.limit_transfer(0);
  EXPECT_EQ(zem_file_write(file, 0, bytes_of(text)), -EIO);
}

TEST_F(FileTest, GrownBytesAreZeroAndHaveTheirSpace) {
  open();
  write(0, "abc");

  ASSERT_EQ(zem_file_expand(file, zem_file_step(file.size)), zem_ok);

  EXPECT_EQ(file.size, 8 * mib);
  EXPECT_EQ(disk_size(), 8 * mib);
  struct ::stat status {};
  ASSERT_EQ(::stat(name.c_str(), &status), 0);
  EXPECT_GE(status.st_blocks * 512, static_cast<blkcnt_t>(8 * mib));
  EXPECT_EQ(read(0, 5), std::string("abc\0\0", 5));
  EXPECT_EQ(read(8 * mib - 2, 2), std::string("\0\0", 2));

  faulty_files files;
  EXPECT_EQ(zem_file_expand(file, mib), zem_ok);
  EXPECT_EQ(files.count(file_op::allocate), 0U);
  EXPECT_EQ(file.size, 8 * mib);
}

TEST_F(FileTest, FilesGrowInWholeSteps) {
  EXPECT_EQ(zem_file_step(0), 0U);
  EXPECT_EQ(zem_file_step(1), 8 * mib);
  EXPECT_EQ(zem_file_step(8 * mib), 8 * mib);
  EXPECT_EQ(zem_file_step(8 * mib + 1), 16 * mib);
}

TEST_F(FileTest, DataIsNeverSkipped) {
  open();
  ASSERT_EQ(zem_file_expand(file, 8 * mib), zem_ok);
  write(5 * mib + 100, "abc");

  EXPECT_LE(zem_file_data(file, 0), 5 * mib + 100);
  EXPECT_EQ(zem_file_data(file, 5 * mib + 101), 5 * mib + 101);
  EXPECT_GE(zem_file_data(file, 5 * mib + 103), 5 * mib + 103);
  EXPECT_EQ(zem_file_data(file, 9 * mib), 8 * mib);

  faulty_files files;
  files.fail_from(1, EINVAL, {file_op::find_data});
  EXPECT_EQ(zem_file_data(file, 7), 7U);
}

TEST_F(FileTest, AFreshFileIsAnotherOne) {
  put(name, "old");
  zem_file other{.name = name};
  ASSERT_EQ(zem_file_open(other, zem_file_mode::existing), zem_ok);

  ASSERT_EQ(zem_file_open(file, zem_file_mode::fresh), zem_ok);

  EXPECT_EQ(file.size, 0U);
  EXPECT_EQ(disk_size(), 0U);
  std::swap(file, other);
  EXPECT_EQ(read(0, 3), "old");
}

TEST_F(FileTest, AFreshFileNeedsTheOldOneRemoved) {
  put(name, "old");
  faulty_files files;

  files.fail_once(1, EIO, {file_op::remove});
  EXPECT_EQ(zem_file_open(file, zem_file_mode::fresh), -EIO);

  EXPECT_FALSE(zem_file_is_open(file));
  EXPECT_EQ(content(name), "old");
}

TEST_F(FileTest, AClosedFileRefusesEverything) {
  std::byte byte{};

  EXPECT_EQ(zem_file_read(file, 0, {&byte, 1}), -EBADF);
  EXPECT_EQ(zem_file_write(file, 0, {&byte, 1}), -EBADF);
  EXPECT_EQ(zem_file_expand(file, 1), -EBADF);
  EXPECT_EQ(zem_file_truncate(file, 0), -EBADF);
  EXPECT_EQ(zem_file_sync(file), -EBADF);
  EXPECT_EQ(zem_file_close(file), zem_ok);
}

TEST_F(FileTest, CloseReportsItsFailureOnce) {
  open();
  faulty_files files;
  files.fail_from(1, EIO, {file_op::close});

  EXPECT_EQ(zem_file_close(file), -EIO);
  EXPECT_EQ(zem_file_close(file), zem_ok);
  EXPECT_EQ(files.count(file_op::close), 1U);
}

TEST_F(FileTest, ASharedDescriptorOutlivesTheClose) {
  open();
  faulty_files files;
  std::shared_ptr<zem_fd> fd = file.fd;

  EXPECT_EQ(zem_file_close(file), zem_ok);
  EXPECT_FALSE(zem_file_is_open(file));
  EXPECT_EQ(zem_fd_sync(*fd), zem_ok);
  EXPECT_EQ(files.count(file_op::close), 0U);
  fd.reset();
  EXPECT_EQ(files.count(file_op::close), 1U);
}

TEST_F(FileTest, ASyncAndACloseMayMeet) {
  for (int round = 0; round < 100; ++round) {
    faulty_files files;
    open();
    std::thread committer([fd = file.fd]() mutable {
      EXPECT_EQ(zem_fd_sync(*fd), zem_ok);
      fd.reset();
    });
    EXPECT_EQ(zem_file_close(file), zem_ok);
    committer.join();
    EXPECT_EQ(files.count(file_op::close), 1U);
  }
}

TEST_F(FileTest, SwapExchangesAllButTheNames) {
  open();
  write(0, "abc");
  zem_file other{.name = dir.path("other")};
  ASSERT_EQ(zem_file_open(other, zem_file_mode::fresh), zem_ok);

  zem_file_swap(file, other);

  EXPECT_EQ(file.size, 0U);
  EXPECT_EQ(file.name, name);
  EXPECT_EQ(other.size, 3U);
  std::swap(file, other);
  EXPECT_EQ(read(0, 3), "abc");
}

TEST_F(FileTest, OnlyTheSystemsWordCountsAsAbsence) {
  EXPECT_EQ(zem_file_exist(name), zem_ok);
  EXPECT_EQ(zem_file_remove_if_exists(name), zem_ok);
  EXPECT_EQ(zem_file_remove(name), -ENOENT);
  put(name, "x");
  EXPECT_EQ(zem_file_exist(name), zem_yes);
  EXPECT_EQ(zem_file_exist(name + "/below"), -ENOTDIR);

  faulty_files files;
  for (const int error : {EIO, EMFILE, EACCES}) {
    files.fail_from(1, error);
    EXPECT_EQ(zem_file_exist(name), -error);
    EXPECT_EQ(zem_file_remove_if_exists(name), -error);
  }
  files.fail_none();
  EXPECT_EQ(zem_file_remove_if_exists(name), zem_yes);
}

TEST_F(FileTest, AWholeFileIsReadUpToTheLimit) {
  const std::string text(200'000, 'x');
  put(name, text);
  std::string found = "before";

  EXPECT_EQ(zem_file_get_string(name, text.size() - 1, found), -EFBIG);
  EXPECT_EQ(zem_file_get_string(dir.path("none"), 100, found), -ENOENT);
  EXPECT_EQ(zem_file_get_string(dir.path(), 100, found), -EISDIR);
  faulty_files files;
  files.fail_once(2, EIO, {file_op::read});
  EXPECT_EQ(zem_file_get_string(name, text.size(), found), -EIO);
  EXPECT_EQ(found, "before");
  EXPECT_EQ(zem_file_get_string(name, text.size(), found), zem_ok);
  EXPECT_EQ(found, text);
}

// Runs `operation` with its first file operation failing, then its second, and so on until it
// runs through. `check` sees the state that each failure leaves.
void sweep(const std::function<zem_status()> &operation, const std::function<void()> &check) {
  faulty_files files;
  for (std::uint64_t nth = 1; nth < 100; ++nth) {
    SCOPED_TRACE(nth);
    files.fail_once(nth, EIO);
    const zem_status st = operation();
    EXPECT_TRUE(st == zem_ok || files.has_failed());
    files.fail_none();
    if (st == zem_ok) {
      EXPECT_GT(nth, 5U);
      return;
    }
    EXPECT_EQ(st, -EIO);
    check();
  }
  FAIL() << "never ran through";
}

TEST_F(FileTest, AFailedReplacementLeavesTheOldContentAlone) {
  put(name, "old");

  sweep([&] { return zem_file_set_string(name, "new"); },
        [&] {
          EXPECT_EQ(content(name), "old");
          EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
        });

  EXPECT_EQ(content(name), "new");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

TEST_F(FileTest, ACopyIsWholeOrAbsent) {
  std::string text(3 * mib + 17, '\0');
  for (std::size_t i = 0; i < text.size(); ++i)
    text[i] = static_cast<char>(i * i >> 8);
  put(name, text);
  const std::string to = dir.path("copy");

  sweep([&] { return zem_file_copy(name, to); }, [&] { EXPECT_EQ(zem_file_exist(to), zem_ok); });
  EXPECT_EQ(content(to), text);

  put(name, "changed");
  EXPECT_EQ(zem_file_copy(name, to), -EEXIST);
  EXPECT_EQ(content(to), text);
}

TEST_F(FileTest, ListsDirectoriesOnly) {
  ASSERT_EQ(zem_dir_make(dir.path(), "one"), zem_ok);
  ASSERT_EQ(zem_dir_make(dir.path() + "/", ".two"), zem_ok);
  EXPECT_EQ(zem_dir_make(dir.path(), "one"), -EEXIST);
  EXPECT_EQ(zem_dir_make(dir.path("none"), "one"), -ENOENT);
  put(name, "x");
  std::filesystem::create_directory_symlink(dir.path("one"), dir.path("link"));
  std::vector<std::string> names;

  ASSERT_EQ(zem_dir_list(dir.path(), names), zem_ok);
  EXPECT_THAT(names, UnorderedElementsAre("one", ".two"));

  names = {"before"};
  EXPECT_EQ(zem_dir_list(dir.path("none"), names), -ENOENT);
  faulty_files files;
  files.fail_once(1, EMFILE);
  EXPECT_EQ(zem_dir_list(dir.path(), names), -EMFILE);
  EXPECT_THAT(names, ElementsAre("before"));
}

TEST_F(FileTest, ClearRemovesTheTreeAndNothingBehindALink) {
  std::string deepest = dir.path("top");
  std::filesystem::create_directory(deepest);
  for (int level = 0; level < 50; ++level) {
    ASSERT_EQ(zem_dir_make(deepest, "sub"), zem_ok);
    deepest = zem_dir_merge(deepest, "sub");
    put(deepest + "/file", "x");
  }
  std::filesystem::create_directory(dir.path("kept"));
  put(dir.path("kept/file"), "x");
  std::filesystem::create_directory_symlink(dir.path("kept"), deepest + "/link");
  std::filesystem::create_directory_symlink(dir.path("kept"), dir.path("link"));

  EXPECT_LT(zem_dir_clear(dir.path("link")), 0);
  {
    faulty_files files;
    files.fail_once(3, EACCES, {file_op::remove});
    EXPECT_EQ(zem_dir_clear(dir.path("top")), -EACCES);
    files.fail_once(3, EBUSY, {file_op::remove_dir});
    EXPECT_EQ(zem_dir_clear(dir.path("top")), -EBUSY);
  }
  EXPECT_EQ(zem_dir_clear(dir.path("top")), zem_ok);

  EXPECT_EQ(zem_file_exist(dir.path("top")), zem_ok);
  EXPECT_EQ(zem_file_exist(dir.path("kept/file")), zem_yes);
  EXPECT_EQ(zem_dir_clear(dir.path("top")), -ENOENT);
}

TEST_F(FileTest, OneHolderOfADirectorysLock) {
  std::shared_ptr<zem_fd> first;
  std::shared_ptr<zem_fd> second;

  ASSERT_EQ(zem_dir_lock(dir.path(), first), zem_ok);
  EXPECT_EQ(zem_dir_lock(dir.path(), second), -EWOULDBLOCK);
  EXPECT_EQ(second, nullptr);
  first.reset();
  EXPECT_EQ(zem_dir_lock(dir.path(), second), zem_ok);
}

}  // namespace
