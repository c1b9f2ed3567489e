#include "tests/support/file_reader.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace {

constexpr std::size_t block_bytes = 65536;
constexpr std::size_t growth_bytes = 8 << 20;
constexpr std::size_t group_head = 14;
constexpr std::size_t log_insert_room = 13;  // an insert asks for more than it takes
constexpr std::size_t data_posting = 8;
constexpr std::size_t data_posting_room = 12;  // a posting asks for more than it takes

struct block_file {
  block_file(const std::string &name, std::vector<std::string> &faults_of)
      : path(name), bytes(read_whole(name)), faults(faults_of) {
    if (bytes.size() != block_bytes && bytes.size() % growth_bytes != 0)
      faults.push_back(path + " ends in an odd place");
    bytes.resize((bytes.size() + block_bytes - 1) / block_bytes * block_bytes);
  }
  std::size_t blocks() const { return bytes.size() / block_bytes; }
  bool is_zero(std::size_t begin, std::size_t end) const {
    return std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(begin),
                       bytes.begin() + static_cast<std::ptrdiff_t>(end),
                       [](char each) { return each == 0; });
  }
  bool is_zero(std::size_t block) const {
    return block >= blocks() || is_zero(block * block_bytes, (block + 1) * block_bytes);
  }
  void expect_zero_from(std::size_t block) {
    if (block < blocks() && !is_zero(block * block_bytes, bytes.size()))
      faults.push_back(path + " is not zero behind its end");
  }
  std::string path;
  std::string bytes;
  std::vector<std::string> &faults;
};

// The bytes of a block as they come, from front to back. Past the end come zeros.
class block_reader {
 public:
  block_reader(block_file &file, std::size_t number, unsigned kind)
      : file_(file),
        number_(number),
        at_(number * block_bytes),
        end_(std::min(at_ + block_bytes, file.bytes.size())) {
    const std::uint64_t stored = integer(4);
    expect(stored == file_checksum(std::string_view(file.bytes).substr(at_, end_ - at_)),
           "wrong checksum");
    expect(integer(1) == kind, "wrong kind");
  }

  void expect(bool holds, const char *fault) {
    if (!holds)
      file_.faults.push_back(file_.path + ", block " + std::to_string(number_) + ": " + fault);
  }
  std::uint64_t integer(std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i)
      value |= std::uint64_t{byte()} << (8 * i);
    return value;
  }
  std::uint64_t variable() {
    std::uint64_t value = 0;
    for (unsigned shift = 0; shift < 70; shift += 7) {
      const std::uint8_t next = byte();
      value |= std::uint64_t{next & 0x7fU} << shift;
      if (next < 0x80) break;
    }
    return value;
  }
  // Groups of a term, a count and as many items, `items` in all. Gives the number of groups.
  template <class Item>
  std::size_t read_groups(std::uint64_t items, Item &&item) {
    std::size_t groups = 0;
    std::uint64_t seen = 0;
    for (; seen < items && at_ < end_; ++groups) {
      file_term term{};
      for (std::uint32_t &word : term)
        word = static_cast<std::uint32_t>(integer(4));
      const std::uint64_t count = integer(2);
      expect(count > 0, "a group is empty");
      for (std::uint64_t i = 0; i < count && at_ < end_; ++i)
        item(term, i == 0);
      seen += count;
    }
    expect(seen == items, "its groups are not its number of items");
    expect(!overran_ && file_.is_zero(at_, end_), "runs over its end or is not zero behind it");
    return groups;
  }
  std::size_t left() const { return end_ - at_; }

 private:
  std::uint8_t byte() {
    overran_ = overran_ || at_ == end_;
    return at_ == end_ ? std::uint8_t{0} : static_cast<std::uint8_t>(file_.bytes[at_++]);
  }
  block_file &file_;
  const std::size_t number_;
  std::size_t at_;
  const std::size_t end_;
  bool overran_ = false;
};

}  // namespace

bool file_key_before(const file_posting &a, const file_posting &b) noexcept {
  return a.term != b.term ? a.term < b.term : a.id > b.id;
}

// Bit by bit, as it is defined.
std::uint32_t file_checksum(std::string_view bytes) {
  std::uint32_t crc = ~0U;
  for (const char byte : bytes) {
    crc ^= static_cast<std::uint8_t>(byte);
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xedb88320U : 0);
  }
  return ~crc;
}

std::string read_whole(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return std::move(text).str();
}

file_content read_log_file(const std::string &path) {
  file_content log;
  block_file file(path, log.faults);
  std::set<file_term> held;
  for (; !file.is_zero(log.blocks); ++log.blocks) {
    block_reader block(file, log.blocks, 1);
    const std::uint64_t postings = block.integer(2);
    log.terms += block.integer(2);
    block.expect(postings > 0, "holds nothing");
    block.read_groups(postings, [&](const file_term &term, bool) {
      const file_posting posting{term, block.integer(8)};
      const std::uint64_t op = block.integer(1);
      block.expect(op == 0 || op == 255, "an operation is neither insert nor delete");
      block.expect(log.last.contains(posting) == (op != 0), "inserts what is there or the like");
      const file_mark mark = op == 0 ? file_mark::inserted : file_mark::deleted;
      held.insert(term);
      log.last[posting] = mark;
      log.records.push_back({posting, mark, log.blocks});
    });
    block.expect(held.size() == log.terms, "did not open its number of terms");
    block.expect(file.is_zero(log.blocks + 1) || block.left() < group_head + log_insert_room,
                 "is not full");
  }
  file.expect_zero_from(log.blocks);
  return log;
}

// ---- data files

namespace {

// What an index says of a data block.
struct index_entry {
  file_posting last;
  std::uint64_t block, groups, postings, continues;
};

// Goes along the chain of index blocks, whose head is block 0 and the others of which come last.
std::vector<index_entry> read_index(file_content &data, block_file &file) {
  std::vector<index_entry> entries;
  std::size_t room = 0;  // that the block before has left
  std::size_t data_blocks = 0;
  std::size_t number = 0;
  do {
    block_reader block(file, number, 1);
    const std::uint64_t count = block.integer(3);
    if (number == 0) data_blocks = block.integer(4);
    const std::size_t next = block.integer(4);
    const std::size_t begin = entries.size();
    std::size_t left = block.left();
    block.read_groups(count, [&](const file_term &term, bool opens) {
      const bool first = entries.size() == begin;
      block.expect(first || !opens || entries.back().last.term < term, "terms are not in order");
      entries.push_back({.last = {term, block.integer(8)},
                         .block = block.variable(),
                         .groups = block.variable(),
                         .postings = block.variable(),
                         .continues = block.integer(1)});
      block.expect(!first || number == 0 || left - block.left() > room,
                   "its first entry had room in the block before");
    });
    room = block.left();
    ++data.index_blocks;
    block.expect(next == 0 || (next == data_blocks + data.index_blocks && next < file.blocks()),
                 "its next is not the next block of the index");
    number = next;
  } while (number != 0 && data.faults.empty());
  if (entries.size() != data_blocks) data.faults.push_back(file.path + " lacks index entries");
  return entries;
}

}  // namespace

file_content read_data_file(const std::string &path) {
  file_content data;
  block_file file(path, data.faults);
  if (file.blocks() <= 1 && file.is_zero(0)) return data;
  std::size_t room = 0;  // that the block before has left
  const std::vector<index_entry> entries = read_index(data, file);
  for (std::size_t i = 0; i < entries.size() && data.faults.empty(); ++i) {
    const index_entry &entry = entries[i];
    const std::size_t number = ++data.blocks;
    block_reader block(file, number, 2);
    const std::uint64_t postings = block.integer(2);
    const std::uint64_t groups = block.integer(2);
    bool first = true;
    const std::size_t seen = block.read_groups(postings, [&](const file_term &term, bool begins) {
      const file_posting posting{term, block.integer(data_posting)};
      const bool opens = data.records.empty() || data.records.back().posting.term != term;
      block.expect(data.records.empty() || file_key_before(data.records.back().posting, posting),
                   "postings are not in order");
      block.expect(first || opens == begins, "two groups of one term");
      block.expect(!first || entry.continues == (opens ? 0 : 1), "wrong continuation mark");
      block.expect(!first || number == 1 || room < data_posting_room + (opens ? group_head : 0),
                   "its first posting had room in the block before");
      if (opens) ++data.terms;
      data.records.push_back({posting, file_mark::inserted, number});
      first = false;
    });
    block.expect(!first && seen == groups && entry.block == number && entry.groups == groups &&
                     entry.postings == postings && entry.last == data.records.back().posting,
                 "is not what its head or its index entry says");
    room = block.left();
  }
  file.expect_zero_from(data.blocks + data.index_blocks);
  return data;
}

file_table read_table_files(const std::string &directory) {
  file_table table;
  table.log = read_log_file(directory + "/sdb_1.log");
  table.data = read_data_file(directory + "/sdb_1.dat");
  table.faults = table.log.faults;
  table.faults.insert(table.faults.end(), table.data.faults.begin(), table.data.faults.end());
  if (read_whole(directory + "/sdb.lst") != "1") table.faults.emplace_back("sdb.lst is odd");
  std::set<std::string> wanted{"sdb.lst", "sdb.xml", "sdb_1.log", "sdb_1.dat"};
  for (const auto &entry : std::filesystem::directory_iterator(directory)) {
    if (wanted.erase(entry.path().filename()) == 0)
      table.faults.push_back(entry.path().string() + " is no part of a table at rest");
  }
  for (const std::string &name : wanted)
    table.faults.push_back(name + " is missing");
  return table;
}
