#include "src/spm.h"

#include <algorithm>
#include <utility>

#include "base/assert.h"
#include "base/crc.h"

#include "src/spm_impl.h"

namespace format = zem_spm_format;

zem_status zem_spm_open(zem_spm &spm, zem_file_mode mode) {
  spm.state.reset();
  auto state = std::make_shared<zem_spm_state>();
  if (spm.buf == nullptr) spm.buf = std::make_unique<zem_spm_buf>();
  if (zem_status st = zem_file_open(spm.file, mode); st < 0) return st;

  // Whoever had an existing file before may have been killed between its writes and their sync.
  if (mode == zem_file_mode::existing) state->written = 1;
  spm.settle = state->written;
  spm.cut_at.reset();
  spm.refused = zem_ok;
  spm.state = std::move(state);
  return zem_ok;
}

zem_status zem_spm_close(zem_spm &spm) noexcept {
  spm.state.reset();
  return zem_file_close(spm.file);
}

namespace {

// The next block to be filled is `blk_no`, and the file holds nothing of it.
void start_blk(zem_spm &spm, std::uint32_t blk_no) noexcept {
  if (spm.buf != nullptr) std::fill_n(spm.buf->bytes.begin(), spm.blk_pos, std::byte{0});
  spm.blk_no = blk_no;
  spm.blk_pos = format::groups_at;
  spm.blk_terms = 0;
  spm.blk_recs = 0;
  spm.blk_dirty = false;
  spm.blk_since.reset();
}

}  // namespace

void zem_spm_shrink(zem_spm &spm) noexcept {
  start_blk(spm, 0);
  spm.sum_terms = 0;
  spm.sum_recs = 0;
  zem_xtree_free_all(spm.tree);
  if (spm.state == nullptr) spm.buf.reset();
}

void zem_spm_swap(zem_spm &a, zem_spm &b) noexcept {
  zem_xtree_swap(a.tree, b.tree);
  zem_file_swap(a.file, b.file);
  std::swap(a.blk_no, b.blk_no);
  std::swap(a.blk_pos, b.blk_pos);
  std::swap(a.blk_terms, b.blk_terms);
  std::swap(a.blk_recs, b.blk_recs);
  std::swap(a.sum_terms, b.sum_terms);
  std::swap(a.sum_recs, b.sum_recs);
  std::swap(a.buf, b.buf);
  std::swap(a.blk_dirty, b.blk_dirty);
  std::swap(a.blk_since, b.blk_since);
  std::swap(a.state, b.state);
  std::swap(a.settle, b.settle);
  std::swap(a.cut_at, b.cut_at);
  std::swap(a.refused, b.refused);
}

namespace {

// Makes the first `wanted` changes of a file durable.
zem_status sync_changes(zem_spm_state &state, const zem_fd &fd, std::uint64_t wanted) {
  zem_lock_guard held(state.mutex);
  if (const zem_status failure = state.failure; failure < 0) return failure;
  if (state.durable >= wanted) return zem_ok;
  const std::uint64_t covered = state.written;  // before the sync: it may miss what comes meanwhile
  if (zem_status st = zem_fd_sync(fd); st < 0) {
    // For good: the system reports lost writes once, and a later sync would succeed without them.
    state.failure.store(st);
    return st;
  }
  state.durable = covered;
  return zem_ok;
}

// Cuts off what an earlier life left behind the end of the log.
zem_status cut_tail(zem_spm &spm) {
  if (!spm.cut_at.has_value()) return zem_ok;
  if (zem_status st = zem_file_truncate(spm.file, *spm.cut_at); st < 0) return st;
  spm.cut_at.reset();
  spm.settle = ++spm.state->written;
  return zem_ok;
}

// What comes before the first write after an open. No write may pass a failure of it.
zem_status settle(zem_spm &spm) {
  if (zem_status st = cut_tail(spm); st < 0) return st;
  if (spm.state->durable >= spm.settle) return zem_ok;
  return sync_changes(*spm.state, *spm.file.fd, spm.settle);
}

void set_blk_head(zem_spm &spm) noexcept {
  std::byte *const bytes = spm.buf->bytes.data();
  bytes[format::kind_at] = format::kind_log;
  zem_stream_set_word(bytes + format::posting_count_at, static_cast<std::uint16_t>(spm.blk_recs));
  zem_stream_set_word(bytes + format::term_count_at, static_cast<std::uint16_t>(spm.blk_terms));
  const auto summed = std::span<const std::byte>(spm.buf->bytes).subspan(format::kind_at);
  zem_stream_set_dword(bytes + format::crc_at, zem_stream_crc32(summed));
}

// Writes bytes `from` to `to` - 1 of the block being filled.
zem_status write_part(zem_spm &spm, std::size_t from, std::size_t to) {
  const auto part = std::span<const std::byte>(spm.buf->bytes).subspan(from, to - from);
  const std::uint64_t offset = std::uint64_t{spm.blk_no} * zem_block_size + from;
  const zem_status st = zem_file_write(spm.file, offset, part);
  ++spm.state->written;  // a write that fails may have changed the file as well
  return st;
}

// Whether the old head of a block may be replaced now that its new body was written and synced, or
// could not be synced. Before the body is on disk only the old head tells what can be restored.
bool head_is_free(const zem_spm &spm, zem_status body_synced) noexcept {
  if (body_synced >= 0) return true;
  // After the failure no commit succeeds any more, so the old head matters only if a sync before it
  // has covered it.
  return spm.state->durable < *spm.blk_since;
}

// Writes the block being filled. `last`: nothing will be added to it.
zem_status write_blk(zem_spm &spm, bool last) {
  if (zem_status st = settle(spm); st < 0) return st;
  const std::uint64_t end = (std::uint64_t{spm.blk_no} + 1) * zem_block_size;
  if (zem_status st = zem_file_expand(spm.file, zem_file_step(end)); st < 0) return st;

  set_blk_head(spm);
  if (zem_status st = write_part(spm, format::head_size, zem_block_size); st < 0) return st;
  if (spm.blk_since.has_value()) {
    const zem_status st = sync_changes(*spm.state, *spm.file.fd, spm.state->written);
    if (st < 0 && !last) return st;
    // The log goes on without its commits. The file keeps this block as a commit left it; what was
    // added since is in the map, from where a merge takes it.
    if (!head_is_free(spm, st)) return zem_ok;
  }
  if (zem_status st = write_part(spm, 0, format::head_size); st < 0) return st;
  if (!spm.blk_since.has_value()) spm.blk_since = spm.state->written;
  spm.blk_dirty = false;
  return zem_ok;
}

// Ends the block being filled and begins the next one.
zem_status next_blk(zem_spm &spm, zem_proc &proc) {
  if (spm.blk_dirty) {
    if (zem_status st = write_blk(spm, true); st < 0) return st;
  }
  start_blk(spm, spm.blk_no + 1);
  zem_proc_shrink(proc);
  return zem_ok;
}

// The room that an operation asks for. An insert asks for more than it takes.
constexpr std::size_t insert_room = 13;
constexpr std::size_t delete_room = format::posting_size;

std::size_t group_end(const zem_proc &proc) noexcept {
  return proc.pos + format::group_head_size + proc.num * format::posting_size;
}

bool continues_group(const zem_spm &spm, const zem_proc &proc, const zem_term &term) noexcept {
  return proc.last != zem_id_first && zem_xtree_same(proc.term, term) &&
         group_end(proc) == spm.blk_pos && proc.blk_no == spm.blk_no;
}

bool has_room(const zem_spm &spm, const zem_proc &proc, const zem_term &term,
              std::size_t room) noexcept {
  if (spm.blk_pos == format::groups_at) return true;
  if (!continues_group(spm, proc, term)) room += format::group_head_size;
  return spm.blk_pos + room <= zem_block_size;
}

// The only posting of its term in the map.
bool stands_alone(const zem_spm_node &node) noexcept {
  return node.first != 0 && (node.next == nullptr || node.next->first != 0);
}

void open_group(zem_spm &spm, zem_proc &proc, const zem_term &term) noexcept {
  std::byte *at = spm.buf->bytes.data() + spm.blk_pos;
  for (const std::uint32_t word : term) {
    zem_stream_set_dword(at, word);
    at += sizeof word;
  }
  proc = {.blk_no = spm.blk_no, .pos = spm.blk_pos, .term = term};
  spm.blk_pos += format::group_head_size;
}

// Appends a posting to the block being filled, which has room for it.
void append(zem_spm &spm, zem_proc &proc, const zem_spm_node &node, std::byte op) noexcept {
  if (!continues_group(spm, proc, node.term)) open_group(spm, proc, node.term);
  ZEM_ASSERT(spm.blk_pos == group_end(proc));
  ZEM_ASSERT(spm.blk_pos + format::posting_size <= zem_block_size);
  std::byte *const bytes = spm.buf->bytes.data();
  ++proc.num;
  zem_stream_set_word(bytes + proc.pos + format::group_count_at,
                      static_cast<std::uint16_t>(proc.num));
  zem_stream_set_lword(bytes + spm.blk_pos, node.id);
  bytes[spm.blk_pos + format::op_at] = op;
  proc.last = node.id;
  spm.blk_pos += format::posting_size;
  ++spm.blk_recs;
  spm.blk_dirty = true;
  node.value->blk_no = spm.blk_no;
}

zem_status raise_key(zem_mkey &mkey, const zem_term &term, std::uint64_t id) noexcept {
  return zem_mkey_copy(mkey, term, id) ? zem_yes : zem_ok;
}

}  // namespace

zem_status zem_spm_insert(zem_spm &spm, zem_proc &proc, std::uint64_t id, const zem_term &term,
                          zem_mkey &mkey) {
  if (spm.refused < 0) return spm.refused;
  if (!has_room(spm, proc, term, insert_room)) {
    // The node comes after the write: had it stayed behind a failure, a retry would find it and log
    // nothing.
    if (zem_xtree_node_get(spm.tree, term, id) != nullptr) return zem_ok;
    if (zem_status st = next_blk(spm, proc); st < 0) return st;
  }
  zem_spm_node *node = nullptr;
  bool opens_term = false;
  if (!zem_spm_node_set(spm, term, id, node, &opens_term)) return zem_ok;
  append(spm, proc, *node, format::op_insert);
  ++spm.sum_recs;
  if (opens_term) {
    ++spm.blk_terms;
    ++spm.sum_terms;
  }
  return raise_key(mkey, term, id);
}

zem_status zem_spm_delete(zem_spm &spm, zem_proc &proc, std::uint64_t id, const zem_term &term,
                          zem_mkey &mkey) {
  if (spm.refused < 0) return spm.refused;
  const zem_spm_node *node = zem_xtree_node_get(spm.tree, term, id);
  if (node == nullptr) return zem_ok;
  if (!has_room(spm, proc, term, delete_room)) {
    if (zem_status st = next_blk(spm, proc); st < 0) return st;
  }
  append(spm, proc, *node, format::op_delete);
  node->value->flag = -1;
  if (stands_alone(*node)) ++spm.blk_terms;
  return raise_key(mkey, term, id);
}

zem_status zem_spm_commit_begin(zem_spm &spm, zem_spm_sync &job) {
  job = {};
  if (!zem_spm_dirty(spm)) return zem_ok;
  if (zem_status st = zem_spm_failure(spm); st < 0) return st;
  const zem_status st = spm.blk_dirty ? write_blk(spm, false) : cut_tail(spm);
  if (st < 0) return st;
  job = {.fd = spm.file.fd, .state = spm.state, .written = spm.state->written};
  return zem_ok;
}

zem_status zem_spm_commit_end(const zem_spm_sync &job) {
  if (job.fd == nullptr) return zem_ok;
  return sync_changes(*job.state, *job.fd, job.written);
}

zem_status zem_spm_commit(zem_spm &spm) {
  zem_spm_sync job;
  if (zem_status st = zem_spm_commit_begin(spm, job); st < 0) return st;
  return zem_spm_commit_end(job);
}

bool zem_spm_dirty(const zem_spm &spm) noexcept {
  if (spm.state == nullptr) return false;
  return spm.blk_dirty || spm.state->durable < spm.state->written;
}

zem_status zem_spm_failure(const zem_spm &spm) noexcept {
  return spm.state == nullptr ? zem_ok : spm.state->failure.load();
}

zem_status zem_spm_writable(const zem_spm &spm) noexcept { return spm.refused; }
