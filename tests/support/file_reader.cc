#include "tests/support/file_reader.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

namespace {

namespace fs = std::filesystem;

constexpr std::size_t block_bytes = 65536;
constexpr std::size_t growth_bytes = 8 << 20;

// Bytes as they come, from front to back. Past the end it gives zeros and remembers that.
class byte_reader {
 public:
  byte_reader(const std::string &bytes, std::size_t begin, std::size_t end)
      : bytes_(bytes), at_(begin), end_(end) {}

  std::uint64_t number(std::size_t width) {
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
      if (next < 0x80) return value;
    }
    overran_ = true;
    return 0;
  }
  file_term term() {
    file_term words{};
    for (std::uint32_t &word : words)
      word = static_cast<std::uint32_t>(number(4));
    return words;
  }
  bool rest_is_zero() const {
    return std::all_of(bytes_.begin() + static_cast<std::ptrdiff_t>(at_),
                       bytes_.begin() + static_cast<std::ptrdiff_t>(end_),
                       [](char each) { return each == 0; });
  }
  std::size_t left() const { return end_ - at_; }
  bool overran() const { return overran_; }

 private:
  std::uint8_t byte() {
    if (at_ == end_) {
      overran_ = true;
      return 0;
    }
    return static_cast<std::uint8_t>(bytes_[at_++]);
  }

  const std::string &bytes_;
  std::size_t at_;
  std::size_t end_;
  bool overran_ = false;
};

// The blocks of one file, and what is wrong with them.
class block_file {
 public:
  block_file(const std::string &path, std::vector<std::string> &faults)
      : bytes_(read_whole(path)), path_(path), faults_(faults) {
    const std::size_t size = bytes_.size();
    if (size != block_bytes && size % growth_bytes != 0)
      fault(size / block_bytes, "the file ends in an odd place");
    bytes_.resize((size + block_bytes - 1) / block_bytes * block_bytes);
  }

  std::size_t blocks() const { return bytes_.size() / block_bytes; }
  byte_reader block(std::size_t number) const {
    return {bytes_, number * block_bytes, (number + 1) * block_bytes};
  }
  bool is_zero(std::size_t number) const { return block(number).rest_is_zero(); }
  // The bytes behind checksum and kind, both of which are looked at.
  byte_reader open(std::size_t number, unsigned kind) {
    byte_reader reader = block(number);
    const std::uint64_t stored = reader.number(4);
    const std::string_view summed(bytes_.data() + number * block_bytes + 4, block_bytes - 4);
    if (stored != file_checksum(summed)) fault(number, "wrong checksum");
    if (reader.number(1) != kind) fault(number, "wrong kind");
    return reader;
  }
  void close(std::size_t number, const byte_reader &reader) {
    if (reader.overran()) fault(number, "its content runs over its end");
    if (!reader.rest_is_zero()) fault(number, "no zeros behind its content");
  }
  void fault(std::size_t number, const std::string &what) {
    faults_.push_back(path_ + ", block " + std::to_string(number) + ": " + what);
  }
  // Nothing but zeros from a block on.
  void expect_zero_from(std::size_t number) {
    for (; number < blocks(); ++number) {
      if (!is_zero(number)) fault(number, "lies behind the end and is not zero");
    }
  }

 private:
  std::string bytes_;
  std::string path_;
  std::vector<std::string> &faults_;
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

// ---- logs

namespace {

constexpr std::size_t log_group_head = 14;
constexpr std::size_t log_insert_room = 13;  // an insert asks for more than it takes

// Takes one record; says whether it opened its term.
bool replay(file_log &log, block_file &file, std::map<file_term, std::size_t> &held,
            const file_log::record &record) {
  const bool known = log.last.contains(record.posting);
  if (known != (record.mark == file_mark::deleted))
    file.fault(record.block, known ? "inserts what is there" : "deletes what is not there");
  if (!known) ++held[record.posting.term];
  log.last[record.posting] = record.mark;
  log.records.push_back(record);
  return held[record.posting.term] == 1;
}

void read_log_block(file_log &log, block_file &file, std::map<file_term, std::size_t> &held) {
  const std::size_t number = log.blocks;
  byte_reader reader = file.open(number, 1);
  const std::uint64_t postings = reader.number(2);
  const std::uint64_t terms = reader.number(2);
  if (postings == 0) file.fault(number, "holds nothing");
  std::uint64_t seen = 0;
  std::uint64_t opened = 0;
  while (seen < postings && !reader.overran()) {
    const file_term term = reader.term();
    const std::uint64_t count = reader.number(2);
    if (count == 0) file.fault(number, "a group is empty");
    seen += count;
    for (std::uint64_t i = 0; i < count && !reader.overran(); ++i) {
      const std::uint64_t id = reader.number(8);
      const std::uint64_t op = reader.number(1);
      if (op != 0 && op != 255) file.fault(number, "an operation is neither insert nor delete");
      const file_mark what = op == 0 ? file_mark::inserted : file_mark::deleted;
      if (replay(log, file, held, {{term, id}, what, number})) ++opened;
    }
  }
  if (seen != postings) file.fault(number, "its groups are not its number of postings");
  if (opened != terms) file.fault(number, "did not open its number of terms");
  file.close(number, reader);
  log.terms_opened += terms;
  ++log.blocks;
  const bool last = log.blocks == file.blocks() || file.is_zero(log.blocks);
  if (!last && reader.left() >= log_group_head + log_insert_room) file.fault(number, "is not full");
}

}  // namespace

file_log read_log_file(const std::string &path) {
  file_log log;
  block_file file(path, log.faults);
  std::map<file_term, std::size_t> held;  // postings of a term in the log
  while (log.blocks < file.blocks() && !file.is_zero(log.blocks))
    read_log_block(log, file, held);
  file.expect_zero_from(log.blocks);
  return log;
}

// ---- data files

namespace {

constexpr std::size_t data_group_head = 14;
constexpr std::size_t data_posting_room = 12;  // a posting asks for more than it takes
constexpr std::size_t index_group_head = 14;

// What an index says of a data block.
struct index_entry {
  file_posting last;
  std::uint64_t block = 0;
  std::uint64_t groups = 0;
  std::uint64_t postings = 0;
  std::uint64_t continues = 0;
  std::size_t bytes = 0;  // that it takes
};

struct index_chain {
  std::vector<index_entry> entries;
  std::size_t data_blocks = 0;
  std::size_t blocks = 0;
};

void read_index_group(byte_reader &reader, std::vector<index_entry> &entries, file_term &term) {
  term = reader.term();
  const std::uint64_t count = reader.number(2);
  for (std::uint64_t i = 0; i < count && !reader.overran(); ++i) {
    const std::size_t before = reader.left();
    index_entry entry;
    entry.last = {term, reader.number(8)};
    entry.block = reader.variable();
    entry.groups = reader.variable();
    entry.postings = reader.variable();
    entry.continues = reader.number(1);
    entry.bytes = before - reader.left();
    entries.push_back(entry);
  }
}

// Reads one block of the chain; gives the number of the next one.
std::size_t read_index_block(block_file &file, index_chain &chain, std::size_t number,
                             std::size_t &room_before) {
  byte_reader reader = file.open(number, 1);
  const std::uint64_t wanted = reader.number(3);
  if (number == 0) chain.data_blocks = reader.number(4);
  const std::size_t next = reader.number(4);
  const std::size_t begin = chain.entries.size();
  file_term before{};
  file_term term{};
  while (chain.entries.size() - begin < wanted && !reader.overran()) {
    const bool first = chain.entries.size() == begin;
    const std::size_t had = chain.entries.size();
    before = term;
    read_index_group(reader, chain.entries, term);
    if (chain.entries.size() == had) {
      file.fault(number, "an index group is empty");
      break;
    }
    if (!first && term <= before) file.fault(number, "a term has two index groups");
    if (first && number != 0 && index_group_head + chain.entries[had].bytes <= room_before)
      file.fault(number, "its first entry had room in the block before");
  }
  if (chain.entries.size() - begin != wanted) file.fault(number, "its entries are not its number");
  file.close(number, reader);
  room_before = reader.left();
  ++chain.blocks;
  return next;
}

index_chain read_index(block_file &file) {
  index_chain chain;
  std::size_t room = 0;
  std::size_t next = read_index_block(file, chain, 0, room);
  while (next != 0) {
    if (next != chain.data_blocks + chain.blocks || next >= file.blocks()) {
      file.fault(next, "is not the next block of the index");
      break;
    }
    next = read_index_block(file, chain, next, room);
  }
  if (chain.entries.size() != chain.data_blocks) file.fault(0, "data blocks without an entry");
  return chain;
}

// The bytes that a posting would have taken at the end of the block before.
std::size_t room_wanted(const file_posting &next, const file_posting &before) {
  return data_posting_room + (next.term == before.term ? 0 : data_group_head);
}

void take_posting(file_data &data, block_file &file, const file_posting &posting,
                  std::size_t number) {
  if (!data.records.empty()) {
    const file_posting &before = data.records.back().posting;
    if (!file_key_before(before, posting)) file.fault(number, "postings are not in order");
    if (before.term != posting.term) ++data.terms;
  } else {
    data.terms = 1;
  }
  data.records.push_back({posting, number});
}

// Reads a data block by its entry; `room_before` is what the block before had left.
void read_data_block(file_data &data, block_file &file, const index_entry &entry,
                     std::size_t &room_before) {
  const std::size_t number = data.data_blocks + 1;
  if (entry.block != number) file.fault(number, "its index entry names another block");
  byte_reader reader = file.open(number, 2);
  const std::uint64_t postings = reader.number(2);
  const std::uint64_t groups = reader.number(2);
  const std::size_t begin = data.records.size();
  file_term before{};
  for (std::uint64_t group = 0; group < groups && !reader.overran(); ++group) {
    const file_term term = reader.term();
    const std::uint64_t count = reader.number(2);
    if (count == 0) file.fault(number, "a group is empty");
    if (group > 0 && term <= before) file.fault(number, "two groups of one term");
    before = term;
    for (std::uint64_t i = 0; i < count && !reader.overran(); ++i)
      take_posting(data, file, {term, reader.number(8)}, number);
  }
  file.close(number, reader);
  ++data.data_blocks;
  if (data.records.size() - begin != postings || postings == 0)
    file.fault(number, "its groups are not its number of postings");
  if (entry.postings != postings || entry.groups != groups)
    file.fault(number, "its index entry has other numbers");
  if (data.records.size() == begin) return;
  if (data.records.back().posting != entry.last)
    file.fault(number, "its index entry has another last posting");
  if (begin > 0) {
    const file_posting &first = data.records[begin].posting;
    const file_posting &former = data.records[begin - 1].posting;
    if (room_wanted(first, former) <= room_before)
      file.fault(number, "its first posting had room in the block before");
  }
  const bool continues =
      begin > 0 && data.records[begin - 1].posting.term == data.records[begin].posting.term;
  if (entry.continues != (continues ? 1 : 0)) file.fault(number, "wrong continuation mark");
  room_before = reader.left();
}

}  // namespace

file_data read_data_file(const std::string &path) {
  file_data data;
  block_file file(path, data.faults);
  if (file.blocks() == 0 || (file.blocks() == 1 && file.is_zero(0))) return data;
  const index_chain chain = read_index(file);
  if (!data.faults.empty()) return data;
  data.index_blocks = chain.blocks;
  std::size_t room = 0;
  for (const index_entry &entry : chain.entries)
    read_data_block(data, file, entry, room);
  file.expect_zero_from(chain.data_blocks + chain.blocks);
  return data;
}

// ---- tables

std::vector<std::uint32_t> read_list_file(const std::string &path) {
  const std::string text = read_whole(path);
  std::vector<std::uint32_t> numbers;
  const char *at = text.data();
  const char *const end = at + text.size();
  while (at != end) {
    std::uint32_t number = 0;
    const auto [stop, error] = std::from_chars(at, end, number);
    const bool rising = numbers.empty() ? number > 0 : number > numbers.back();
    if (error != std::errc{} || !rising) return {};
    numbers.push_back(number);
    if (stop == end) return numbers;
    if (*stop != '\n' || stop + 1 == end) return {};
    at = stop + 1;
  }
  return numbers;
}

file_table read_table_files(const std::string &directory) {
  file_table table;
  const std::vector<std::uint32_t> numbers = read_list_file(directory + "/sdb.lst");
  if (numbers.empty()) table.faults.push_back("sdb.lst is not as the library writes it");
  std::set<std::string> wanted{"sdb.lst", "sdb.xml"};
  for (const std::uint32_t number : numbers) {
    const std::string stem = "sdb_" + std::to_string(number);
    wanted.insert({stem + ".log", stem + ".dat"});
    table.logs[number] = read_log_file(directory + '/' + stem + ".log");
    table.data[number] = read_data_file(directory + '/' + stem + ".dat");
    for (const auto &faults : {table.logs[number].faults, table.data[number].faults})
      table.faults.insert(table.faults.end(), faults.begin(), faults.end());
  }
  for (const auto &entry : fs::directory_iterator(directory)) {
    if (wanted.erase(entry.path().filename()) == 0)
      table.faults.push_back(entry.path().string() + " is no part of a table at rest");
  }
  for (const std::string &name : wanted)
    table.faults.push_back(name + " is missing");
  return table;
}
