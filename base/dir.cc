#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>

#include "base/file.h"
#include "base/file_impl.h"
#include "base/scope.h"

namespace {

constexpr mode_t dir_mode = 0755;

// What a directory holds, by name. Symbolic links count among the others.
struct dir_entries {
  std::vector<std::string> directories;
  std::vector<std::string> others;
};

// Not every file system tells the kind of an entry along with its name.
zem_status is_directory(int dir_fd, const dirent &entry, bool &directory) noexcept {
  directory = entry.d_type == DT_DIR;
  if (entry.d_type != DT_UNKNOWN) return zem_ok;
  struct ::stat status {};
  if (::fstatat(dir_fd, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) < 0) return zem_status_errno();
  directory = S_ISDIR(status.st_mode);
  return zem_ok;
}

// Reads the directory `path`; `flags` are added to those of its open.
zem_status read_entries(const std::string &path, int flags, dir_entries &entries) {
  zem_fd fd(-1);
  if (zem_status st = zem_fd_open(fd, path.c_str(), O_RDONLY | O_DIRECTORY | flags, 0); st < 0)
    return st;
  DIR *const dir = ::fdopendir(fd.number);
  if (dir == nullptr) return zem_status_errno();
  fd.number = -1;  // the stream closes it from here on
  const zem_on_exit close([&] { ::closedir(dir); });

  while (true) {
    errno = 0;
    // Only this thread reads this stream, which is all that the call asks for.
    const dirent *const entry = ::readdir(dir);  // NOLINT(concurrency-mt-unsafe)
    if (entry == nullptr) return zem_status_errno();
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    bool directory = false;
    if (zem_status st = is_directory(::dirfd(dir), *entry, directory); st < 0) return st;
    (directory ? entries.directories : entries.others).emplace_back(name);
  }
}

}  // namespace

std::string zem_dir_merge(const std::string &directory, const std::string &name) {
  if (directory.empty() || directory.back() == '/') return directory + name;
  return directory + '/' + name;
}

zem_status zem_dir_make(const std::string &parent, const std::string &name) {
  const std::string path = zem_dir_merge(parent, name);
  if (zem_file_calls_in_use().mkdir(path.c_str(), dir_mode) < 0) return zem_status_errno();
  return zem_ok;
}

zem_status zem_dir_sync(const std::string &path) {
  zem_fd fd(-1);
  if (zem_status st = zem_fd_open(fd, path.c_str(), O_RDONLY | O_DIRECTORY, 0); st < 0) return st;
  if (zem_file_retry([&] { return zem_file_calls_in_use().fsync(fd.number); }) < 0)
    return zem_status_errno();
  return zem_fd_close(fd);
}

zem_status zem_dir_clear(const std::string &path) {
  // Every directory stands behind the one that holds it, so that removing from the back finds each
  // of them empty.
  std::vector<std::string> directories{path};
  for (std::size_t i = 0; i < directories.size(); ++i) {
    const std::string directory = directories[i];
    dir_entries entries;
    if (zem_status st = read_entries(directory, O_NOFOLLOW, entries); st < 0) return st;
    for (const std::string &name : entries.others) {
      if (zem_status st = zem_file_remove(zem_dir_merge(directory, name)); st < 0) return st;
    }
    for (const std::string &name : entries.directories)
      directories.push_back(zem_dir_merge(directory, name));
  }
  for (auto directory = directories.rbegin(); directory != directories.rend(); ++directory) {
    if (zem_file_calls_in_use().rmdir(directory->c_str()) < 0) return zem_status_errno();
  }
  return zem_ok;
}

zem_status zem_dir_list(const std::string &path, std::vector<std::string> &names) {
  dir_entries entries;
  if (zem_status st = read_entries(path, 0, entries); st < 0) return st;
  names.swap(entries.directories);
  return zem_ok;
}

zem_status zem_dir_files(const std::string &path, std::vector<std::string> &names) {
  dir_entries entries;
  if (zem_status st = read_entries(path, 0, entries); st < 0) return st;
  names.swap(entries.others);
  return zem_ok;
}

zem_status zem_dir_lock(const std::string &path, std::shared_ptr<zem_fd> &lock) {
  auto fd = std::make_shared<zem_fd>(-1);
  if (zem_status st = zem_fd_open(*fd, path.c_str(), O_RDONLY | O_DIRECTORY, 0); st < 0) return st;
  if (zem_file_retry([&] { return ::flock(fd->number, LOCK_EX | LOCK_NB); }) < 0)
    return zem_status_errno();
  lock = std::move(fd);
  return zem_ok;
}
