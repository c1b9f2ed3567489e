// A log in a directory of its own, with verbs to write, kill, damage and walk it.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <ostream>
#include <span>
#include <string>
#include <vector>

#include "base/crc.h"
#include "base/err.h"
#include "base/file.h"
#include "base/stream.h"

#include "src/spm.h"
#include "src/spm_iter.h"
#include "tests/support/temp_dir.h"

struct log_posting {
  zem_term term{};
  std::uint64_t id = 0;
  bool deleted = false;
  friend bool operator==(const log_posting &, const log_posting &) = default;
};

inline std::ostream &operator<<(std::ostream &out, const log_posting &p) {
  out << p.term[0] << '.' << p.term[1] << '.' << p.term[2] << ':' << p.id;
  return out << (p.deleted ? " deleted" : "");
}

inline std::vector<log_posting> log_postings(const zem_spm &spm) {
  std::vector<log_posting> found;
  zem_iter iter;
  for (zem_spm_iterd_first(spm, iter); iter.node != nullptr; zem_spm_iterd_next(iter))
    found.push_back({iter.term, iter.doc, iter.val->flag < 0});
  return found;
}

class LogTest : public ::testing::Test {
 protected:
  static constexpr zem_term ant{0, 0, 1};
  static constexpr zem_term cat{1, 0, 0};
  static constexpr zem_term dog{1, 0, 3};

  LogTest() {
    spm->file.name = dir.path("1.log");
    start();
  }
  ~LogTest() override { zem_err_free(err); }

  // Begins a new log in the place of what was there.
  void start() {
    zem_spm_shrink(*spm);
    zem_proc_shrink(proc);
    mkey = {};
    ASSERT_EQ(zem_spm_open(*spm, zem_file_mode::fresh), zem_ok);
  }
  zem_status try_insert(const zem_term &term, std::uint64_t id) {
    return zem_spm_insert(*spm, proc, id, term, mkey);
  }
  zem_status try_remove(const zem_term &term, std::uint64_t id) {
    return zem_spm_delete(*spm, proc, id, term, mkey);
  }
  void insert(const zem_term &term, std::uint64_t id) { ASSERT_GE(try_insert(term, id), zem_ok); }
  void remove(const zem_term &term, std::uint64_t id) { ASSERT_GE(try_remove(term, id), zem_ok); }
  // Ids `from`, `from` - 1 and so on.
  void insert_falling(const zem_term &term, std::uint64_t from, std::uint64_t count) {
    for (std::uint64_t i = 0; i < count; ++i)
      insert(term, from - i);
  }
  // Postings of many terms, whose ids were not used before, until the block being filled has just
  // `left` bytes left. The last of them is of the term `dog`.
  void fill_until(std::size_t left) {
    constexpr std::size_t head = zem_spm_format::group_head_size;
    constexpr std::size_t each = zem_spm_format::posting_size;
    std::size_t room = zem_block_size - spm->blk_pos - left;
    std::uint32_t filler = 0;
    for (; (room - head) % each != 0; room -= head + each)
      insert({0, ++filler, 0}, next_id++);
    for (room -= head; room > 0; room -= each)
      insert(dog, next_id++);
    ASSERT_EQ(spm->blk_pos, zem_block_size - left);
  }
  zem_status commit() { return zem_spm_commit(*spm); }

  // As after a kill: memory is gone, the file is as it was.
  zem_status reopen(bool frozen = false) {
    const std::string name = spm->file.name;
    spm = std::make_unique<zem_spm>();
    spm->file.name = name;
    mkey = {};
    zem_proc_shrink(proc);
    lines.clear();
    if (zem_status st = zem_spm_open(*spm, zem_file_mode::existing); st < 0) return st;
    const zem_status st = frozen ? zem_spm_load_frozen(*spm, mkey, bad_name(), err)
                                 : zem_spm_load(*spm, mkey, bad_name(), err);
    EXPECT_TRUE(zem_xtree_valid(spm->tree));
    return st;
  }

  // After a commit and a kill, what is there now must be there again, without complaint.
  void expect_to_stay() {
    ASSERT_EQ(commit(), zem_ok);
    const std::vector<log_posting> before = postings();
    ASSERT_EQ(reopen(), zem_ok);
    EXPECT_EQ(postings(), before);
    EXPECT_TRUE(lines.empty());
  }

  std::vector<log_posting> postings() const { return log_postings(*spm); }
  std::string bad_name() const { return dir.path("1.log.bad"); }

  std::vector<std::byte> read_file(const std::string &name) const {
    zem_file file{.name = name};
    EXPECT_EQ(zem_file_open(file, zem_file_mode::existing), zem_ok);
    std::vector<std::byte> bytes(file.size);
    EXPECT_EQ(zem_file_read(file, 0, bytes), zem_ok);
    return bytes;
  }
  std::vector<std::byte> read_block(std::uint32_t blk_no) const {
    std::vector<std::byte> block(zem_block_size);
    EXPECT_EQ(zem_file_read(spm->file, std::uint64_t{blk_no} * zem_block_size, block), zem_ok);
    return block;
  }
  void write_block(std::uint32_t blk_no, std::span<const std::byte> block) {
    ASSERT_EQ(zem_file_write(spm->file, std::uint64_t{blk_no} * zem_block_size, block), zem_ok);
  }
  // Changes a block and gives it the checksum of its new bytes.
  void forge(std::uint32_t blk_no, const std::function<void(std::byte *)> &change) {
    std::vector<std::byte> block = read_block(blk_no);
    change(block.data());
    zem_stream_set_dword(block.data(), zem_stream_crc32(std::span(block).subspan(4)));
    write_block(blk_no, block);
  }
  // Changes a block and leaves its checksum behind.
  void corrupt(std::uint32_t blk_no, std::size_t at = 30) {
    std::vector<std::byte> block = read_block(blk_no);
    block[at] ^= std::byte{0x10};
    write_block(blk_no, block);
  }

  temp_dir dir;
  std::vector<std::string> lines;  // of the error log, since the last reopen
  zem_err *err = zem_err_new(
      [](void *into, int, const char *line) {
        static_cast<std::vector<std::string> *>(into)->emplace_back(line);
      },
      &lines);
  std::unique_ptr<zem_spm> spm = std::make_unique<zem_spm>();
  zem_proc proc;
  zem_mkey mkey;
  std::uint64_t next_id = 1'000'000;
};
