#include "tools/catalog.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <xxhash.h>

namespace {

constexpr std::string_view magic = "sdbdocs1";

enum class kind : std::uint8_t { reserve = 1, documents = 2, source = 3, done = 4 };

constexpr std::size_t head_size = 9;
constexpr std::size_t id_size = 8;
constexpr std::size_t document_size = 24;
constexpr std::size_t source_path_at = 33;
constexpr std::size_t documents_per_record = 4096;
constexpr std::size_t payload_limit = id_size + documents_per_record * document_size;
constexpr std::size_t write_size = std::size_t{1} << 20;
constexpr std::uint64_t reserve_step = 65536;

template <class Number>
void put(std::string &bytes, Number number) {
  static_assert(std::is_unsigned_v<Number>);
  for (std::size_t i = 0; i < sizeof(Number); ++i) {
    bytes.push_back(static_cast<char>(static_cast<std::uint64_t>(number) >> (8 * i) & 0xff));
  }
}

// Takes a number off the front of `bytes`, which holds enough.
template <class Number>
Number take(std::string_view &bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < sizeof(Number); ++i) {
    number |= std::uint64_t{static_cast<unsigned char>(bytes[i])} << (8 * i);
  }
  bytes.remove_prefix(sizeof(Number));
  return static_cast<Number>(number);
}

std::uint32_t checksum_of(std::string_view kind_and_payload) {
  return static_cast<std::uint32_t>(XXH3_64bits(kind_and_payload.data(), kind_and_payload.size()));
}

tool_problem failed(const tool_catalog &catalog, std::string_view what, int error) {
  return tool_problem_errno(std::string("cannot ") + std::string(what) + " " + catalog.path, error);
}

// Reads up to `size` bytes; fewer at the end of the file. Gives 0 or an errno.
int read_at(int fd, std::uint64_t offset, std::size_t size, std::string &bytes) {
  bytes.resize(size);
  std::size_t held = 0;
  while (held < size) {
    const ssize_t got =
        ::pread(fd, bytes.data() + held, size - held, static_cast<off_t>(offset + held));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) break;
    held += static_cast<std::size_t>(got);
  }
  bytes.resize(held);
  return 0;
}

// ---- reading ----

// Ids of one run lie above those of every run before, so a record out of order is damage.
bool load_documents(tool_catalog &catalog, std::string_view payload, std::uint64_t payload_at) {
  if (payload.size() <= id_size || (payload.size() - id_size) % document_size != 0) return false;
  const auto first = take<std::uint64_t>(payload);
  const std::uint64_t count = payload.size() / document_size;
  const std::uint64_t lowest =
      catalog.blocks.empty() ? 1 : catalog.blocks.back().first + catalog.blocks.back().count;
  if (first < lowest || first > catalog.reserved || count > catalog.reserved - first) return false;
  catalog.blocks.push_back({.first = first, .count = count, .at = payload_at + id_size});
  return true;
}

bool load_source(tool_catalog &catalog, std::string_view payload) {
  if (payload.size() <= source_path_at) return false;
  tool_source source;
  source.first = take<std::uint64_t>(payload);
  source.count = take<std::uint64_t>(payload);
  source.hash.low = take<std::uint64_t>(payload);
  source.hash.high = take<std::uint64_t>(payload);
  source.unit = tool_unit{take<std::uint8_t>(payload)};
  source.path = payload;
  if (source.first > catalog.reserved || source.count > catalog.reserved - source.first) {
    return false;
  }
  catalog.undone.push_back(std::move(source));
  return true;
}

void count_source(tool_catalog &catalog, tool_source &source) {
  catalog.newest[source.path] = catalog.sources.size();
  catalog.sources.push_back(std::move(source));
}

void count_undone(tool_catalog &catalog, std::uint64_t first_covered) {
  for (tool_source &source : catalog.undone) {
    if (source.first >= first_covered) count_source(catalog, source);
  }
  catalog.undone.clear();
}

bool load_record(tool_catalog &catalog, kind kind, std::string_view payload,
                 std::uint64_t payload_at) {
  switch (kind) {
    case kind::reserve:
      if (payload.size() != id_size) return false;
      catalog.reserved = take<std::uint64_t>(payload);
      return true;
    case kind::documents:
      return load_documents(catalog, payload, payload_at);
    case kind::source:
      return load_source(catalog, payload);
    case kind::done:
      if (payload.size() != id_size) return false;
      count_undone(catalog, take<std::uint64_t>(payload));
      return true;
  }
  return false;
}

// Takes every whole record at the front of `bytes`, which lie at catalog.end of the file. Gives
// false when a record is no record: what follows is the torn tail.
bool load_records(tool_catalog &catalog, std::string_view &bytes) {
  while (bytes.size() >= head_size) {
    std::string_view head = bytes;
    const auto size = take<std::uint32_t>(head);
    const auto checksum = take<std::uint32_t>(head);
    if (size > payload_limit) return false;
    if (bytes.size() < head_size + size) return true;
    if (checksum_of(head.substr(0, 1 + size)) != checksum) return false;
    const kind kind{static_cast<std::uint8_t>(head.front())};
    if (!load_record(catalog, kind, head.substr(1, size), catalog.end + head_size)) return false;
    bytes.remove_prefix(head_size + size);
    catalog.end += head_size + size;
  }
  return true;
}

tool_problem load(tool_catalog &catalog) {
  struct stat file = {};
  if (::fstat(catalog.fd, &file) != 0) return failed(catalog, "read", errno);
  const auto file_size = static_cast<std::uint64_t>(file.st_size);
  if (file_size == 0) return {};

  std::string bytes;
  if (const int error = read_at(catalog.fd, 0, magic.size(), bytes); error != 0) {
    return failed(catalog, "read", error);
  }
  if (bytes != std::string_view(magic).substr(0, bytes.size())) {
    return {catalog.path +
            " is not a catalogue of this program: move it away, drop the table, "
            "create it and index again"};
  }
  if (bytes.size() == magic.size()) catalog.end = magic.size();
  while (catalog.end >= magic.size() && catalog.end < file_size) {
    if (const int error = read_at(catalog.fd, catalog.end, write_size, bytes); error != 0) {
      return failed(catalog, "read", error);
    }
    std::string_view rest = bytes;
    if (!load_records(catalog, rest) || rest.size() == bytes.size()) break;
  }
  catalog.undone.clear();  // of runs that ended before their postings were safe
  catalog.torn_bytes = file_size - catalog.end;
  return {};
}

// ---- writing ----

tool_problem write_pending(tool_catalog &catalog) {
  std::string_view rest = catalog.pending;
  std::uint64_t at = catalog.end;
  while (!rest.empty()) {
    const ssize_t put = ::pwrite(catalog.fd, rest.data(), rest.size(), static_cast<off_t>(at));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return failed(catalog, "write", errno);
    rest.remove_prefix(static_cast<std::size_t>(put));
    at += static_cast<std::uint64_t>(put);
  }
  catalog.end = at;
  catalog.pending.clear();
  return {};
}

tool_problem sync(tool_catalog &catalog) {
  if (tool_problem problem = write_pending(catalog)) return problem;
  if (::fdatasync(catalog.fd) != 0) return failed(catalog, "write", errno);
  return {};
}

tool_problem append(tool_catalog &catalog, kind kind, std::string_view payload) {
  std::string checked(1, static_cast<char>(kind));
  checked += payload;
  put(catalog.pending, static_cast<std::uint32_t>(payload.size()));
  put(catalog.pending, checksum_of(checked));
  catalog.pending += checked;
  return catalog.pending.size() < write_size ? tool_problem{} : write_pending(catalog);
}

tool_problem append_number(tool_catalog &catalog, kind kind, std::uint64_t number) {
  std::string payload;
  put(payload, number);
  return append(catalog, kind, payload);
}

tool_problem reserve(tool_catalog &catalog, std::uint64_t reserved) {
  if (tool_problem problem = append_number(catalog, kind::reserve, reserved)) return problem;
  if (tool_problem problem = sync(catalog)) return problem;
  catalog.reserved = reserved;
  return {};
}

tool_problem write_documents(tool_catalog &catalog) {
  if (catalog.open_documents.empty()) return {};
  const std::uint64_t count = catalog.open_documents.size() / document_size;
  std::string payload;
  put(payload, catalog.next_id - count);
  payload += catalog.open_documents;
  catalog.open_documents.clear();
  const std::uint64_t at = catalog.end + catalog.pending.size() + head_size + id_size;
  catalog.blocks.push_back({.first = catalog.next_id - count, .count = count, .at = at});
  return append(catalog, kind::documents, payload);
}

// Gives a new file its first bytes, or takes a torn tail away.
tool_problem make_writable(tool_catalog &catalog, const std::string &directory) {
  if (::ftruncate(catalog.fd, static_cast<off_t>(catalog.end)) != 0) {
    return failed(catalog, "write", errno);
  }
  if (catalog.end > 0) return {};
  catalog.pending = magic;
  if (tool_problem problem = sync(catalog)) return problem;
  const int parent = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int error = parent < 0 || ::fsync(parent) != 0 ? errno : 0;
  if (parent >= 0) ::close(parent);
  return error != 0 ? failed(catalog, "create", error) : tool_problem{};
}

}  // namespace

tool_catalog::~tool_catalog() {
  if (fd >= 0) ::close(fd);
}

tool_problem tool_catalog_open(tool_catalog &catalog, const std::string &directory, bool writable) {
  catalog.path = directory + "/" + tool_catalog_name;
  const int flags = writable ? O_RDWR | O_CREAT | O_CLOEXEC : O_RDONLY | O_CLOEXEC;
  catalog.fd = ::open(catalog.path.c_str(), flags, 0666);
  if (catalog.fd < 0) {
    return errno == ENOENT && !writable ? tool_problem{} : failed(catalog, "open", errno);
  }
  if (tool_problem problem = load(catalog)) return problem;
  catalog.next_id = catalog.reserved;
  catalog.covered = catalog.reserved;
  catalog.source_first = catalog.reserved;
  return writable ? make_writable(catalog, directory) : tool_problem{};
}

const tool_source *tool_catalog_source(const tool_catalog &catalog, const std::string &path) {
  const auto found = catalog.newest.find(path);
  return found == catalog.newest.end() ? nullptr : &catalog.sources[found->second];
}

tool_problem tool_catalog_add(tool_catalog &catalog, const tool_document &document,
                              std::uint64_t &id) {
  if (catalog.next_id == catalog.reserved) {
    if (tool_problem problem = reserve(catalog, catalog.reserved + reserve_step)) return problem;
  }
  id = catalog.next_id++;
  put(catalog.open_documents, document.offset);
  put(catalog.open_documents, document.hash);
  put(catalog.open_documents, document.length);
  put(catalog.open_documents, document.line);
  const bool full = catalog.open_documents.size() == documents_per_record * document_size;
  return full ? write_documents(catalog) : tool_problem{};
}

tool_problem tool_catalog_end_source(tool_catalog &catalog, tool_source source) {
  if (tool_problem problem = write_documents(catalog)) return problem;
  source.first = catalog.source_first;
  source.count = catalog.next_id - catalog.source_first;
  std::string payload;
  put(payload, source.first);
  put(payload, source.count);
  put(payload, source.hash.low);
  put(payload, source.hash.high);
  put(payload, static_cast<std::uint8_t>(source.unit));
  payload += source.path;
  if (tool_problem problem = append(catalog, kind::source, payload)) return problem;
  catalog.undone.push_back(std::move(source));
  catalog.source_first = catalog.next_id;
  return {};
}

void tool_catalog_drop_source(tool_catalog &catalog) {
  catalog.open_documents.clear();
  catalog.source_first = catalog.next_id;
}

tool_problem tool_catalog_commit(tool_catalog &catalog) {
  if (catalog.undone.empty()) return {};
  if (tool_problem problem = append_number(catalog, kind::done, catalog.covered)) return problem;
  if (tool_problem problem = sync(catalog)) return problem;
  count_undone(catalog, catalog.covered);
  catalog.covered = catalog.source_first;
  return {};
}

tool_problem tool_catalog_finish(tool_catalog &catalog) {
  if (catalog.next_id == catalog.reserved) return {};
  return reserve(catalog, catalog.next_id);
}

tool_problem tool_catalog_find(const tool_catalog &catalog, std::uint64_t id,
                               const tool_source *&source, tool_document &document) {
  source = nullptr;
  const auto owner =
      std::partition_point(catalog.sources.begin(), catalog.sources.end(),
                           [id](const tool_source &each) { return each.first + each.count <= id; });
  if (owner == catalog.sources.end() || id < owner->first) return {};
  if (tool_catalog_source(catalog, owner->path) != &*owner) return {};

  const auto block =
      std::partition_point(catalog.blocks.begin(), catalog.blocks.end(),
                           [id](const auto &each) { return each.first + each.count <= id; });
  if (block == catalog.blocks.end() || id < block->first) return {};
  std::string bytes;
  const std::uint64_t at = block->at + (id - block->first) * document_size;
  const int error = read_at(catalog.fd, at, document_size, bytes);
  if (error != 0) return failed(catalog, "read", error);
  if (bytes.size() < document_size) return {};
  std::string_view rest = bytes;
  document.offset = take<std::uint64_t>(rest);
  document.hash = take<std::uint64_t>(rest);
  document.length = take<std::uint32_t>(rest);
  document.line = take<std::uint32_t>(rest);
  source = &*owner;
  return {};
}
