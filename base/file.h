// Files and directories. All failures are negated errno values; none is ever taken for absence.
//
// An open descriptor is shared: a commit keeps it open over its last sync, which runs without the
// shard's lock while the record may be closed or exchanged. Everything else in a zem_file is
// guarded by whatever guards its owner.
//
// Every system call that opens, looks up or changes something on the disk goes through one table of
// functions, zem_file_calls, which tests replace to count, fail or record operations.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

#include "base/status.h"

// The system calls, each with the meaning and errno of its POSIX namesake.
struct zem_file_calls {
  int (*open)(const char *path, int flags, mode_t mode) = nullptr;
  int (*close)(int fd) = nullptr;
  ssize_t (*pread)(int fd, void *into, std::size_t size, off_t offset) = nullptr;
  ssize_t (*pwrite)(int fd, const void *from, std::size_t size, off_t offset) = nullptr;
  int (*fdatasync)(int fd) = nullptr;
  int (*fsync)(int fd) = nullptr;  // directories
  int (*posix_fallocate)(int fd, off_t offset, off_t size) = nullptr;
  int (*ftruncate)(int fd, off_t size) = nullptr;
  off_t (*lseek)(int fd, off_t offset, int whence) = nullptr;  // SEEK_DATA only
  int (*stat)(const char *path, struct ::stat *into) = nullptr;
  int (*rename)(const char *from, const char *to) = nullptr;
  int (*unlink)(const char *path) = nullptr;
  int (*mkdir)(const char *path, mode_t mode) = nullptr;
  int (*rmdir)(const char *path) = nullptr;
};

// The system's own calls, for a substitute to pass on to.
const zem_file_calls &zem_file_system_calls() noexcept;

// Puts `calls` in the place of the system's; null brings the system's back. Must outlive its use.
void zem_file_use(const zem_file_calls *calls) noexcept;

// One open descriptor; closed by its destructor unless zem_file_close did so before.
struct zem_fd {
  explicit zem_fd(int opened) noexcept : number(opened) {}
  ~zem_fd();
  zem_fd(const zem_fd &) = delete;
  zem_fd &operator=(const zem_fd &) = delete;
  // -1 when closed. Atomic because whoever closes the file may see that the last sync has let go of
  // the descriptor without having synchronised with it.
  std::atomic<int> number;
};

// Makes what was written through `fd` durable (fdatasync). Needs no lock.
zem_status zem_fd_sync(const zem_fd &fd) noexcept;

enum class zem_file_mode : std::int8_t {
  existing = 1,  // keeps content; creates the file when it is missing
  fresh = -1,    // removes a file of that name and creates it anew
};

struct zem_file {
  std::string name;                      // full path
  std::shared_ptr<zem_fd> fd = nullptr;  // null while closed
  std::uint64_t size = 0;                // bytes; kept right by open, write, expand and truncate
};

zem_status zem_file_open(zem_file &file, zem_file_mode mode);  // an open record is closed first
zem_status zem_file_close(zem_file &file) noexcept;            // a closed record: zem_ok
bool zem_file_is_open(const zem_file &file) noexcept;

// Fills all of `into` from byte `offset` on; what lies past the end of the file reads as zero.
zem_status zem_file_read(const zem_file &file, std::uint64_t offset, std::span<std::byte> into);
// The first byte at or behind `offset` that may differ from zero, or the file's size: skips what was
// grown and never written without reading it, as far as the file system knows.
std::uint64_t zem_file_data(const zem_file &file, std::uint64_t offset) noexcept;
zem_status zem_file_write(zem_file &file, std::uint64_t offset, std::span<const std::byte> from);
// Makes the file at least `size` bytes long; the new bytes are zero and have their space on disk.
zem_status zem_file_expand(zem_file &file, std::uint64_t size);
// Gives back the disk space of bytes behind `offset` that are zero; the size stays. A hint.
void zem_file_release(const zem_file &file, std::uint64_t offset) noexcept;
zem_status zem_file_truncate(zem_file &file, std::uint64_t size);
zem_status zem_file_sync(const zem_file &file) noexcept;
// Has the system begin to write out these bytes, so that the next sync finds less left to do. A hint:
// nothing is durable before that sync, which also tells of failures.
void zem_file_start_sync(const zem_file &file, std::uint64_t offset, std::uint64_t size) noexcept;
void zem_file_swap(zem_file &a, zem_file &b) noexcept;  // descriptors and sizes; names stay

// The size to which a file is grown before byte `end` - 1 of it is written: whole 8 MiB steps.
std::uint64_t zem_file_step(std::uint64_t end) noexcept;

zem_status zem_file_exist(const std::string &name);  // zem_yes, zem_ok when missing, or a failure
// The first of `name`, `name`.1, `name`.2 and so on that does not exist.
zem_status zem_file_free_name(const std::string &name, std::string &free);
zem_status zem_file_rename(const std::string &from, const std::string &to);
zem_status zem_file_remove(const std::string &name);            // a missing file: -ENOENT
zem_status zem_file_remove_if_exists(const std::string &name);  // zem_yes or, if missing, zem_ok
// Reads a whole file; -EFBIG beyond `limit` bytes.
zem_status zem_file_get_string(const std::string &name, std::size_t limit, std::string &text);
// Replaces the content of `name`: writes a temporary file beside it, syncs that and renames it over.
// The caller syncs the directory. A failure leaves the old content.
zem_status zem_file_set_string(const std::string &name, const std::string &text);
// Copies `from` to a new file `to` and syncs it; the caller syncs the directory. An existing `to` is
// refused with -EEXIST, a failed copy removed.
zem_status zem_file_copy(const std::string &from, const std::string &to);

std::string zem_dir_merge(const std::string &directory, const std::string &name);  // path join
zem_status zem_dir_make(const std::string &parent, const std::string &name);
zem_status zem_dir_sync(const std::string &path);
// Removes the directory with everything in it; follows no symbolic link.
zem_status zem_dir_clear(const std::string &path);
// Names of the subdirectories of `path`, without ".", ".." and symbolic links.
zem_status zem_dir_list(const std::string &path, std::vector<std::string> &names);
// Names of all else in `path`: files, and symbolic links of every kind.
zem_status zem_dir_files(const std::string &path, std::vector<std::string> &names);

// Takes the advisory lock (flock) on a directory, held until the descriptor is closed.
// -EWOULDBLOCK when another process or database holds it.
zem_status zem_dir_lock(const std::string &path, std::shared_ptr<zem_fd> &lock);
