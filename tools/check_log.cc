#include "tools/check_log.h"

#include <memory>

#include "src/spm_blk.h"
#include "src/spm_impl.h"

namespace format = zem_spm_format;

namespace {

std::uint32_t head_word(zem_block_view block, std::size_t at) noexcept {
  return zem_stream_get_word(&block[at]);
}

bool never_written(zem_block_view block) noexcept {
  return zem_stream_get_dword(&block[format::crc_at]) == 0 &&
         block[format::kind_at] == std::byte{0};
}

// What is wrong with the groups of a block whose checksum and kind are right.
std::optional<check_fault> groups_fault(zem_block_view block) {
  constexpr check_fault fewer{"count", format::posting_count_at,
                              "the block's groups hold fewer postings than its head says"};
  std::uint32_t left = head_word(block, format::posting_count_at);
  if (head_word(block, format::term_count_at) > left)
    return check_fault{"count", format::term_count_at, "the block opens more terms than it holds"};
  std::size_t pos = format::groups_at;
  while (left > 0) {
    if (pos + format::group_head_size > block.size()) return fewer;
    const std::size_t count_at = pos + format::group_count_at;
    const std::uint32_t count = head_word(block, count_at);
    const std::size_t end = pos + format::group_head_size + count * format::posting_size;
    if (count == 0 && check_nonzero(block, pos))
      return check_fault{"group", count_at, "a group is empty"};
    if (count == 0) return fewer;
    if (end > block.size())
      return check_fault{"group", count_at, "a group runs over the end of the block"};
    if (count > left)
      return check_fault{"count", format::posting_count_at,
                         "the block's groups hold more postings than its head says"};
    pos = end;
    left -= count;
  }
  const std::optional<std::size_t> stray = check_nonzero(block, pos);
  if (stray) return check_fault{"slack", *stray, "bytes follow the block's last group"};
  return std::nullopt;
}

// Why a block is not acceptable.
check_fault block_fault(zem_block_view block) {
  std::optional<check_fault> fault = check_seal(block, format::kind_log);
  if (!fault) fault = groups_fault(block);
  return fault.value_or(check_fault{"group", format::groups_at, "the block makes no sense"});
}

struct log_walk {
  check_run &run;
  const check_file &file;
  const std::function<void(const check_log_block &)> &visit;
  bool ended = false;  // what follows lies behind the end of the log
  // Good blocks behind the end.
  std::uint64_t first_unreached = 0;
  std::uint64_t unreached = 0;
  std::uint64_t unreached_postings = 0;
};

void damaged_block(log_walk &walk, std::uint32_t number, zem_block_view block) {
  const check_fault fault = block_fault(block);
  const std::string where = walk.ended ? ", behind the end of the log"
                                       : "; an open ends the log here and sets a copy aside";
  check_damage(walk.run, fault.kind, check_at(walk.file.name, number, fault.at),
               fault.words + where, head_word(block, format::posting_count_at));
  walk.ended = true;
}

void unwritten_block(log_walk &walk, std::uint32_t number, zem_block_view block) {
  walk.ended = true;
  if (const auto stray = check_nonzero(block, 0)) {
    check_note(walk.run, "log-tail", check_at(walk.file.name, number, *stray),
               "what a write that was cut short left behind the end of the log; the next change "
               "cuts it off");
  }
}

void good_block(log_walk &walk, std::uint32_t number, zem_block_view block, bool torn) {
  const std::uint32_t postings = head_word(block, format::posting_count_at);
  walk.visit({.number = number, .bytes = block, .postings = postings, .reached = !walk.ended});
  if (walk.ended) {
    if (walk.unreached++ == 0) walk.first_unreached = number;
    walk.unreached_postings += postings;
  }
  if (!torn) return;
  check_note(walk.run, "log-torn", check_at(walk.file.name, number, 0),
             "a write of the block was cut short; an open takes the " +
                 check_some(postings, "posting") + " that an earlier commit has saved in it");
  walk.ended = true;
}

void walk_block(log_walk &walk, std::uint32_t number, zem_block_span block) {
  if (!check_file_read(walk.run, walk.file, number, block)) {
    walk.ended = true;
    return;
  }
  if (never_written(block)) return unwritten_block(walk, number, block);
  const zem_status accepted = zem_spm_accept_blk(block);
  if (accepted < 0) return damaged_block(walk, number, block);
  good_block(walk, number, block, accepted == zem_yes);
}

}  // namespace

void check_log_walk(check_run &run, const check_file &file,
                    const std::function<void(const check_log_block &)> &visit) {
  log_walk walk{.run = run, .file = file, .visit = visit};
  const auto block = std::make_unique<zem_spm_buf>();
  const std::uint64_t blocks = check_file_blocks(file);
  for (std::uint64_t number = 0; number < blocks && !run.io.stop; ++number) {
    // A hole holds zeros, which end the log.
    const std::uint64_t next = check_file_skip(run, file, number);
    walk.ended = walk.ended || next > number;
    number = next;
    if (number < blocks) walk_block(walk, static_cast<std::uint32_t>(number), block->bytes);
  }
  if (walk.unreached > 0) {
    check_damage(run, "log-unreached", check_at(file.name, walk.first_unreached, 0),
                 check_some(walk.unreached, "block") + " with " +
                     check_some(walk.unreached_postings, "posting") +
                     " behind the end of the log; an open drops them and sets a copy aside");
  }
  check_file_end(run, file);
}

namespace {

void replay(zem_spm &log, std::uint32_t block, const zem_blk &posting, zem_spm_node *&node,
            bool &fresh) {
  fresh = zem_spm_node_set(log, posting.term, posting.id, node);
  node->value->blk_no = block;
  node->value->flag = posting.deleted ? -1 : 0;
}

}  // namespace

void check_log_apply(zem_spm &log, const check_log_block &block) {
  zem_blk reader;
  zem_blk_read(reader, block.bytes, block.postings);
  zem_spm_node *node = nullptr;
  bool fresh = false;
  while (zem_blk_next(reader))
    replay(log, block.number, reader, node, fresh);
}

void check_log_replay(check_run &run, const check_file &file, zem_spm &log,
                      const check_log_block &block) {
  zem_blk reader;
  zem_blk_read(reader, block.bytes, block.postings);
  const std::byte *const begin = block.bytes.data();
  std::optional<std::size_t> odd;       // operation
  std::optional<std::size_t> repeated;  // posting
  std::uint32_t terms = 0;
  zem_spm_node *node = nullptr;
  bool fresh = false;
  while (zem_blk_next(reader)) {
    replay(log, block.number, reader, node, fresh);
    const auto at = static_cast<std::size_t>(reader.at - begin) - format::posting_size;
    const std::byte op = begin[at + format::op_at];
    if (op != format::op_insert && op != format::op_delete && !odd) odd = at + format::op_at;
    if (fresh == reader.deleted && !repeated) repeated = at;
    const bool alone = node->first != 0 && (node->next == nullptr || node->next->first != 0);
    terms += alone ? 1 : 0;
  }
  if (odd) {
    check_note(run, "log-operation", check_at(file.name, block.number, *odd),
               "an operation is neither an insert nor a delete; its top bit decides");
  }
  if (repeated) {
    check_note(run, "log-record", check_at(file.name, block.number, *repeated),
               "a record inserts what the log holds or deletes what it does not hold");
  }
  if (terms != head_word(block.bytes, format::term_count_at) && !odd && !repeated) {
    check_note(run, "log-terms", check_at(file.name, block.number, format::term_count_at),
               "the block opens " + check_some(terms, "term") + ", not " +
                   std::to_string(head_word(block.bytes, format::term_count_at)) +
                   "; only estimates of counts go by that");
  }
}
