// A data file in a directory of its own, with verbs to write, damage, load and walk it.
#pragma once

#include <cstdint>
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

#include "src/spx.h"
#include "src/spx_iter.h"
#include "tests/support/temp_dir.h"

struct data_posting {
  zem_term term{};
  std::uint64_t id = 0;
  friend bool operator==(const data_posting &, const data_posting &) = default;
};

inline bool operator<(const data_posting &a, const data_posting &b) {
  return zem_xtree_key_compare(a.term, a.id, b.term, b.id) < 0;
}

inline std::ostream &operator<<(std::ostream &out, const data_posting &p) {
  return out << p.term[0] << '.' << p.term[1] << '.' << p.term[2] << ':' << p.id;
}

class DataFileTest : public ::testing::Test {
 protected:
  static constexpr zem_term ant{0, 0, 1};
  static constexpr zem_term cat{1, 0, 0};
  static constexpr zem_term dog{1, 0, 3};
  static constexpr zem_term emu{2, 9, 0};

  DataFileTest() { spx->file.name = directory.path("1.dat"); }
  ~DataFileTest() override { zem_err_free(err); }

  void start_file() {
    zem_spx_shrink(*spx);
    ASSERT_EQ(zem_spx_open(*spx, zem_file_mode::fresh), zem_ok);
    zem_xblk_shrink(xblk);
  }
  void insert(const zem_term &term, std::uint64_t id) {
    ASSERT_EQ(zem_spx_insert(*spx, xblk, id, term, mkey, 0), zem_ok);
  }
  // Ids `from`, `from` - 1 and so on.
  void insert_falling(const zem_term &term, std::uint64_t from, std::size_t count) {
    std::vector<std::byte> ids(count * zem_spx_format::id_size);
    for (std::size_t i = 0; i < count; ++i)
      zem_stream_set_lword(&ids[i * zem_spx_format::id_size], from - i);
    ASSERT_EQ(zem_spx_insert_run(*spx, xblk, term, ids, mkey, 0), zem_ok);
  }
  void finish() { ASSERT_EQ(zem_spx_finish(*spx, xblk), zem_ok); }
  void write(std::span<const data_posting> postings) {
    start_file();
    for (const data_posting &posting : postings)
      insert(posting.term, posting.id);
    finish();
  }

  // Forgets everything and loads the file anew.
  zem_status reopen() {
    const std::string name = spx->file.name;
    spx = std::make_unique<zem_spx>();
    spx->file.name = name;
    mkey = {};
    log.clear();
    if (zem_status st = zem_spx_open(*spx, zem_file_mode::existing); st < 0) return st;
    const zem_status st = zem_spx_load(*spx, mkey, err);
    EXPECT_TRUE(zem_xtree_valid(spx->tree));
    return st;
  }

  // All postings in the order of a walk; `walked` is how it ended.
  std::vector<data_posting> postings() {
    std::vector<data_posting> found;
    zem_xiter it;
    walked = zem_spx_iterd_first(*spx, it);
    while (walked >= 0 && zem_xiter_stands(it)) {
      found.push_back({it.term, it.doc});
      walked = zem_spx_iterd_next(*spx, it);
    }
    return found;
  }

  std::vector<std::byte> read_block(std::uint32_t blk_no) {
    std::vector<std::byte> block(zem_block_size);
    EXPECT_EQ(zem_file_read(spx->file, std::uint64_t{blk_no} * zem_block_size, block), zem_ok);
    return block;
  }
  void write_block(std::uint32_t blk_no, std::span<const std::byte> block) {
    ASSERT_EQ(zem_file_write(spx->file, std::uint64_t{blk_no} * zem_block_size, block), zem_ok);
  }
  // Changes a block and gives it the checksum of its new bytes.
  void forge(std::uint32_t blk_no, const std::function<void(std::byte *)> &change) {
    std::vector<std::byte> block = read_block(blk_no);
    change(block.data());
    zem_stream_set_dword(block.data(), zem_stream_crc32(std::span(block).subspan(4)));
    write_block(blk_no, block);
  }
  // Changes a block and leaves its checksum behind.
  void corrupt(std::uint32_t blk_no, std::size_t at = 100) {
    std::vector<std::byte> block = read_block(blk_no);
    block[at] ^= std::byte{0x10};
    write_block(blk_no, block);
  }
  void erase(std::uint32_t blk_no) { write_block(blk_no, std::vector<std::byte>(zem_block_size)); }

  temp_dir directory;
  std::vector<std::string> log;  // error lines since the last reopen
  zem_err *err = zem_err_new(
      [](void *lines, int, const char *line) {
        static_cast<std::vector<std::string> *>(lines)->emplace_back(line);
      },
      &log);
  std::unique_ptr<zem_spx> spx = std::make_unique<zem_spx>();
  zem_xblk xblk;
  zem_mkey mkey;
  zem_status walked = zem_ok;
};
