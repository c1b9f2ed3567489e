#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <span>
#include <string>
#include <vector>

#include "base/file.h"

#include "tests/support/faulty_files.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t mib = std::uint64_t{1} << 20;

class FileTest : public ::testing::Test {
 protected:
  FileTest() { file.name = name; }

  void open() { ASSERT_EQ(zem_file_open(file, zem_file_mode::existing), zem_ok); }
  zem_status write(std::uint64_t offset, const std::string &text) {
    return zem_file_write(file, offset, std::as_bytes(std::span(text)));
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

  temp_dir dir;
  std::string name = dir.path("file");
  zem_file file;
};

TEST_F(FileTest, InterruptedAndPartialTransfersGoOn) {
  std::string text;
  for (int i = 0; i < 1000; ++i)
    text.push_back(static_cast<char>(i));
  faulty_files files;
  files.limit_transfer(7);
  const auto interrupt = [&](std::uint64_t nth, file_op op) { files.fail_once(nth, EINTR, {op}); };
  interrupt(1, file_op::open);
  open();
  interrupt(5, file_op::write);
  EXPECT_EQ(write(11, text), zem_ok);
  interrupt(5, file_op::read);
  EXPECT_EQ(read(11, text.size()), text);
  interrupt(1, file_op::allocate);
  EXPECT_EQ(zem_file_expand(file, 5000), zem_ok);
  interrupt(1, file_op::truncate);
  EXPECT_EQ(zem_file_truncate(file, 2000), zem_ok);
  interrupt(1, file_op::sync);
  EXPECT_EQ(zem_file_sync(file), zem_ok);
  interrupt(1, file_op::sync_dir);
  EXPECT_EQ(zem_dir_sync(dir.path()), zem_ok);
  EXPECT_EQ(fs::file_size(name), 2000U);
  EXPECT_EQ(file.size, 2000U);
}

TEST_F(FileTest, FailuresArePassedUpAndTheSizeStaysRight) {
  open();
  faulty_files files;
  const auto fail = [&](std::uint64_t nth, file_op op) { files.fail_once(nth, EDQUOT, {op}); };
  files.limit_transfer(4096);
  const std::string text(5 * 4096, 'x');
  fail(3, file_op::write);
  EXPECT_EQ(write(0, text), -EDQUOT);
  std::vector<std::byte> into(8192);
  fail(2, file_op::read);
  EXPECT_EQ(zem_file_read(file, 0, into), -EDQUOT);
  fail(1, file_op::allocate);
  EXPECT_EQ(zem_file_expand(file, mib), -EDQUOT);
  fail(1, file_op::truncate);
  EXPECT_EQ(zem_file_truncate(file, 1), -EDQUOT);
  fail(1, file_op::sync);
  EXPECT_EQ(zem_file_sync(file), -EDQUOT);
  EXPECT_EQ(file.size, 8192U);
  EXPECT_EQ(fs::file_size(name), 8192U);
  files.fail_none();
  files.limit_transfer(0);
  EXPECT_EQ(write(0, text), -EIO) << "a write that moves nothing must end";
  files.fail_from(1, EIO, {file_op::close});
  EXPECT_EQ(zem_file_close(file), -EIO);
  EXPECT_EQ(zem_file_close(file), zem_ok);
  EXPECT_EQ(write(0, text), -EBADF);
}

TEST_F(FileTest, UnwrittenBytesAreZeroAndDataIsNeverSkipped) {
  open();
  EXPECT_EQ(write(3, "abc"), zem_ok);
  EXPECT_EQ(read(0, 8), std::string("\0\0\0abc\0\0", 8));
  ASSERT_EQ(zem_file_expand(file, 8 * mib), zem_ok);
  EXPECT_EQ(read(8 * mib - 2, 2), std::string("\0\0", 2));
  EXPECT_EQ(write(5 * mib + 100, "abc"), zem_ok);
  EXPECT_LE(zem_file_data(file, 4096), 5 * mib + 100);
  EXPECT_EQ(zem_file_data(file, 5 * mib + 101), 5 * mib + 101);
  EXPECT_GE(zem_file_data(file, 5 * mib + 103), 5 * mib + 103);
  EXPECT_EQ(zem_file_data(file, 9 * mib), 8 * mib);
  faulty_files files;
  files.fail_from(1, EINVAL, {file_op::find_data});
  EXPECT_EQ(zem_file_data(file, 7), 7U);
}

TEST_F(FileTest, OnlyTheSystemsWordCountsAsAbsence) {
  EXPECT_EQ(zem_file_exist(name), zem_ok);
  EXPECT_EQ(zem_file_remove_if_exists(name), zem_ok);
  put(name, "x");
  EXPECT_EQ(zem_file_exist(name + "/below"), -ENOTDIR);
  faulty_files files;
  files.fail_from(1, EACCES);
  EXPECT_EQ(zem_file_exist(name), -EACCES);
  EXPECT_EQ(zem_file_remove_if_exists(name), -EACCES);
}

// Runs `operation` with its first file operation failing, then its second, and so on until it
// runs through. `check` sees the state that each failure leaves.
void sweep(const std::function<zem_status()> &operation, const std::function<void()> &check) {
  faulty_files files;
  for (std::uint64_t nth = 1;; ++nth) {
    SCOPED_TRACE(nth);
    files.fail_once(nth, EIO);
    const zem_status st = operation();
    files.fail_none();
    if (st == zem_ok) break;
    ASSERT_EQ(st, -EIO);
    check();
  }
}

TEST_F(FileTest, AReplacementOrACopyIsWholeOrNotThere) {
  const auto files = [&] { return std::distance(fs::directory_iterator(dir.path()), {}); };
  put(name, "old");
  sweep([&] { return zem_file_set_string(name, "new"); },
        [&] {
          EXPECT_EQ(content(name), "old");
          EXPECT_EQ(files(), 1);
        });
  EXPECT_EQ(content(name), "new");
  EXPECT_EQ(files(), 1);
  std::string text;
  for (std::uint64_t i = 0; i < 3 * mib + 17; ++i)
    text.push_back(static_cast<char>(i * i >> 8));
  put(name, text);
  const std::string to = dir.path("copy");
  sweep([&] { return zem_file_copy(name, to); }, [&] { EXPECT_EQ(zem_file_exist(to), zem_ok); });
  EXPECT_EQ(content(to), text);
  EXPECT_EQ(zem_file_copy(name, to), -EEXIST);
}

TEST_F(FileTest, ClearRemovesTheTreeAndNothingBehindALink) {
  fs::create_directory(dir.path("kept"));
  put(dir.path("kept/file"), "x");
  fs::create_directory_symlink(dir.path("kept"), dir.path("link"));
  std::string deepest = dir.path("top");
  for (int level = 0; level < 50; ++level, deepest += "/sub") {
    fs::create_directory(deepest);
    fs::create_directory_symlink(dir.path("kept"), deepest + "/link");
  }
  EXPECT_LT(zem_dir_clear(dir.path("link")), 0);
  EXPECT_EQ(zem_dir_clear(dir.path("top")), zem_ok);
  EXPECT_EQ(zem_file_exist(dir.path("top")), zem_ok);
  EXPECT_EQ(zem_file_exist(dir.path("kept/file")), zem_yes);
}

}  // namespace
