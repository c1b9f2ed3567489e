#include "src/doc.h"

#include <algorithm>
#include <cstdint>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "base/clock.h"
#include "base/stream.h"
#include "base/var.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr zem_term cat{5, 0, 0};
constexpr zem_term dog{6, 0, 0};

struct posting {
  zem_term term;
  std::uint64_t id;
  std::uint32_t flag;
  friend bool operator==(const posting &, const posting &) = default;
};

std::ostream &operator<<(std::ostream &out, const posting &p) {
  return out << p.term[0] << ',' << p.term[1] << ',' << p.term[2] << ':' << p.id << '=' << p.flag;
}

// A clock that stands still, so that a load's time is known.
constexpr std::uint32_t noon = 1'700'000'000;
const zem_clock still_clock{.time = [] { return noon; },
                            .stamp_us = [] { return std::uint64_t{0}; }};

// What the host sees of a batch, by the host's own functions.
std::vector<posting> postings_of(const zem_doc &doc) {
  std::vector<posting> found;
  zem_xtree_node *node = zem_sdb_doc_iter(&doc);
  while (node != nullptr) {
    posting at{};
    node = zem_sdb_doc_next(&doc, node, &at.id, at.term.data(), &at.flag);
    found.push_back(at);
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

std::string bytes(std::initializer_list<int> values) {
  std::string text;
  for (const int value : values)
    text.push_back(static_cast<char>(value));
  return text;
}

// Pieces of a stream, for streams that no writer makes.
std::string number(std::uint64_t value) {
  std::array<std::byte, zem_stream_deflate_lword_max> piece{};
  const std::size_t length = zem_stream_deflate_lword(piece.data(), value);
  return {reinterpret_cast<const char *>(piece.data()), length};
}
std::string group(const zem_term &term, std::uint16_t promised) {
  std::array<std::byte, 14> piece{};
  for (std::size_t word = 0; word < 3; ++word)
    zem_stream_set_dword(&piece[4 * word], term[word]);
  zem_stream_set_word(&piece[12], promised);
  return {reinterpret_cast<const char *>(piece.data()), piece.size()};
}
std::string item(std::uint64_t id, int op) {
  std::array<std::byte, 9> piece{};
  zem_stream_set_lword(piece.data(), id);
  piece[8] = static_cast<std::byte>(op);
  return {reinterpret_cast<const char *>(piece.data()), piece.size()};
}

class DocTest : public testing::Test {
 protected:
  DocTest() { zem_clock_use(&still_clock); }
  ~DocTest() override { zem_clock_use(nullptr); }

  zem_doc doc;
};

TEST_F(DocTest, FirstChangeOfAPostingStays) {
  zem_doc_load(doc, 10, 0x0000000200000001, 3, 1);
  zem_doc_load(doc, 10, 0x0000000200000001, 3, 0);

  EXPECT_THAT(postings_of(doc), ElementsAre(posting{{1, 2, 3}, 10, 1}));
  EXPECT_EQ(doc.count, 2U);
  EXPECT_EQ(doc.time, noon);
}

TEST_F(DocTest, HostAdditionsCountNothingAndKeepTheirFlag) {
  EXPECT_EQ(zem_sdb_doc_add(&doc, 7, cat.data(), 5), 1);
  EXPECT_EQ(zem_sdb_doc_add(&doc, 7, cat.data(), 0), 0);

  EXPECT_THAT(postings_of(doc), ElementsAre(posting{cat, 7, 5}));
  EXPECT_EQ(doc.count, 0U);
  EXPECT_EQ(doc.time, 0U);
}

TEST_F(DocTest, ReturnedPostingOverrulesOneAddedMeanwhile) {
  zem_doc_load_term(doc, 7, cat, 0);

  zem_doc_restore_term(doc, 7, cat, 1);
  zem_doc_restore_term(doc, 8, cat, 0);

  EXPECT_THAT(postings_of(doc), ElementsAre(posting{cat, 8, 0}, posting{cat, 7, 1}));
}

TEST_F(DocTest, ListsOfUnequalLengthAddTheirCommonPart) {
  zem_var ids;
  zem_var heads;
  zem_var thirds;
  ids.values = {1, 2, 3};
  heads.values = {5, 6, 5};
  thirds.values = {0, 0};

  zem_doc_loads(doc, ids, heads, thirds, 1);

  EXPECT_THAT(postings_of(doc), ElementsAre(posting{cat, 1, 1}, posting{dog, 2, 1}));
  EXPECT_EQ(doc.count, 2U);

  thirds.values.clear();
  zem_doc fresh;
  zem_doc_loads(fresh, ids, heads, thirds, 1);
  EXPECT_EQ(fresh.time, 0U);
}

TEST_F(DocTest, UpdateAddsPostingsAndCounts) {
  zem_doc_load(doc, 7, 5, 0, 1);
  zem_doc from;
  zem_doc_load_term(from, 7, cat, 0);
  zem_doc_load_term(from, 7, dog, 0);
  from.count = 40;

  zem_doc_update(doc, from);

  EXPECT_THAT(postings_of(doc), ElementsAre(posting{cat, 7, 1}, posting{dog, 7, 0}));
  EXPECT_EQ(doc.count, 41U);
  EXPECT_EQ(doc.time, noon);
  EXPECT_THAT(postings_of(from), SizeIs(2));
}

TEST_F(DocTest, SwappedAndClearedBatchesGoOnGrowing) {
  zem_doc_load(doc, 7, 5, 0, 1);
  zem_doc_load(doc, 7, 5, 0, 1);
  {
    zem_doc other;
    zem_doc_load_term(other, 9, dog, 0);
    zem_doc_swap(doc, other);
    EXPECT_THAT(postings_of(other), ElementsAre(posting{cat, 7, 1}));
    EXPECT_EQ(other.count, 2U);
    EXPECT_EQ(doc.count, 0U);
    zem_doc_load_term(doc, 9, dog, 0);
    zem_doc_clear(other);
    EXPECT_EQ(zem_xtree_msize(other.tree), 0U);
    zem_doc_load_term(other, 1, cat, 1);
    EXPECT_THAT(postings_of(other), ElementsAre(posting{cat, 1, 1}));
  }
  zem_doc_load_term(doc, 8, dog, 1);

  EXPECT_THAT(postings_of(doc), ElementsAre(posting{dog, 9, 0}, posting{dog, 8, 1}));
  EXPECT_TRUE(zem_xtree_valid(doc.tree));
}

TEST_F(DocTest, StreamFormByteByByte) {
  zem_doc_load_term(doc, 7, cat, 1);
  zem_doc_load_term(doc, 0x0807060504030209, cat, 0);
  zem_doc_load_term(doc, 1, {0xfffefdfc, 0, 0x11223344}, 9);
  doc.count = 300;

  // clang-format off
  EXPECT_EQ(dump(doc), bytes({
      0xac, 0x02,                                            // count 300
      3,                                                     // total
      5, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0,              // cat, two postings
      0x09, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0xff,  // a delete
      7, 0, 0, 0, 0, 0, 0, 0, 0x00,                          // an insert
      0xfc, 0xfd, 0xfe, 0xff, 0, 0, 0, 0, 0x44, 0x33, 0x22, 0x11, 1, 0,
      1, 0, 0, 0, 0, 0, 0, 0, 0x00}));
  // clang-format on
}

TEST_F(DocTest, EmptyBatchIsTwoZeros) {
  const std::string stream = dump(doc);
  EXPECT_EQ(stream, bytes({0, 0}));

  doc.count = 8;
  load(doc, stream);
  EXPECT_EQ(doc.count, 0U);
  EXPECT_THAT(postings_of(doc), IsEmpty());
}

TEST_F(DocTest, ZeroTermOpensAGroup) {
  zem_doc_load_term(doc, 3, {}, 1);
  EXPECT_EQ(dump(doc), number(0) + number(1) + group({}, 1) + item(3, 0x00));
}

TEST_F(DocTest, LoadingIntoAFilledBatchMerges) {
  zem_doc_load(doc, 7, 5, 0, 0);
  doc.time = 4;

  load(doc, number(50) + number(2) + group(cat, 2) + item(7, 0x00) + item(6, 0x00));

  EXPECT_THAT(postings_of(doc), ElementsAre(posting{cat, 7, 0}, posting{cat, 6, 1}));
  EXPECT_EQ(doc.count, 50U);
  EXPECT_EQ(doc.time, 4U);
}

// Random batches, with terms and ids from small ranges so that runs, duplicates and ids of all ones
// occur, against a map that keeps the first flag.
TEST_F(DocTest, RandomBatchesSurviveTheStream) {
  constexpr std::uint64_t seed = 42;
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937_64 random(seed);
  for (std::size_t size : {1U, 31U, 32U, 1000U, 40000U}) {
    zem_doc source;
    std::map<std::tuple<zem_term, std::uint64_t>, std::uint32_t> expected;  // by term, then ~id
    for (std::size_t i = 0; i < size; ++i) {
      const zem_term term{static_cast<std::uint32_t>(random() % 9), 0,
                          static_cast<std::uint32_t>(random() % 9)};
      const std::uint64_t id = 0 - random() % 2000;
      const auto flag = static_cast<std::uint32_t>(random() % 2);
      const bool added = zem_doc_load_term(source, id, term, flag);
      EXPECT_EQ(added, expected.try_emplace({term, ~id}, flag).second);
    }
    source.count = static_cast<std::uint32_t>(size);

    zem_doc copy;
    load(copy, dump(source));

    std::vector<posting> wanted;
    for (const auto &[key, flag] : expected)
      wanted.push_back({std::get<0>(key), ~std::get<1>(key), flag});
    EXPECT_TRUE(postings_of(source) == wanted);
    EXPECT_TRUE(postings_of(copy) == wanted);
    EXPECT_EQ(copy.count, size);
    EXPECT_EQ(copy.time, 0U);
  }
}

TEST_F(DocTest, TermWithMorePostingsThanAGroupCountsTakesSeveral) {
  for (const auto &[size, groups] : {std::pair{65535U, 1U}, {65536U, 2U}, {131071U, 3U}}) {
    zem_doc source;
    for (std::uint64_t id = 1; id <= size; ++id)
      zem_doc_load_term(source, id, cat, 1);
    zem_doc_load_term(source, 1, dog, 1);

    const std::string stream = dump(source);
    EXPECT_EQ(stream.size(), 1 + number(size + 1).size() + (groups + 1) * 14 + (size + 1) * 9);
    zem_doc copy;
    load(copy, stream);
    EXPECT_TRUE(postings_of(copy) == postings_of(source)) << size;
  }
}

TEST_F(DocTest, StreamCutAnywhereGivesThePostingsBeforeTheCut) {
  const std::string stream = number(300) + number(3) + group(cat, 2) + item(9, 0xff) +
                             item(7, 0x00) + group(dog, 1) + item(1, 0x00);
  const std::array<std::size_t, 3> ends{3 + 14 + 9, 3 + 14 + 18, 3 + 14 + 18 + 14 + 9};
  for (std::size_t length = 0; length <= stream.size(); ++length) {
    zem_doc cut;
    cut.count = 8;
    load(cut, stream.substr(0, length));

    const auto whole =
        std::count_if(ends.begin(), ends.end(), [&](std::size_t end) { return end <= length; });
    EXPECT_THAT(postings_of(cut), SizeIs(static_cast<std::size_t>(whole))) << length;
    EXPECT_EQ(cut.count, length < 3 ? 8U : 300U) << length;
  }
}

struct odd_stream {
  const char *what;
  std::string stream;
  std::uint32_t count;  // of a batch that held 8 before
  std::vector<posting> postings;
};

TEST_F(DocTest, OddStreamsAreTakenAsFarAsTheyGo) {
  const std::string endless(11, '\x81');
  const std::uint64_t huge = ~std::uint64_t{0};
  const std::vector<odd_stream> cases = {
      {"number too long", endless + number(1), 8, {}},
      {"second number too long", number(1) + endless, 8, {}},
      {"count above 32 bits", number(0x500000007) + number(0), 7, {}},
      {"total promises too much",
       number(1) + number(huge) + group(cat, 1) + item(7, 0),
       1,
       {{cat, 7, 1}}},
      {"group promises too much",
       number(1) + number(1) + group(cat, 65535) + item(7, 0),
       1,
       {{cat, 7, 1}}},
      {"postings past the total's group",
       number(1) + number(1) + group(cat, 2) + item(7, 0) + item(6, 0) + group(dog, 1) + item(1, 0),
       1,
       {{cat, 7, 1}, {cat, 6, 1}}},
      {"empty groups, then one",
       number(1) + number(1) + group(cat, 0) + group(cat, 0) + group(dog, 1) + item(1, 0),
       1,
       {{dog, 1, 1}}},
      {"groups out of order, terms repeated",
       number(1) + number(3) + group(dog, 1) + item(1, 0) + group(cat, 1) + item(2, 0) +
           group(dog, 1) + item(1, 255),
       1,
       {{cat, 2, 1}, {dog, 1, 1}}},
      {"other ops",
       number(1) + number(2) + group(cat, 2) + item(7, 0x7f) + item(6, 0x80),
       1,
       {{cat, 7, 1}, {cat, 6, 0}}},
  };
  for (const odd_stream &odd : cases) {
    zem_doc target;
    target.count = 8;
    load(target, odd.stream);
    EXPECT_EQ(postings_of(target), odd.postings) << odd.what;
    EXPECT_EQ(target.count, odd.count) << odd.what;
  }
}

TEST(DocHostTest, NullArgumentsAreAnswered) {
  const std::unique_ptr<zem_doc, decltype(&zem_sdb_doc_free)> doc(zem_sdb_doc_new(),
                                                                  zem_sdb_doc_free);
  zem_var var;
  EXPECT_EQ(zem_sdb_doc_add(nullptr, 1, cat.data(), 1), 0);
  EXPECT_EQ(zem_sdb_doc_add(doc.get(), 1, nullptr, 1), 0);
  EXPECT_EQ(zem_sdb_doc_iter(nullptr), nullptr);
  EXPECT_EQ(zem_sdb_doc_iter(doc.get()), nullptr);
  EXPECT_EQ(zem_sdb_doc_next(doc.get(), nullptr, nullptr, nullptr, nullptr), nullptr);
  EXPECT_EQ(zem_sdb_doc_get_val(nullptr, 1), 0U);
  zem_sdb_doc_set_val(nullptr, 1, 1);
  zem_sdb_doc_clear(nullptr);
  zem_sdb_doc_dumps(nullptr, &var);
  zem_sdb_doc_dumps(doc.get(), nullptr);
  zem_sdb_doc_loads(nullptr, &var);
  zem_sdb_doc_loads(doc.get(), nullptr);
  zem_sdb_doc_loads(doc.get(), &var);  // a list that never had a text
  zem_sdb_doc_free(nullptr);
  EXPECT_FALSE(var.text);

  ASSERT_EQ(zem_sdb_doc_add(doc.get(), 1, cat.data(), 1), 1);
  zem_xtree_node *only = zem_sdb_doc_iter(doc.get());
  EXPECT_EQ(zem_sdb_doc_next(nullptr, only, nullptr, nullptr, nullptr), nullptr);
}

TEST(DocHostTest, NumbersOneAndTwoAreCountAndTime) {
  zem_doc doc;
  zem_sdb_doc_set_val(&doc, 1, 11);
  zem_sdb_doc_set_val(&doc, 2, 22);
  zem_sdb_doc_set_val(&doc, 3, 33);
  EXPECT_EQ(zem_sdb_doc_get_val(&doc, 1), 11U);
  EXPECT_EQ(zem_sdb_doc_get_val(&doc, 2), 22U);
  EXPECT_EQ(zem_sdb_doc_get_val(&doc, 3), 0U);

  zem_sdb_doc_clear(&doc);
  EXPECT_EQ(doc.count, 0U);
  EXPECT_EQ(doc.time, 0U);
}

}  // namespace
