// Stands in for the system's file calls, from construction to destruction: counts them, lets chosen
// ones fail and cuts reads and writes short. A call that fails does nothing, but for a close, which
// lets go of its descriptor as the system's does.
//
//   faulty_files files;
//   files.fail_once(3, ENOSPC, {file_op::write});  // the third write from now on
//   files.fail_from(1, EIO);                       // every call from now on
//
// Any thread may call. One of them at a time.
#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <initializer_list>
#include <limits>
#include <mutex>

#include "base/file.h"

enum class file_op : std::uint8_t {
  open,
  close,
  read,
  write,
  sync,
  sync_dir,
  allocate,
  truncate,
  find_data,
  look_up,
  rename,
  remove,
  make_dir,
  remove_dir,
};

// A set of kinds of operations.
class file_ops {
 public:
  file_ops(std::initializer_list<file_op> ops) {
    for (const file_op op : ops)
      bits_ |= bit(op);
  }
  static file_ops all() {
    file_ops ops{};
    ops.bits_ = ~0U;
    return ops;
  }
  bool holds(file_op op) const { return (bits_ & bit(op)) != 0; }

 private:
  static std::uint32_t bit(file_op op) { return 1U << static_cast<unsigned>(op); }
  std::uint32_t bits_ = 0;
};

class faulty_files {
 public:
  // What does not fail goes on to `below`.
  explicit faulty_files(const zem_file_calls &below = zem_file_system_calls()) : below_(below) {
    EXPECT_EQ(active, nullptr);
    active = this;
    zem_file_use(&calls);
  }
  ~faulty_files() {
    zem_file_use(&below_);
    active = nullptr;
  }
  faulty_files(const faulty_files &) = delete;
  faulty_files &operator=(const faulty_files &) = delete;

  // The nth operation of these kinds fails, counted from 1 and from this call on.
  void fail_once(std::uint64_t nth, int error, file_ops ops = file_ops::all()) {
    set_plan({.ops = ops, .first = nth, .last = nth, .error = error});
  }
  // The nth operation of these kinds and all later ones fail.
  void fail_from(std::uint64_t nth, int error, file_ops ops = file_ops::all()) {
    set_plan({.ops = ops, .first = nth, .error = error});
  }
  void fail_none() { set_plan({}); }

  // Reads and writes move at most this many bytes a call.
  void limit_transfer(std::size_t bytes) {
    const std::lock_guard held(mutex_);
    transfer_max_ = bytes;
  }

  // Operations of a kind so far, failed ones included.
  std::uint64_t count(file_op op) const {
    const std::lock_guard held(mutex_);
    return counts_[static_cast<std::size_t>(op)];
  }
  // Whether an operation failed since the last plan was made.
  bool has_failed() const {
    const std::lock_guard held(mutex_);
    return plan_.seen >= plan_.first;
  }

 private:
  static constexpr std::uint64_t never = std::numeric_limits<std::uint64_t>::max();
  struct fault_plan {
    file_ops ops = {};
    std::uint64_t first = never;
    std::uint64_t last = never;
    std::uint64_t seen = 0;
    int error = 0;
  };

  void set_plan(const fault_plan &plan) {
    const std::lock_guard held(mutex_);
    plan_ = plan;
  }

  // Counts an operation; the error that it must report, or 0.
  static int begin(file_op op) { return active->count_and_judge(op); }
  int count_and_judge(file_op op) {
    const std::lock_guard held(mutex_);
    ++counts_[static_cast<std::size_t>(op)];
    if (!plan_.ops.holds(op)) return 0;
    ++plan_.seen;
    return plan_.seen >= plan_.first && plan_.seen <= plan_.last ? plan_.error : 0;
  }
  static std::size_t cut(std::size_t bytes) {
    const std::lock_guard held(active->mutex_);
    return std::min(bytes, active->transfer_max_);
  }

  // Runs `call` unless the operation is to fail.
  template <class Call>
  static auto run(file_op op, Call &&call) {
    if (const int error = begin(op); error != 0) {
      errno = error;
      return static_cast<decltype(call())>(-1);
    }
    return call();
  }

  static const zem_file_calls &below() { return active->below_; }

  static int open(const char *path, int flags, mode_t mode) {
    return run(file_op::open, [&] { return below().open(path, flags, mode); });
  }
  static int close(int fd) {
    const int error = begin(file_op::close);
    const int result = below().close(fd);
    if (error == 0) return result;
    errno = error;
    return -1;
  }
  static ssize_t pread(int fd, void *into, std::size_t size, off_t offset) {
    return run(file_op::read, [&] { return below().pread(fd, into, cut(size), offset); });
  }
  static ssize_t pwrite(int fd, const void *from, std::size_t size, off_t offset) {
    return run(file_op::write, [&] { return below().pwrite(fd, from, cut(size), offset); });
  }
  static int fdatasync(int fd) {
    return run(file_op::sync, [&] { return below().fdatasync(fd); });
  }
  static int fsync(int fd) {
    return run(file_op::sync_dir, [&] { return below().fsync(fd); });
  }
  static int posix_fallocate(int fd, off_t offset, off_t size) {
    const int error = begin(file_op::allocate);
    return error != 0 ? error : below().posix_fallocate(fd, offset, size);
  }
  static int ftruncate(int fd, off_t size) {
    return run(file_op::truncate, [&] { return below().ftruncate(fd, size); });
  }
  static off_t lseek(int fd, off_t offset, int whence) {
    return run(file_op::find_data, [&] { return below().lseek(fd, offset, whence); });
  }
  static int stat(const char *path, struct ::stat *into) {
    return run(file_op::look_up, [&] { return below().stat(path, into); });
  }
  static int rename(const char *from, const char *to) {
    return run(file_op::rename, [&] { return below().rename(from, to); });
  }
  static int unlink(const char *path) {
    return run(file_op::remove, [&] { return below().unlink(path); });
  }
  static int mkdir(const char *path, mode_t mode) {
    return run(file_op::make_dir, [&] { return below().mkdir(path, mode); });
  }
  static int rmdir(const char *path) {
    return run(file_op::remove_dir, [&] { return below().rmdir(path); });
  }

  static constexpr zem_file_calls calls{
      .open = open,
      .close = close,
      .pread = pread,
      .pwrite = pwrite,
      .fdatasync = fdatasync,
      .fsync = fsync,
      .posix_fallocate = posix_fallocate,
      .ftruncate = ftruncate,
      .lseek = lseek,
      .stat = stat,
      .rename = rename,
      .unlink = unlink,
      .mkdir = mkdir,
      .rmdir = rmdir,
  };
  static inline faulty_files *active = nullptr;

  const zem_file_calls &below_;
  mutable std::mutex mutex_;
  std::array<std::uint64_t, static_cast<std::size_t>(file_op::remove_dir) + 1> counts_{};
  fault_plan plan_;
  std::size_t transfer_max_ = std::numeric_limits<std::size_t>::max();
};
