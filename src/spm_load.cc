// Replay: reads the blocks of a log file back into the log map, finds where the log ends, and saves
// what has to be dropped there.
#include "src/spm.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/crc.h"

#include "src/spm_blk.h"
#include "src/spm_impl.h"

namespace format = zem_spm_format;

namespace {

constexpr zem_status bad_checksum{ZEM_SDB_E_CHECKSUM};
constexpr zem_status bad_kind{ZEM_SDB_E_KIND};

std::uint32_t head_word(zem_block_view block, std::size_t at) noexcept {
  return zem_stream_get_word(&block[at]);
}

bool all_zero(std::span<const std::byte> bytes) noexcept {
  return bytes.empty() || (bytes[0] == std::byte{0} &&
                           std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

bool never_written(zem_block_view block) noexcept {
  return zem_stream_get_dword(&block[format::crc_at]) == 0 &&
         block[format::kind_at] == std::byte{0};
}

bool checksum_holds(zem_block_view block) noexcept {
  return zem_stream_crc32(block.subspan(format::kind_at)) ==
         zem_stream_get_dword(&block[format::crc_at]);
}

// The number of postings that the group at `pos` says it holds; 0 when its head or one of them
// would lie beyond the block.
std::uint32_t group_count(zem_block_view block, std::size_t pos) noexcept {
  if (pos + format::group_head_size > block.size()) return 0;
  const std::uint32_t count = head_word(block, pos + format::group_count_at);
  const std::size_t end = pos + format::group_head_size + count * format::posting_size;
  return end <= block.size() ? count : 0;
}

// Where the block's groups end. Zero when they do not add up to the head's number of postings, or
// anything follows them: such a block is not ours, whatever its checksum says.
std::size_t groups_end(zem_block_view block) noexcept {
  std::uint32_t left = head_word(block, format::posting_count_at);
  if (head_word(block, format::term_count_at) > left) return 0;
  std::size_t pos = format::groups_at;
  while (left > 0) {
    const std::uint32_t count = group_count(block, pos);
    if (count == 0 || count > left) return 0;
    pos += format::group_head_size + count * format::posting_size;
    left -= count;
  }
  return all_zero(block.subspan(pos)) ? pos : 0;
}

// Tries whether the old image of a torn block ends with `keep` postings of the group at `pos`.
bool restore_image(zem_block_span block, std::size_t pos, std::uint32_t keep,
                   zem_block_span image) noexcept {
  const std::size_t end = pos + format::group_head_size + keep * format::posting_size;
  if (end > block.size()) return false;
  std::copy_n(block.begin(), end, image.begin());
  std::fill(image.begin() + static_cast<std::ptrdiff_t>(end), image.end(), std::byte{0});
  zem_stream_set_word(&image[pos + format::group_count_at], static_cast<std::uint16_t>(keep));
  if (!checksum_holds(image)) return false;
  std::copy(image.begin(), image.end(), block.begin());
  return true;
}

// Cuts a block whose checksum is wrong back to its head's number of postings, which is the image
// of an earlier commit if the write after it was torn. False, with the block as it was, when the
// checksum does not confirm that.
bool cut_back(zem_block_span block) {
  if (block[format::kind_at] != format::kind_log) return false;
  const auto image = std::make_unique<zem_spm_buf>();
  std::uint32_t left = head_word(block, format::posting_count_at);
  std::size_t pos = format::groups_at;
  while (left > 0 && pos + format::group_head_size <= block.size()) {
    const std::uint32_t count = head_word(block, pos + format::group_count_at);
    // The last group of the old image may have grown since. A count word across two of the pieces
    // that a disk writes whole may be half old and half new, and then says nothing.
    const bool last = count >= left;
    const bool torn_count = (pos + format::group_count_at + 1) % format::head_size == 0;
    if ((last || torn_count) && restore_image(block, pos, left, image->bytes)) return true;
    if (last || count == 0) return false;
    pos += format::group_head_size + count * format::posting_size;
    left -= count;
  }
  return false;
}

}  // namespace

zem_status zem_spm_accept_blk(zem_block_span block) {
  bool cut = false;
  if (!checksum_holds(block)) {
    cut = cut_back(block);
    if (!cut) return bad_checksum;
  }
  if (block[format::kind_at] != format::kind_log) return bad_kind;
  if (groups_end(block) == 0) return bad_checksum;
  return cut ? zem_yes : zem_ok;
}

namespace {

// Brings the postings of an acceptable block into the map.
void replay_postings(zem_spm &spm, zem_block_view block, std::uint32_t blk_no, zem_mkey &mkey) {
  zem_blk reader;
  zem_blk_read(reader, block, head_word(block, format::posting_count_at));
  while (zem_blk_next(reader)) {
    zem_spm_node *node = nullptr;
    zem_spm_node_set(spm, reader.term, reader.id, node);
    node->value->blk_no = blk_no;
    node->value->flag = reader.deleted ? -1 : 0;
    zem_mkey_copy(mkey, reader.term, reader.id);
  }
}

// What a replay finds at the end of the log.
struct log_end {
  std::uint64_t data_end = 0;  // of the file: what lies behind is zero
  std::uint32_t blk_no = 0;    // the block where it ends
  zem_status damage = zem_ok;  // why that block is not acceptable, if it is not
  bool cut_back = false;       // the block before it was
  bool remains = false;        // that block or one behind it is not all zeros
  // The first block at the end or behind it that holds postings, so that dropping it is a loss.
  std::optional<std::uint32_t> dropped = std::nullopt;
};

// Where the blocks end that may hold anything but zeros. Asked before anything is read: what the
// system reads ahead counts as data.
std::uint64_t find_data_end(const zem_file &file) noexcept {
  std::uint64_t end = 0;
  while (true) {
    const std::uint64_t data = zem_file_data(file, end);
    if (data >= file.size) return std::min(end, file.size);
    end = (data / zem_block_size + 1) * zem_block_size;
  }
}

// Replays block after block. The last one accepted becomes the block being filled.
zem_status replay_blks(zem_spm &spm, zem_mkey &mkey, log_end &end) {
  const std::uint64_t blocks = end.data_end / zem_block_size;  // a part of one is none
  auto next = std::make_unique<zem_spm_buf>();
  for (; end.blk_no < blocks && !end.cut_back; ++end.blk_no) {
    const zem_block_span block(next->bytes);
    const std::uint64_t offset = std::uint64_t{end.blk_no} * zem_block_size;
    if (zem_status st = zem_file_read(spm.file, offset, block); st < 0) return st;
    if (never_written(block)) return zem_ok;
    const zem_status accepted = zem_spm_accept_blk(block);
    if (accepted < 0) {
      end.damage = accepted;
      return zem_ok;
    }
    end.cut_back = accepted > 0;

    replay_postings(spm, block, end.blk_no, mkey);
    spm.blk_no = end.blk_no;
    spm.blk_pos = static_cast<std::uint32_t>(groups_end(block));
    spm.blk_terms = head_word(block, format::term_count_at);
    spm.blk_recs = head_word(block, format::posting_count_at);
    spm.sum_terms += spm.blk_terms;
    spm.sum_recs += spm.blk_recs;
    spm.blk_since = 0;
    std::swap(spm.buf, next);
  }
  return zem_ok;
}

// Looks for what the file holds from the end of the log on.
zem_status scan_tail(const zem_spm &spm, log_end &end) {
  if (end.damage < 0) {
    end.remains = true;
    end.dropped = end.blk_no;
    return zem_ok;
  }
  const auto buf = std::make_unique<zem_spm_buf>();
  for (std::uint32_t blk_no = end.blk_no; !end.dropped.has_value(); ++blk_no) {
    const std::uint64_t offset = std::uint64_t{blk_no} * zem_block_size;
    if (offset >= end.data_end) return zem_ok;
    if (zem_status st = zem_file_read(spm.file, offset, buf->bytes); st < 0) return st;
    end.remains = end.remains || !all_zero(buf->bytes);
    if (!never_written(buf->bytes)) end.dropped = blk_no;
  }
  return zem_ok;
}

// Copies the file to `bad_name`, or to the first free name that begins with it, for good.
zem_status copy_aside(const std::string &name, const std::string &bad_name, std::string &copy) {
  copy = bad_name;
  zem_status st = zem_file_copy(name, copy);
  for (std::uint32_t number = 1; st == -EEXIST; ++number) {
    copy = bad_name + '.' + std::to_string(number);
    st = zem_file_copy(name, copy);
  }
  if (st < 0) return st;
  const std::size_t slash = copy.rfind('/');
  return zem_dir_sync(slash == std::string::npos ? "." : copy.substr(0, slash + 1));
}

// Saves what is about to be dropped, or else refuses the log.
void save_dropped(zem_spm &spm, const log_end &end, const std::string &bad_name, zem_err *err) {
  if (!end.dropped.has_value()) return;
  const char *why = "lies behind the end of the log";
  if (end.damage == bad_checksum) why = "is damaged";
  if (end.damage == bad_kind) why = "is of a wrong kind";

  const char *name = spm.file.name.c_str();
  std::string copy;
  const zem_status st = copy_aside(spm.file.name, bad_name, copy);
  if (st < 0) {
    spm.refused = st;
    zem_err_log(err, 0, "%s, block %u: %s; updates are refused, as no copy could be made: %d", name,
                *end.dropped, why, st);
    return;
  }
  zem_err_log(err, 0, "%s, block %u: %s; dropped with all that follows, kept in %s", name,
              *end.dropped, why, copy.c_str());
}

zem_status load(zem_spm &spm, bool frozen, zem_mkey &mkey, const std::string &bad_name,
                zem_err *err) {
  ZEM_ASSERT(spm.tree.count == 0);
  ZEM_ASSERT(spm.blk_pos == format::groups_at);
  log_end end{.data_end = find_data_end(spm.file)};
  if (zem_status st = replay_blks(spm, mkey, end); st < 0) return st;
  if (zem_status st = scan_tail(spm, end); st < 0) return st;
  save_dropped(spm, end, bad_name, err);
  if (!frozen && spm.refused >= 0) {
    // The torn block is whole again with the next commit.
    spm.blk_dirty = end.cut_back;
    if (end.remains) spm.cut_at = std::uint64_t{end.blk_no} * zem_block_size;
  }
  return end.damage;
}

}  // namespace

zem_status zem_spm_load(zem_spm &spm, zem_mkey &mkey, const std::string &bad_name, zem_err *err) {
  return load(spm, false, mkey, bad_name, err);
}

zem_status zem_spm_load_frozen(zem_spm &spm, zem_mkey &mkey, const std::string &bad_name,
                               zem_err *err) {
  return load(spm, true, mkey, bad_name, err);
}

zem_status zem_spm_read_blk(const zem_spm &spm, std::uint32_t index, zem_block_span block) {
  const std::uint64_t offset = std::uint64_t{index} * zem_block_size;
  if (zem_status st = zem_file_read(spm.file, offset, block); st < 0) return st;
  if (!checksum_holds(block)) return bad_checksum;
  if (block[format::kind_at] != format::kind_log) return bad_kind;
  return groups_end(block) == 0 ? bad_checksum : zem_ok;
}
