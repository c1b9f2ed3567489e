// A reader of a table's files that shares no code with the library: written from the byte tables
// alone, so that a mistake made in writing and in reading alike does not hide itself.
//
// Every reader goes through its file to the last byte and names each departure from the format in
// `faults`, with the block where it lies.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

using file_term = std::array<std::uint32_t, 3>;

struct file_posting {
  file_term term{};
  std::uint64_t id = 0;
  friend auto operator<=>(const file_posting &, const file_posting &) = default;
};
// Term ascending, id descending.
bool file_key_before(const file_posting &a, const file_posting &b) noexcept;

enum class file_mark : std::uint8_t { inserted, deleted };

struct file_content {
  struct record {
    file_posting posting;
    file_mark mark;
    std::size_t block;
  };
  std::vector<record> records;  // in the order of the file
  std::size_t blocks = 0;       // of postings
  std::size_t index_blocks = 0;
  std::uint64_t terms = 0;                 // that it opens
  std::map<file_posting, file_mark> last;  // what the records of a log come to
  std::vector<std::string> faults;
};
file_content read_log_file(const std::string &path);
file_content read_data_file(const std::string &path);

// All files of a table of one shard that is closed, or of a copy of its directory.
struct file_table {
  file_content log;
  file_content data;
  std::vector<std::string> faults;  // of both files, and names that are no part of a table at rest
};
file_table read_table_files(const std::string &directory);

// CRC-32 of the IEEE 802.3 polynomial, reflected.
std::uint32_t file_checksum(std::string_view bytes);
std::string read_whole(const std::string &path);
