#include "tools/check_file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "base/crc.h"

#include "src/spm.h"
#include "src/spx.h"

static_assert(zem_spm_format::crc_at == zem_spx_format::crc_at);
static_assert(zem_spm_format::kind_at == zem_spx_format::kind_at);

namespace {

constexpr const char *unreadable = "unreadable";

std::string reason(int error) { return tool_problem_errno("cannot be read", error).sentence; }

std::uint64_t blocks_and_part(const check_file &file) noexcept {
  return (file.file.size + zem_block_size - 1) / zem_block_size;
}

}  // namespace

bool check_file_open(check_run &run, const std::string &directory, const std::string &name,
                     check_file &file) {
  file.name = name;
  file.file.name = zem_dir_merge(directory, name);
  file.file.fd = std::make_shared<zem_fd>(::open(file.file.name.c_str(), O_RDONLY | O_CLOEXEC));
  struct ::stat status {};
  if (file.file.fd->number < 0 || ::fstat(file.file.fd->number, &status) < 0) {
    check_damage(run, unreadable, {.file = name}, reason(errno));
    return false;
  }
  file.file.size = static_cast<std::uint64_t>(status.st_size);
  ++run.files;
  return true;
}

bool check_file_read(check_run &run, const check_file &file, std::uint64_t number,
                     zem_block_span block) {
  tool_progress_step(run.progress, zem_block_size, file.name);
  ++run.blocks;
  const zem_status st = zem_file_read(file.file, number * zem_block_size, block);
  if (st >= 0) return true;
  check_damage(run, unreadable, check_at(file.name, number, 0), reason(-st));
  return false;
}

std::uint64_t check_file_skip(check_run &run, const check_file &file, std::uint64_t number) {
  const std::uint64_t blocks = blocks_and_part(file);
  const std::uint64_t data =
      std::min(zem_file_data(file.file, number * zem_block_size), file.file.size);
  std::uint64_t next = data < file.file.size ? data / zem_block_size : blocks;
  next = std::max(next, number);
  tool_progress_step(run.progress, (next - number) * zem_block_size, file.name);
  return next;
}

void check_file_end(check_run &run, const check_file &file) {
  if (file.file.size % zem_block_size == 0) return;
  const std::uint64_t last = check_file_blocks(file);
  const auto block = std::make_unique<zem_spm_buf>();
  if (!check_file_read(run, file, last, block->bytes)) return;
  const check_place place = {.file = file.name, .block = last, .byte = file.file.size};
  if (check_nonzero(block->bytes, 0)) {
    check_damage(run, "file-end", place, "the file ends inside a block that holds something");
  } else {
    check_note(run, "file-end", place, "the file ends inside a block of zeros");
  }
}

std::optional<check_fault> check_seal(zem_block_view block, std::byte kind) {
  const std::uint32_t stored = zem_stream_get_dword(&block[zem_spx_format::crc_at]);
  if (stored != zem_stream_crc32(block.subspan(zem_spx_format::kind_at)))
    return check_fault{"checksum", zem_spx_format::crc_at, "the block's checksum is wrong"};
  if (block[zem_spx_format::kind_at] != kind)
    return check_fault{"kind", zem_spx_format::kind_at, "the block is of another kind"};
  return std::nullopt;
}

std::optional<std::size_t> check_nonzero(zem_block_view block, std::size_t from) {
  const auto found = std::find_if(block.begin() + static_cast<std::ptrdiff_t>(from), block.end(),
                                  [](std::byte each) { return each != std::byte{0}; });
  if (found == block.end()) return std::nullopt;
  return static_cast<std::size_t>(found - block.begin());
}

std::string check_key_text(const check_key &key) {
  return std::to_string(key.term[0]) + '.' + std::to_string(key.term[1]) + '.' +
         std::to_string(key.term[2]) + ':' + std::to_string(key.id);
}

std::string check_some(std::uint64_t count, const char *thing) {
  return std::to_string(count) + ' ' + thing + (count == 1 ? "" : "s");
}
