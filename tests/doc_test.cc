#include "src/doc.h"

#include <array>
#include <cstdint>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "base/stream.h"
#include "base/var.h"

namespace {

constexpr zem_term cat{5, 0, 0};
constexpr zem_term dog{6, 0, 0};

using posting = std::tuple<zem_term, std::uint64_t, std::uint32_t>;  // term, id, flag

// What the host sees of a batch, by the host's own functions.
std::vector<posting> postings_of(const zem_doc &doc) {
  std::vector<posting> found;
  for (zem_xtree_node *node = zem_sdb_doc_iter(&doc); node != nullptr;) {
    auto &[term, id, flag] = found.emplace_back();
    node = zem_sdb_doc_next(&doc, node, &id, term.data(), &flag);
  }
  return found;
}

std::string dump(const zem_doc &doc) {
  zem_var var;
  zem_sdb_doc_dumps(&doc, &var);
  EXPECT_EQ(var.text.value_or("").size(), zem_doc_length(doc));
  return var.text.value_or("");
}

void load(zem_doc &doc, std::string_view stream) {
  zem_var var;
  zem_var_set_string(&var, -1, stream.data(), static_cast<std::int64_t>(stream.size()));
  zem_sdb_doc_loads(&doc, &var);
  EXPECT_TRUE(zem_xtree_valid(doc.tree));
}

// Pieces of a stream, for streams that no writer makes.
std::string number(std::uint64_t value) {
  std::array<std::byte, zem_stream_deflate_lword_max> piece{};
  const std::size_t length = zem_stream_deflate_lword(piece.data(), value);
  return {reinterpret_cast<const char *>(piece.data()), length};
}
std::string group(const zem_term &term, int promised) {  // of words below 256
  std::string piece(14, '\0');
  for (std::size_t word = 0; word < 3; ++word)
    piece[4 * word] = static_cast<char>(term[word]);
  piece[12] = static_cast<char>(promised);
  piece[13] = static_cast<char>(promised >> 8);
  return piece;
}
std::string item(char id, int op) { return id + std::string(7, '\0') + static_cast<char>(op); }

TEST(DocTest, StreamFormByteByByte) {
  zem_doc doc;
  EXPECT_EQ(dump(doc), std::string(2, '\0'));
  zem_doc_load_term(doc, 7, cat, 1);
  zem_doc_load_term(doc, 0x0807060504030209, cat, 0);
  zem_doc_load_term(doc, 1, {0xfffefdfc, 0, 0x11223344}, 9);
  doc.count = 300;
  // clang-format off
  constexpr std::array<std::uint8_t, 58> bytes{
      0xac, 0x02,                                            // count 300
      3,                                                     // total
      5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0,              // cat, two postings
      0x09, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0xff,  // a delete
      7, 0, 0, 0, 0, 0, 0, 0, 0x00,                          // an insert
      0xfc, 0xfd, 0xfe, 0xff, 0, 0, 0, 0, 0x44, 0x33, 0x22, 0x11, 1, 0,
      1, 0, 0, 0, 0, 0, 0, 0, 0x00};
  // clang-format on
  EXPECT_EQ(dump(doc), std::string(bytes.begin(), bytes.end()));
}

// Random batches, with terms and ids from small ranges so that runs, duplicates and ids of all ones
// occur, against a map that keeps the first flag.
TEST(DocTest, RandomBatchesSurviveTheStream) {
  std::mt19937_64 random(42);
  for (std::size_t size : {1U, 31U, 32U, 1000U, 40000U}) {
    zem_doc source;
    std::map<std::pair<zem_term, std::uint64_t>, std::uint32_t> expected;  // by term, then ~id
    for (std::size_t i = 0; i < size; ++i) {
      const zem_term term{static_cast<std::uint32_t>(random() % 9), 0,
                          static_cast<std::uint32_t>(random() % 9)};
      const std::uint64_t id = 0 - random() % 2000;
      const auto flag = static_cast<std::uint32_t>(random() % 2);
      const bool added = zem_doc_load_term(source, id, term, flag);
      EXPECT_EQ(added, expected.try_emplace({term, ~id}, flag).second);
    }
    source.count = static_cast<std::uint32_t>(size);
    std::vector<posting> wanted;
    for (const auto &[key, flag] : expected)
      wanted.emplace_back(key.first, ~key.second, flag);
    zem_doc copy;
    load(copy, dump(source));
    EXPECT_TRUE(postings_of(source) == wanted);
    EXPECT_TRUE(postings_of(copy) == wanted);
    EXPECT_EQ(copy.count, size);
  }
}

TEST(DocTest, TermWithMorePostingsThanAGroupCountsTakesSeveral) {
  for (const auto &[size, groups] : {std::pair{65535U, 1U}, {65536U, 2U}, {131071U, 3U}}) {
    zem_doc source;
    for (std::uint64_t id = 1; id <= size; ++id)
      zem_doc_load_term(source, id, cat, 1);
    EXPECT_EQ(dump(source).size(), 1 + number(size).size() + groups * 14 + size * 9);
    zem_doc copy;
    load(copy, dump(source));
    EXPECT_TRUE(postings_of(copy) == postings_of(source)) << size;
  }
}

TEST(DocTest, StreamCutAnywhereGivesThePostingsBeforeTheCut) {
  const std::string stream = number(300) + number(3) + group(cat, 2) + item(9, 0xff) +
                             item(7, 0x00) + group(dog, 1) + item(1, 0x00);
  for (std::size_t length = 0; length <= stream.size(); ++length) {
    zem_doc cut;
    cut.count = 8;
    load(cut, stream.substr(0, length));
    const std::size_t whole = 0U + (length >= 26) + (length >= 35) + (length >= 58);
    EXPECT_EQ(postings_of(cut).size(), whole) << length;
    EXPECT_EQ(cut.count, length < 3 ? 8U : 300U) << length;
  }
}

TEST(DocTest, OddStreamsAreTakenAsFarAsTheyGo) {
  const std::string endless(11, '\x81');
  const auto of_cat = [](std::uint64_t total, std::uint16_t promised) {
    return number(1) + number(total) + group(cat, promised) + item(7, 0);
  };
  // Streams, and what a batch of count 8 takes from them.
  const std::vector<std::tuple<std::string, std::uint32_t, std::vector<posting>>> cases = {
      {endless + number(1), 8, {}},
      {number(1) + endless, 8, {}},
      {number(0x500000007) + number(0), 7, {}},
      {of_cat(~0U, 1), 1, {{cat, 7, 1}}},
      {of_cat(1, 65535), 1, {{cat, 7, 1}}},
      {of_cat(1, 2) + item(6, 0) + group(dog, 1) + item(1, 0), 1, {{cat, 7, 1}, {cat, 6, 1}}},
      {number(1) + number(1) + group(cat, 0) + group(dog, 1) + item(1, 0), 1, {{dog, 1, 1}}},
      {number(1) + number(3) + group(dog, 1) + item(1, 0) + group(cat, 1) + item(2, 0) +
           group(dog, 1) + item(1, 255),
       1,
       {{cat, 2, 1}, {dog, 1, 1}}},
      {of_cat(2, 3) + item(6, 0x7f) + item(5, 0x80), 1, {{cat, 7, 1}, {cat, 6, 1}, {cat, 5, 0}}},
  };
  for (const auto &[stream, count, postings] : cases) {
    zem_doc target;
    target.count = 8;
    load(target, stream);
    EXPECT_EQ(postings_of(target), postings);
    EXPECT_EQ(target.count, count);
  }
}

}  // namespace
