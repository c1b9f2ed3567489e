#include "tools/check_data.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <vector>

namespace format = zem_spx_format;

namespace {

using block_buffer = std::array<std::byte, zem_block_size>;

// ---- the index ----

// What the index says of one data block.
struct index_entry {
  check_key last;
  zem_spx_val val{};
};

struct index_content {
  bool head_good = false;         // so `data_blocks` is known
  std::uint32_t data_blocks = 0;  // N
  std::uint32_t index_blocks = 0;
  bool whole = false;  // the chain was read to its end
  std::vector<index_entry> entries;
};

// A place inside an index block that moves on, and what was wrong there.
struct index_reader {
  zem_block_view block;
  std::size_t pos = 0;
  std::optional<check_fault> fault = std::nullopt;

  void fail(std::size_t at, const char *words) { fault = check_fault{"index", at, words}; }
};

bool read_number(index_reader &reader, std::uint64_t most, const char *words,
                 std::uint64_t &number) {
  const std::size_t at = reader.pos;
  if (zem_stream_inflate_lword(reader.block, reader.pos, number) && number <= most) return true;
  reader.fail(at, words);
  return false;
}

bool read_entry(index_reader &reader, index_entry &entry) {
  if (reader.block.size() - reader.pos < format::id_size) {
    reader.fail(reader.pos, "an index entry runs over the end of the block");
    return false;
  }
  entry.last.id = zem_stream_get_lword(&reader.block[reader.pos]);
  reader.pos += format::id_size;
  std::uint64_t number = 0;
  std::uint64_t groups = 0;
  std::uint64_t postings = 0;
  if (!read_number(reader, std::numeric_limits<std::uint32_t>::max(),
                   "an index entry names no block", number) ||
      !read_number(reader, format::groups_max, "an index entry has too many groups", groups) ||
      !read_number(reader, format::postings_max, "an index entry has too many postings", postings))
    return false;
  if (groups == 0 || postings < groups || reader.pos == reader.block.size()) {
    reader.fail(reader.pos - 1, "the counts of an index entry make no sense");
    return false;
  }
  const auto cont = std::to_integer<std::uint16_t>(reader.block[reader.pos]);
  if (cont > 1) {
    reader.fail(reader.pos, "the continuation mark of an index entry is neither 0 nor 1");
    return false;
  }
  ++reader.pos;
  entry.val = {static_cast<std::uint32_t>(number), static_cast<std::uint16_t>(groups),
               static_cast<std::uint16_t>(postings), cont};
  return true;
}

// Whether an entry, read from byte `at` on, may follow those before it. A block of one group that
// continues the term before is exactly a block whose last posting has that term, too.
bool entry_fits(index_reader &reader, std::size_t at, const index_content &index,
                const index_entry &entry) {
  const index_entry *before = index.entries.empty() ? nullptr : &index.entries.back();
  const bool same_term = before != nullptr && zem_xtree_same(before->last.term, entry.last.term);
  const bool one_group_goes_on = entry.val.cont == 1 && entry.val.grp_num == 1;
  if (entry.val.blk_no != index.entries.size() + format::first_data_block) {
    reader.fail(at + format::id_size, "an index entry names another block than the next one");
  } else if (entry.val.blk_no > index.data_blocks) {
    reader.fail(at + format::id_size, "an index entry names a block behind the data blocks");
  } else if (before != nullptr && check_compare(before->last, entry.last) >= 0) {
    reader.fail(at, "index entries are not in key order");
  } else if (before == nullptr ? entry.val.cont != 0 : same_term != one_group_goes_on) {
    reader.fail(reader.pos - 1, "the continuation mark of an index entry does not fit its term");
  }
  return !reader.fault;
}

// Reads the entries of a block, those before a fault included.
void read_entries(index_reader &reader, index_content &index) {
  constexpr const char *fewer = "the block holds fewer entries than its head says";
  std::uint32_t left = zem_stream_get_tword(&reader.block[format::entry_count_at]);
  while (left > 0) {
    if (reader.block.size() - reader.pos < format::group_head_size)
      return reader.fail(format::entry_count_at, fewer);
    const std::size_t count_at = reader.pos + format::term_size;
    index_entry entry;
    entry.last.term = zem_spx_get_term(&reader.block[reader.pos]);
    const std::uint32_t count = zem_spx_get_count(&reader.block[reader.pos]);
    if (count == 0 && check_nonzero(reader.block, reader.pos))
      return reader.fail(count_at, "a group of the index is empty");
    if (count == 0) return reader.fail(format::entry_count_at, fewer);
    if (count > left)
      return reader.fail(format::entry_count_at, "the block holds more entries than its head says");
    reader.pos += format::group_head_size;
    for (std::uint32_t i = 0; i < count; ++i) {
      const std::size_t at = reader.pos;
      if (!read_entry(reader, entry) || !entry_fits(reader, at, index, entry)) return;
      index.entries.push_back(entry);
    }
    left -= count;
  }
}

void slack_note(check_run &run, const check_file &file, std::uint64_t number, zem_block_view block,
                std::size_t from) {
  if (const auto stray = check_nonzero(block, from)) {
    check_note(run, "slack", check_at(file.name, number, *stray),
               "bytes follow the block's last group; nothing reads them");
  }
}

constexpr const char *healed = "; an open makes the index anew from the data blocks";

struct data_walk {
  check_run &run;
  const check_file &file;
  const std::function<void(zem_block_view)> &visit;
  index_content index{};
  check_data found{};
  bool cut_short = false;  // the file ends before its last data block
  // The last posting of the block before, as far as it is known.
  std::optional<check_key> before = std::nullopt;
  // Blocks of zeros right before the current one, while N is not known.
  std::uint64_t zeros = 0;
};

void index_damage(data_walk &walk, std::uint64_t number, const check_fault &fault) {
  check_damage(walk.run, fault.kind, check_at(walk.file.name, number, fault.at),
               std::string("data index: ") + fault.words + healed);
}

void read_head(data_walk &walk, zem_block_view block) {
  walk.index.head_good = true;
  walk.index.data_blocks = zem_stream_get_dword(&block[format::head_data_blocks_at]);
  walk.cut_short = walk.index.data_blocks >= check_file_blocks(walk.file);
}

// Reads one block of the chain. Gives the number of the next one, 0 at its end or after a fault.
std::uint32_t read_index_block(data_walk &walk, std::uint32_t number, zem_block_view block) {
  if (const auto fault = check_seal(block, format::kind_index)) {
    index_damage(walk, number, *fault);
    return 0;
  }
  const bool head = number == 0;
  if (head) read_head(walk, block);
  ++walk.index.index_blocks;
  index_reader reader{.block = block,
                      .pos = head ? format::head_groups_at : format::chain_groups_at};
  read_entries(reader, walk.index);
  const std::size_t next_at = head ? format::head_next_at : format::chain_next_at;
  const std::uint32_t next = zem_stream_get_dword(&block[next_at]);
  const std::uint64_t expected = std::uint64_t{walk.index.data_blocks} + walk.index.index_blocks;
  if (!reader.fault && next != 0 && next != expected)
    reader.fail(next_at, "a block names another one than the next of the index");
  if (!reader.fault && next != 0 && next >= check_file_blocks(walk.file) && !walk.cut_short)
    reader.fail(next_at, "the file ends before the next block of the index");
  if (reader.fault) {
    index_damage(walk, number, *reader.fault);
    return 0;
  }
  slack_note(walk.run, walk.file, number, block, reader.pos);
  walk.index.whole = next == 0;
  return next < check_file_blocks(walk.file) ? next : 0;
}

void read_index(data_walk &walk, zem_block_span block) {
  std::uint32_t number = 0;
  do {
    if (!check_file_read(walk.run, walk.file, number, block)) return;
    number = read_index_block(walk, number, block);
  } while (number != 0 && !walk.run.io.stop);

  const std::uint64_t named = walk.index.entries.size();
  if (walk.index.whole && named < walk.index.data_blocks) {
    check_damage(walk.run, "index-short", check_at(walk.file.name, named + 1, 0),
                 "data index: " + check_some(walk.index.data_blocks - named, "data block") +
                     " from here on have no entry" + healed);
  }
}

// ---- data blocks ----

struct data_groups {
  check_key first;
  check_key last;
  std::size_t last_at = 0;  // byte of the last posting
  std::size_t end = format::groups_at;
  std::size_t count = 0;
  std::size_t postings = 0;
};

std::optional<check_fault> ids_fault(zem_block_view block, std::size_t ids, std::size_t count) {
  for (std::size_t i = 1; i < count; ++i) {
    const std::size_t at = ids + i * format::id_size;
    if (zem_stream_get_lword(&block[at]) >= zem_stream_get_lword(&block[at - format::id_size]))
      return check_fault{"order", at, "document ids do not fall"};
  }
  return std::nullopt;
}

// Takes the group at `groups.end`.
std::optional<check_fault> group_fault(zem_block_view block, data_groups &groups) {
  const std::size_t pos = groups.end;
  if (block.size() - pos < format::group_head_size)
    return check_fault{"group", pos, "a group runs over the end of the block"};
  const std::size_t count_at = pos + format::term_size;
  const std::size_t count = zem_spx_get_count(&block[pos]);
  const std::size_t ids = pos + format::group_head_size;
  if (count == 0) return check_fault{"group", count_at, "a group is empty"};
  if (count > (block.size() - ids) / format::id_size)
    return check_fault{"group", count_at, "a group runs over the end of the block"};
  const zem_term term = zem_spx_get_term(&block[pos]);
  if (groups.count > 0 && zem_xtree_compare(groups.last.term, term) >= 0)
    return check_fault{"order", pos, "terms are not in order"};
  if (const auto fault = ids_fault(block, ids, count)) return fault;
  groups.end = ids + count * format::id_size;
  groups.last_at = groups.end - format::id_size;
  groups.last = {.term = term, .id = zem_stream_get_lword(&block[groups.last_at])};
  if (groups.count == 0) groups.first = {.term = term, .id = zem_stream_get_lword(&block[ids])};
  ++groups.count;
  groups.postings += count;
  return std::nullopt;
}

std::optional<check_fault> block_fault(zem_block_view block, data_groups &groups) {
  if (const auto fault = check_seal(block, format::kind_data)) return fault;
  const std::size_t postings = zem_stream_get_word(&block[format::posting_count_at]);
  const std::size_t count = zem_stream_get_word(&block[format::group_count_at]);
  if (count == 0 || count > format::groups_max)
    return check_fault{"count", format::group_count_at,
                       "the block's number of groups makes no sense"};
  while (groups.count < count) {
    if (const auto fault = group_fault(block, groups)) return fault;
    if (groups.postings > postings) break;
  }
  if (groups.postings != postings)
    return check_fault{"count", format::posting_count_at,
                       "the block's groups do not hold the number of postings that its head says"};
  return std::nullopt;
}

const index_entry *entry_of(const data_walk &walk, std::uint64_t number) {
  const std::uint64_t place = number - format::first_data_block;
  return place < walk.index.entries.size() ? &walk.index.entries[place] : nullptr;
}

void lost_block(data_walk &walk, std::uint64_t number, zem_block_view block,
                const check_fault &fault) {
  const index_entry *entry = entry_of(walk, number);
  const std::uint64_t postings =
      entry != nullptr ? entry->val.rec_num : zem_stream_get_word(&block[format::posting_count_at]);
  check_damage(walk.run, fault.kind, check_at(walk.file.name, number, fault.at),
               std::string(fault.words) + "; queries for its postings fail", postings);
}

// What is wrong between a block that is good by itself and what comes before it, or its entry.
std::optional<check_fault> entry_fault(const data_walk &walk, const data_groups &groups,
                                       const index_entry *entry) {
  if (walk.before && check_compare(*walk.before, groups.first) >= 0)
    return check_fault{"order", format::groups_at,
                       "the block begins before the end of the one before"};
  if (entry == nullptr) return std::nullopt;
  if (entry->val.rec_num != groups.postings)
    return check_fault{"entry", format::posting_count_at,
                       "the index has another number of postings"};
  if (entry->val.grp_num != groups.count)
    return check_fault{"entry", format::group_count_at, "the index has another number of groups"};
  if (check_compare(entry->last, groups.last) != 0)
    return check_fault{"entry", groups.last_at, "the index has another last posting"};
  const bool continues = walk.before && zem_xtree_same(walk.before->term, groups.first.term);
  if (continues != (entry->val.cont != 0))
    return check_fault{"entry", format::groups_at, "the index has a wrong continuation mark"};
  return std::nullopt;
}

void good_block(data_walk &walk, std::uint64_t number, zem_block_view block,
                const data_groups &groups) {
  const index_entry *entry = entry_of(walk, number);
  if (const auto fault = entry_fault(walk, groups, entry)) {
    check_damage(walk.run, fault->kind, check_at(walk.file.name, number, fault->at),
                 std::string(fault->words) + "; queries for the block's postings fail");
  }
  slack_note(walk.run, walk.file, number, block, groups.end);
  walk.visit(block);

  check_data &found = walk.found;
  const bool continues = walk.before && zem_xtree_same(walk.before->term, groups.first.term);
  found.postings += groups.postings;
  found.terms += groups.count - (continues ? 1 : 0);
  if (!found.low || check_compare(groups.first, *found.low) < 0) {
    found.low = groups.first;
    found.low_block = number;
  }
  if (!found.high || check_compare(groups.last, *found.high) > 0) found.high = groups.last;
  walk.before = groups.last;
}

// Without a good head nobody knows how many data blocks there are: zeros at the end were never
// written, and the first good index block ends them. False: this was the end.
bool may_be_data(data_walk &walk, std::uint64_t number, zem_block_view block, bool good) {
  if (walk.index.head_good) return true;
  if (good) {
    if (walk.zeros > 0)
      check_damage(walk.run, "zeros", check_at(walk.file.name, number - walk.zeros, 0),
                   check_some(walk.zeros, "data block") + " are gone: zeros stand in their place");
    walk.zeros = 0;
    return true;
  }
  return check_seal(block, format::kind_index).has_value();
}

// False: the data blocks end before this one.
bool walk_block(data_walk &walk, std::uint64_t number, zem_block_span block) {
  if (!check_file_read(walk.run, walk.file, number, block)) {
    if (const index_entry *entry = entry_of(walk, number)) walk.before = entry->last;
    return true;
  }
  if (!walk.index.head_good && !check_nonzero(block, 0)) {
    ++walk.zeros;
    return true;
  }
  data_groups groups;
  const auto fault = block_fault(block, groups);
  if (!may_be_data(walk, number, block, !fault)) return false;
  if (!fault) {
    good_block(walk, number, block, groups);
  } else {
    lost_block(walk, number, block, *fault);
    if (const index_entry *entry = entry_of(walk, number)) walk.before = entry->last;
  }
  return true;
}

// Tells of data blocks that the file is too short for.
void missing_blocks(data_walk &walk) {
  if (!walk.cut_short) return;
  const std::uint64_t first = std::max<std::uint64_t>(check_file_blocks(walk.file), 1);
  std::uint64_t postings = 0;
  for (std::uint64_t i = first - 1; i < walk.index.entries.size(); ++i)
    postings += walk.index.entries[i].val.rec_num;
  check_damage(
      walk.run, "file-short", {.file = walk.file.name, .block = first, .byte = walk.file.file.size},
      "the file ends before " + check_some(walk.index.data_blocks + 1 - first, "data block") +
          " that it should hold",
      postings);
}

void walk_blocks(data_walk &walk, zem_block_span block) {
  const std::uint64_t file_blocks = check_file_blocks(walk.file);
  const std::uint64_t end =
      walk.index.head_good ? std::min<std::uint64_t>(file_blocks, walk.index.data_blocks + 1ULL)
                           : file_blocks;
  std::uint64_t number = format::first_data_block;
  while (number < end && !walk.run.io.stop && walk_block(walk, number, block))
    ++number;
  missing_blocks(walk);
}

// Behind the last block there are zeros alone.
void walk_tail(data_walk &walk, zem_block_span block) {
  if (!walk.index.head_good || !walk.index.whole) return;
  std::uint64_t number = std::uint64_t{walk.index.data_blocks} + walk.index.index_blocks;
  for (; number < check_file_blocks(walk.file) && !walk.run.io.stop; ++number) {
    number = check_file_skip(walk.run, walk.file, number);
    if (number >= check_file_blocks(walk.file)) return;
    if (!check_file_read(walk.run, walk.file, number, block)) return;
    const auto stray = check_nonzero(block, 0);
    if (!stray) continue;
    check_note(walk.run, "tail", check_at(walk.file.name, number, *stray),
               "bytes lie behind the last block of the file; nothing reads them");
    return;
  }
}

bool is_empty(const check_file &file, zem_block_view head) {
  return file.file.size <= zem_block_size && !check_nonzero(head, 0);
}

}  // namespace

check_data check_data_walk(check_run &run, const check_file &file,
                           const std::function<void(zem_block_view block)> &visit) {
  data_walk walk{.run = run, .file = file, .visit = visit};
  const auto block = std::make_unique<block_buffer>();
  if (file.file.size == 0) return walk.found;
  // An empty file has no index.
  if (file.file.size <= zem_block_size) {
    if (!check_file_read(run, file, 0, *block)) return walk.found;
    if (is_empty(file, *block)) return walk.found;
  }
  read_index(walk, *block);
  walk_blocks(walk, *block);
  walk_tail(walk, *block);
  if (!walk.cut_short) check_file_end(run, file);
  return walk.found;
}
