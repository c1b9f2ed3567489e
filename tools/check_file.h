// Reading the files of a closed table block by block, without changing or creating any.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/file.h"
#include "base/status.h"
#include "base/stream.h"

#include "src/xtree.h"
#include "tools/check_report.h"

// One open file.
struct check_file {
  std::string name;  // in the table's directory
  zem_file file;     // opened for reading alone
};

// Opens a file that exists; one that cannot be read is a finding, and gives false.
bool check_file_open(check_run &run, const std::string &directory, const std::string &name,
                     check_file &file);

// Whole blocks of the file.
inline std::uint64_t check_file_blocks(const check_file &file) noexcept {
  return file.file.size / zem_block_size;
}

// Reads a block, of which what lies behind the end of the file is zero. A block that cannot be read
// is a finding, and gives false.
bool check_file_read(check_run &run, const check_file &file, std::uint64_t number,
                     zem_block_span block);

// The first block from `number` on that may hold anything but zeros, or the number of blocks, a part
// of one included. Counts what is passed over as done.
std::uint64_t check_file_skip(check_run &run, const check_file &file, std::uint64_t number);

// Tells of a file that ends inside a block.
void check_file_end(check_run &run, const check_file &file);

// What is wrong inside a block.
struct check_fault {
  const char *kind = nullptr;
  std::size_t at = 0;  // byte in the block
  const char *words = nullptr;
};

// Checksum, then kind, which stand at the same bytes in every block.
std::optional<check_fault> check_seal(zem_block_view block, std::byte kind);

// The first byte from `from` on that is not zero.
std::optional<std::size_t> check_nonzero(zem_block_view block, std::size_t from);

struct check_key {
  zem_term term{};
  std::uint64_t id = 0;
};

// Negative, zero or positive in key order.
inline int check_compare(const check_key &a, const check_key &b) noexcept {
  return zem_xtree_key_compare(a.term, a.id, b.term, b.id);
}

std::string check_key_text(const check_key &key);  // "1.2.3:ID"

// A number of things, in words: "1 block", "2 blocks".
std::string check_some(std::uint64_t count, const char *thing);
