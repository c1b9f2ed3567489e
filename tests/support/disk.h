// A disk of the tests' own: records what the library does to the files below one directory, and
// rebuilds the directory as a kill or a power cut after any of these operations would leave it.
//
//   disk_recorder recorder(directory);
//   ... the library works ...
//   const disk_story story = recorder.story();
//   disk_state state = story.start;
//   for (const disk_op &op : story.ops) {
//     state.apply(op);
//     disk_recorder after_kill(other_directory, state);  // writes the files, and records again
//   }
//
// The model. A kill leaves everything as the last operation left it, yet not durable. What a power
// cut leaves:
//  - Creations, renames and removals since the last sync of their directory have each landed or not,
//    in any combination; each is atomic.
//  - What was written to a file since its last sync is dropped, kept, or torn: each aligned piece of
//    512 bytes or 4 KiB of each write has landed or not.
//  - Changes of a file's size land in their order, up to any of them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

#include "base/file.h"

// The bytes of one file. Copies share what they have in common.
class disk_content {
 public:
  std::uint64_t size() const { return size_; }
  void resize(std::uint64_t size);
  void write(std::uint64_t offset, std::span<const std::byte> bytes);  // beyond the end: grows
  std::uint64_t hash() const;
  void save(const std::string &path) const;
  static disk_content load(const std::string &path);

 private:
  static constexpr std::size_t page_size = 4096;
  struct page {
    std::array<std::byte, page_size> bytes{};
    std::uint64_t hash = 0;
  };
  std::uint64_t size_ = 0;
  std::map<std::uint64_t, std::shared_ptr<const page>> pages_;  // the others are zero
};

struct disk_op {
  enum class kind : std::uint8_t {
    create,
    make_dir,
    rename,
    remove,
    sync_dir,
    write,
    resize,
    sync,
  };
  kind what;
  std::string name = {};   // below the recorded directory, which is itself ""
  std::string to = {};     // of a rename
  std::size_t file = 0;    // the file that it is done to, numbered as they come into being
  std::uint64_t size = 0;  // where a write begins; the size after a resize
  std::vector<std::byte> bytes = {};
};

// What becomes of unsynced file content in a power cut.
enum class disk_cut : std::uint8_t {
  dropped,
  kept,
  mixed,  // of each file dropped or kept
  torn_512,
  torn_4k,
};

class disk_state {
 public:
  using op_ref = std::shared_ptr<const disk_op>;

  void apply(const op_ref &op);

  // Changes of names that are not durable yet, oldest first.
  std::size_t pending() const { return pending_.size(); }
  // As a power cut leaves it, those changes of names having landed for which `landed` is true.
  disk_state cut(const std::vector<bool> &landed, disk_cut how, std::mt19937_64 &random) const;

  std::uint64_t hash() const;  // of what is visible
  std::vector<std::string> names() const;
  // The content of a visible file; null when there is none of this name.
  const disk_content *find(const std::string &name) const;
  // Changes bytes of a visible file as if they had always been so.
  void damage(const std::string &name, std::uint64_t offset, std::span<const std::byte> bytes);
  void save(const std::string &directory) const;
  static disk_state load(const std::string &directory);  // all that is there is durable

  // For the recorder: numbers of files.
  std::size_t next_file() const { return files_.size(); }
  std::size_t file_of(const std::string &name) const { return visible_.at(name); }
  std::uint64_t size_of(std::size_t number) const { return files_[number].now.size(); }

 private:
  struct file {
    bool directory = false;
    disk_content now;
    disk_content durable;
    std::vector<op_ref> unsynced;
  };
  using name_map = std::map<std::string, std::size_t>;

  void apply_name(const op_ref &op);
  void sync_names(const std::string &directory);
  static void land(name_map &names, const disk_op &op);
  static disk_content torn(const file &from, std::size_t piece, std::mt19937_64 &random);

  std::vector<file> files_;
  name_map visible_;
  name_map durable_;
  std::vector<op_ref> pending_;
};

struct disk_story {
  disk_state start;
  std::vector<disk_state::op_ref> ops;
};

// The write `op` when only its first `bytes` bytes were done.
disk_state::op_ref disk_op_part(const disk_op &op, std::size_t bytes);

// Stands in for the system's file calls, from construction to destruction. Syncs are recorded and
// not carried out; space is not really reserved. Any thread may call. One recorder at a time.
class disk_recorder {
 public:
  // Begins with what `directory` holds.
  explicit disk_recorder(const std::string &directory);
  // Begins with `start`, which takes the place of what `directory` held.
  disk_recorder(const std::string &directory, const disk_state &start);
  ~disk_recorder();
  disk_recorder(const disk_recorder &) = delete;
  disk_recorder &operator=(const disk_recorder &) = delete;

  std::size_t count() const;  // of the operations so far
  disk_story story() const;   // all of them
  disk_state state() const;   // after the last one
  static const zem_file_calls calls;

 private:
  void record(disk_op op);
  // The name below the directory; nothing when the path lies elsewhere.
  std::optional<std::string> inside(const char *path) const;
  // Does `call` and then records what `op` makes, unless it failed.
  template <class Call, class Op>
  int run(Call &&call, Op &&op);

  static int open(const char *path, int flags, mode_t mode);
  static int close(int fd);
  static ssize_t pwrite(int fd, const void *from, std::size_t size, off_t offset);
  static int fdatasync(int fd);
  static int fsync(int fd);
  static int posix_fallocate(int fd, off_t offset, off_t size);
  static int ftruncate(int fd, off_t size);
  static int rename(const char *from, const char *to);
  static int unlink(const char *path);
  static int mkdir(const char *path, mode_t mode);
  static int rmdir(const char *path);
  static inline disk_recorder *active = nullptr;

  struct opened {
    std::size_t file = 0;
    std::string name = {};  // of a directory
    bool directory = false;
  };

  const std::string directory_;
  mutable std::mutex mutex_;
  std::map<int, opened> opened_;
  disk_story story_;
  disk_state state_;
};
