#include "tests/support/disk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace {

// Mixes `value` into `seed`, so that equal sequences give equal sums.
std::uint64_t mix(std::uint64_t seed, std::uint64_t value) {
  seed = (seed ^ value) * 0x9E3779B97F4A7C15ULL;
  return seed ^ (seed >> 29);
}

std::uint64_t hash_bytes(std::span<const std::byte> bytes) {
  std::uint64_t sum = bytes.size();
  for (std::size_t i = 0; i < bytes.size(); i += sizeof sum) {
    std::uint64_t word = 0;
    std::memcpy(&word, &bytes[i], std::min(sizeof word, bytes.size() - i));
    sum = mix(sum, word);
  }
  return sum;
}

bool all_zero(std::span<const std::byte> bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](std::byte b) { return b == std::byte{0}; });
}

std::string parent_of(const std::string &name) {
  const std::size_t slash = name.rfind('/');
  return slash == std::string::npos ? std::string() : name.substr(0, slash);
}

}  // namespace

void disk_content::write(std::uint64_t offset, std::span<const std::byte> bytes) {
  size_ = std::max(size_, offset + bytes.size());
  while (!bytes.empty()) {
    const std::uint64_t number = offset / page_size;
    const std::size_t at = offset % page_size;
    const std::size_t count = std::min(page_size - at, bytes.size());
    const auto old = pages_.find(number);
    const auto changed =
        old != pages_.end() ? std::make_shared<page>(*old->second) : std::make_shared<page>();
    std::copy_n(bytes.begin(), count, changed->bytes.begin() + static_cast<std::ptrdiff_t>(at));
    if (all_zero(changed->bytes)) {
      pages_.erase(number);
    } else {
      changed->hash = hash_bytes(changed->bytes);
      pages_[number] = changed;
    }
    bytes = bytes.subspan(count);
    offset += count;
  }
}

void disk_content::resize(std::uint64_t size) {
  if (size < size_) {
    pages_.erase(pages_.lower_bound((size + page_size - 1) / page_size), pages_.end());
    if (const std::size_t rest = size % page_size; rest != 0) {
      const std::vector<std::byte> zeros(page_size - rest);
      write(size, zeros);
    }
  }
  size_ = size;
}

std::uint64_t disk_content::hash() const {
  std::uint64_t sum = size_;
  for (const auto &[number, held] : pages_)
    sum = mix(mix(sum, number), held->hash);
  return sum;
}

void disk_content::save(const std::string &path) const {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0) << path;
  EXPECT_EQ(::ftruncate(fd, static_cast<off_t>(size_)), 0);
  for (const auto &[number, held] : pages_) {
    const std::size_t count = std::min<std::uint64_t>(page_size, size_ - number * page_size);
    EXPECT_EQ(::pwrite(fd, held->bytes.data(), count, static_cast<off_t>(number * page_size)),
              static_cast<ssize_t>(count));
  }
  ::close(fd);
}

disk_content disk_content::load(const std::string &path) {
  disk_content content;
  std::array<std::byte, page_size> chunk{};
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_GE(fd, 0) << path;
  for (ssize_t got = 0; (got = ::read(fd, chunk.data(), chunk.size())) > 0;)
    content.write(content.size_, std::span(chunk).first(static_cast<std::size_t>(got)));
  ::close(fd);
  return content;
}

void disk_state::land(name_map &names, const disk_op &op) {
  if (op.what == disk_op::kind::rename || op.what == disk_op::kind::remove) {
    const auto place = names.find(op.name);
    if (place != names.end() && place->second == op.file) names.erase(place);
  }
  if (op.what == disk_op::kind::rename) names[op.to] = op.file;
  if (op.what == disk_op::kind::create || op.what == disk_op::kind::make_dir)
    names[op.name] = op.file;
}

void disk_state::apply_name(const op_ref &op) {
  files_.resize(std::max(files_.size(), op->file + 1));
  files_[op->file].directory |= op->what == disk_op::kind::make_dir;
  land(visible_, *op);
  pending_.push_back(op);
}

void disk_state::sync_names(const std::string &directory) {
  const auto of_another = [&](const op_ref &op) { return parent_of(op->name) != directory; };
  const auto rest = std::stable_partition(pending_.begin(), pending_.end(), of_another);
  std::for_each(rest, pending_.end(), [&](const op_ref &op) { land(durable_, *op); });
  pending_.erase(rest, pending_.end());
}

void disk_state::apply(const op_ref &op) {
  switch (op->what) {
    case disk_op::kind::create:
    case disk_op::kind::make_dir:
    case disk_op::kind::rename:
    case disk_op::kind::remove:
      apply_name(op);
      return;
    case disk_op::kind::sync_dir:
      sync_names(op->name);
      return;
    case disk_op::kind::write:
      files_[op->file].now.write(op->size, op->bytes);
      files_[op->file].unsynced.push_back(op);
      return;
    case disk_op::kind::resize:
      files_[op->file].now.resize(op->size);
      files_[op->file].unsynced.push_back(op);
      return;
    case disk_op::kind::sync:
      files_[op->file].durable = files_[op->file].now;
      files_[op->file].unsynced.clear();
      return;
  }
}

disk_state::op_ref disk_op_part(const disk_op &op, std::size_t bytes) {
  const auto part = std::make_shared<disk_op>(op);
  part->bytes.resize(bytes);
  return part;
}

// Writes that make the file longer change its size as a resize does, before their bytes.
disk_content disk_state::torn(const file &from, std::size_t piece, std::mt19937_64 &random) {
  std::uint64_t full_size = from.durable.size();
  std::vector<std::uint64_t> sizes;  // after each operation, were all done
  std::size_t changes = 0;
  for (const op_ref &op : from.unsynced) {
    const bool writes = op->what == disk_op::kind::write;
    const std::uint64_t size = writes ? std::max(full_size, op->size + op->bytes.size()) : op->size;
    changes += size != full_size ? 1 : 0;
    full_size = size;
    sizes.push_back(size);
  }

  disk_content content = from.durable;
  std::size_t landed = random() % (changes + 1);
  full_size = content.size();
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    if (sizes[i] != std::exchange(full_size, sizes[i]) && landed > 0) {
      --landed;
      content.resize(sizes[i]);
    }
    const disk_op &op = *from.unsynced[i];
    const auto bytes = std::span(op.bytes);
    for (std::size_t at = 0; at < bytes.size();) {
      const std::size_t count = std::min(piece - (op.size + at) % piece, bytes.size() - at);
      const bool fits = op.size + at + count <= content.size();
      if (fits && random() % 2 == 0) content.write(op.size + at, bytes.subspan(at, count));
      at += count;
    }
  }
  return content;
}

disk_state disk_state::cut(const std::vector<bool> &landed, disk_cut how,
                           std::mt19937_64 &random) const {
  disk_state left;
  left.durable_ = durable_;
  for (std::size_t i = 0; i < pending_.size(); ++i) {
    if (landed[i]) land(left.durable_, *pending_[i]);
  }
  // What lies in a directory that is not there is not there either. Directories come first.
  std::erase_if(left.durable_, [&](const auto &entry) {
    const std::string parent = parent_of(entry.first);
    return !parent.empty() && !left.durable_.contains(parent);
  });
  left.visible_ = left.durable_;

  left.files_.resize(files_.size());
  for (const auto &[name, number] : left.visible_) {
    const file &from = files_[number];
    file &to = left.files_[number];
    to.directory = from.directory;
    const bool keep = how == disk_cut::kept || (how == disk_cut::mixed && random() % 2 == 0);
    to.now = keep ? from.now : from.durable;
    if (how == disk_cut::torn_512) to.now = torn(from, 512, random);
    if (how == disk_cut::torn_4k) to.now = torn(from, 4096, random);
    to.durable = to.now;
  }
  return left;
}

std::uint64_t disk_state::hash() const {
  std::uint64_t sum = 0;
  for (const auto &[name, number] : visible_)
    sum = mix(mix(sum, hash_bytes(std::as_bytes(std::span(name)))), files_[number].now.hash());
  return sum;
}

std::vector<std::string> disk_state::names() const {
  std::vector<std::string> names;
  for (const auto &[name, number] : visible_)
    names.push_back(name);
  return names;
}

const disk_content *disk_state::find(const std::string &name) const {
  const auto place = visible_.find(name);
  return place == visible_.end() ? nullptr : &files_[place->second].now;
}

void disk_state::damage(const std::string &name, std::uint64_t offset,
                        std::span<const std::byte> bytes) {
  file &damaged = files_[visible_.at(name)];
  damaged.now.write(offset, bytes);
  damaged.durable.write(offset, bytes);
}

void disk_state::save(const std::string &directory) const {
  for (const fs::path &old : fs::directory_iterator(directory))
    fs::remove_all(old);
  for (const auto &[name, number] : visible_) {
    const std::string path = zem_dir_merge(directory, name);
    if (files_[number].directory) {
      fs::create_directory(path);
    } else {
      files_[number].now.save(path);
    }
  }
}

disk_state disk_state::load(const std::string &directory) {
  disk_state state;
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator(directory)) {
    state.visible_[entry.path().lexically_relative(directory).string()] = state.files_.size();
    file &file = state.files_.emplace_back();
    file.directory = entry.is_directory();
    if (!file.directory) file.now = disk_content::load(entry.path().string());
    file.durable = file.now;
  }
  state.durable_ = state.visible_;
  return state;
}

const zem_file_calls disk_recorder::calls{
    .open = open,
    .close = close,
    .pread = zem_file_system_calls().pread,
    .pwrite = pwrite,
    .fdatasync = fdatasync,
    .fsync = fsync,
    .posix_fallocate = posix_fallocate,
    .ftruncate = ftruncate,
    .lseek = zem_file_system_calls().lseek,
    .stat = zem_file_system_calls().stat,
    .rename = rename,
    .unlink = unlink,
    .mkdir = mkdir,
    .rmdir = rmdir,
};

disk_recorder::disk_recorder(const std::string &directory)
    : disk_recorder(directory, disk_state::load(directory)) {}

disk_recorder::disk_recorder(const std::string &directory, const disk_state &start)
    : directory_(directory), story_{start, {}}, state_(start) {
  EXPECT_EQ(active, nullptr);
  start.save(directory);
  active = this;
  zem_file_use(&calls);
}

disk_recorder::~disk_recorder() {
  zem_file_use(nullptr);
  active = nullptr;
}

std::size_t disk_recorder::count() const {
  const std::lock_guard held(mutex_);
  return story_.ops.size();
}

disk_story disk_recorder::story() const {
  const std::lock_guard held(mutex_);
  return story_;
}

disk_state disk_recorder::state() const {
  const std::lock_guard held(mutex_);
  return state_;
}

void disk_recorder::record(disk_op op) {
  story_.ops.push_back(std::make_shared<const disk_op>(std::move(op)));
  state_.apply(story_.ops.back());
}

std::optional<std::string> disk_recorder::inside(const char *path) const {
  const std::string whole = path;
  if (whole == directory_ || whole == directory_ + '/') return std::string();
  if (!whole.starts_with(directory_ + '/')) return std::nullopt;
  return whole.substr(directory_.size() + 1);
}

template <class Call, class Op>
int disk_recorder::run(Call &&call, Op &&op) {
  const std::lock_guard held(mutex_);
  const int result = call();
  if (result >= 0) record(op());
  return result;
}

int disk_recorder::open(const char *path, int flags, mode_t mode) {
  const std::lock_guard held(active->mutex_);
  const int fd = zem_file_system_calls().open(path, flags, mode);
  const std::optional<std::string> name = active->inside(path);
  if (fd < 0 || !name) return fd;
  if ((flags & O_DIRECTORY) != 0) {
    active->opened_[fd] = {.name = *name, .directory = true};
    return fd;
  }
  if (active->state_.find(*name) == nullptr) {
    active->record(
        {.what = disk_op::kind::create, .name = *name, .file = active->state_.next_file()});
  }
  active->opened_[fd] = {.file = active->state_.file_of(*name)};
  return fd;
}

int disk_recorder::close(int fd) {
  const std::lock_guard held(active->mutex_);
  active->opened_.erase(fd);
  return zem_file_system_calls().close(fd);
}

ssize_t disk_recorder::pwrite(int fd, const void *from, std::size_t size, off_t offset) {
  const std::lock_guard held(active->mutex_);
  const ssize_t put = zem_file_system_calls().pwrite(fd, from, size, offset);
  const auto place = active->opened_.find(fd);
  if (put <= 0 || place == active->opened_.end()) return put;
  const auto bytes = std::span(static_cast<const std::byte *>(from), static_cast<std::size_t>(put));
  active->record({.what = disk_op::kind::write,
                  .file = place->second.file,
                  .size = static_cast<std::uint64_t>(offset),
                  .bytes = {bytes.begin(), bytes.end()}});
  return put;
}

int disk_recorder::fdatasync(int fd) {
  const std::lock_guard held(active->mutex_);
  const auto place = active->opened_.find(fd);
  if (place == active->opened_.end()) return zem_file_system_calls().fdatasync(fd);
  active->record({.what = disk_op::kind::sync, .file = place->second.file});
  return 0;
}

int disk_recorder::fsync(int fd) {
  const std::lock_guard held(active->mutex_);
  const auto place = active->opened_.find(fd);
  if (place == active->opened_.end() || !place->second.directory)
    return zem_file_system_calls().fsync(fd);
  active->record({.what = disk_op::kind::sync_dir, .name = place->second.name});
  return 0;
}

int disk_recorder::posix_fallocate(int fd, off_t offset, off_t size) {
  const std::lock_guard held(active->mutex_);
  const auto place = active->opened_.find(fd);
  if (place == active->opened_.end())
    return zem_file_system_calls().posix_fallocate(fd, offset, size);
  const auto end = static_cast<std::uint64_t>(offset + size);
  if (end <= active->state_.size_of(place->second.file)) return 0;
  if (zem_file_system_calls().ftruncate(fd, offset + size) < 0) return errno;
  active->record({.what = disk_op::kind::resize, .file = place->second.file, .size = end});
  return 0;
}

int disk_recorder::ftruncate(int fd, off_t size) {
  const std::lock_guard held(active->mutex_);
  const int result = zem_file_system_calls().ftruncate(fd, size);
  const auto place = active->opened_.find(fd);
  if (result < 0 || place == active->opened_.end()) return result;
  active->record({.what = disk_op::kind::resize,
                  .file = place->second.file,
                  .size = static_cast<std::uint64_t>(size)});
  return result;
}

int disk_recorder::rename(const char *from, const char *to) {
  return active->run([&] { return zem_file_system_calls().rename(from, to); },
                     [&] {
                       const std::string name = active->inside(from).value();
                       return disk_op{.what = disk_op::kind::rename,
                                      .name = name,
                                      .to = active->inside(to).value(),
                                      .file = active->state_.file_of(name)};
                     });
}

int disk_recorder::unlink(const char *path) {
  return active->run([&] { return zem_file_system_calls().unlink(path); },
                     [&] {
                       const std::string name = active->inside(path).value();
                       return disk_op{.what = disk_op::kind::remove,
                                      .name = name,
                                      .file = active->state_.file_of(name)};
                     });
}

int disk_recorder::mkdir(const char *path, mode_t mode) {
  return active->run([&] { return zem_file_system_calls().mkdir(path, mode); },
                     [&] {
                       return disk_op{.what = disk_op::kind::make_dir,
                                      .name = active->inside(path).value(),
                                      .file = active->state_.next_file()};
                     });
}

int disk_recorder::rmdir(const char *path) {
  return active->run([&] { return zem_file_system_calls().rmdir(path); },
                     [&] {
                       const std::string name = active->inside(path).value();
                       return disk_op{.what = disk_op::kind::remove,
                                      .name = name,
                                      .file = active->state_.file_of(name)};
                     });
}
