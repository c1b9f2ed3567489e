// The catalogue of the program `sdb`: what a run that was cut off anywhere leaves behind.
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <random>
#include <string>

#include "tests/support/temp_dir.h"
#include "tools/catalog.h"

namespace {

using ::testing::Each;
using ::testing::Gt;

class CatalogTest : public ::testing::Test {
 protected:
  std::string file() const { return dir.path(tool_catalog_name); }

  std::string bytes() const {
    std::ifstream in(file(), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }

  void replace(const std::string &content) const {
    std::ofstream(file(), std::ios::binary | std::ios::trunc) << content;
  }

  void open(bool writable) {
    catalog = std::make_unique<tool_catalog>();
    const tool_problem problem = tool_catalog_open(*catalog, dir.path(), writable);
    ASSERT_EQ(problem.sentence, "");
  }

  static void expect_fine(const tool_problem &problem) { EXPECT_EQ(problem.sentence, ""); }

  // Enters `count` documents of a file and gives their ids.
  std::vector<std::uint64_t> add_documents(std::uint64_t count) {
    std::vector<std::uint64_t> ids(count);
    for (std::uint64_t i = 0; i < count; ++i) {
      const tool_document document{
          .offset = 100 * i, .hash = ~i, .length = 50, .line = static_cast<std::uint32_t>(i + 1)};
      expect_fine(tool_catalog_add(*catalog, document, ids[i]));
    }
    return ids;
  }

  void end_source(const std::string &path, std::uint64_t hash = 1) {
    tool_source source;
    source.path = path;
    source.hash = {.low = hash, .high = 2};
    source.unit = tool_unit::line;
    expect_fine(tool_catalog_end_source(*catalog, source));
  }

  std::vector<std::uint64_t> add_source(const std::string &path, std::uint64_t count,
                                        std::uint64_t hash = 1) {
    std::vector<std::uint64_t> ids = add_documents(count);
    end_source(path, hash);
    return ids;
  }

  void commit() { expect_fine(tool_catalog_commit(*catalog)); }
  void finish() { expect_fine(tool_catalog_finish(*catalog)); }

  // "path:line" of the document, "" when the id is not known.
  std::string find(std::uint64_t id) const {
    const tool_source *source = nullptr;
    tool_document document;
    expect_fine(tool_catalog_find(*catalog, id, source, document));
    if (source == nullptr) return "";
    EXPECT_EQ(document.offset, 100 * (document.line - 1));
    EXPECT_EQ(document.hash, ~std::uint64_t{document.line - 1});
    return source->path + ":" + std::to_string(document.line);
  }

  temp_dir dir;
  std::unique_ptr<tool_catalog> catalog;
};

TEST_F(CatalogTest, IdsStartAtOneAndLeadBackToTheirDocuments) {
  open(true);
  const auto first = add_source("/a", 3);
  const auto second = add_source("/b", 10'000);  // several records
  commit();
  finish();
  EXPECT_EQ(first, (std::vector<std::uint64_t>{1, 2, 3}));

  for (const bool writable : {true, false}) {
    open(writable);
    EXPECT_EQ(find(2), "/a:2");
    EXPECT_EQ(find(second.front()), "/b:1");
    EXPECT_EQ(find(second[4096]), "/b:4097");
    EXPECT_EQ(find(second.back()), "/b:10000");
    EXPECT_EQ(find(0), "");
    EXPECT_EQ(find(second.back() + 1), "");
  }
  const tool_source *source = tool_catalog_source(*catalog, "/b");
  ASSERT_NE(source, nullptr);
  EXPECT_EQ(source->count, 10'000u);
  EXPECT_EQ(source->unit, tool_unit::line);
  EXPECT_EQ(source->hash, (tool_hash{.low = 1, .high = 2}));
  EXPECT_EQ(tool_catalog_source(*catalog, "/c"), nullptr);
}

TEST_F(CatalogTest, MissingFileReadsAsEmptyAndReadingMakesNone) {
  open(false);
  EXPECT_EQ(find(1), "");
  EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_F(CatalogTest, RunsThatEndWellUseUpNoIds) {
  open(true);
  add_source("/a", 5);
  commit();
  finish();

  open(true);
  EXPECT_EQ(add_source("/b", 1).front(), 6u);
}

TEST_F(CatalogTest, ChangedFileRetiresTheIdsOfItsEarlierState) {
  open(true);
  const auto before = add_source("/a", 2, /*hash=*/1);
  const auto other = add_source("/b", 1);
  commit();
  const auto after = add_source("/a", 1, /*hash=*/9);
  EXPECT_EQ(find(before[0]), "/a:1");  // until the new state counts
  commit();

  for (const std::uint64_t id : before)
    EXPECT_EQ(find(id), "");
  EXPECT_EQ(find(after[0]), "/a:1");
  EXPECT_EQ(find(other[0]), "/b:1");
  EXPECT_EQ(tool_catalog_source(*catalog, "/a")->hash.low, 9u);
}

TEST_F(CatalogTest, RunWithoutCommitLeavesNothingButUsedIds) {
  open(true);
  const auto lost = add_source("/a", 3);
  add_source("/empty", 0);
  catalog.reset();

  open(true);
  EXPECT_EQ(tool_catalog_source(*catalog, "/a"), nullptr);
  const auto ids = add_source("/b", 1);
  EXPECT_THAT(ids, Each(Gt(lost.back())));
  commit();

  open(false);
  EXPECT_EQ(tool_catalog_source(*catalog, "/a"), nullptr);  // also once a later run has committed
  EXPECT_EQ(find(lost[0]), "");
  EXPECT_EQ(find(ids[0]), "/b:1");
}

TEST_F(CatalogTest, DroppedSourceLeavesItsIdsBehind) {
  open(true);
  const auto dropped = add_documents(3);
  tool_catalog_drop_source(*catalog);
  const auto ids = add_source("/b", 1);
  commit();
  finish();

  open(false);
  EXPECT_EQ(find(dropped[0]), "");
  EXPECT_EQ(find(ids[0]), "/b:1");
  EXPECT_EQ(tool_catalog_source(*catalog, "/b")->count, 1u);
}

// Cuts the file at every length that a crash can leave. What was committed before stays, and ids
// that were handed out are never handed out again.
TEST_F(CatalogTest, AnyTornTailKeepsWhatWasCommittedAndRepeatsNoId) {
  open(true);
  const auto kept = add_source("/kept", 2);
  commit();
  finish();
  catalog.reset();
  const std::size_t safe = bytes().size();

  open(true);
  const auto torn = add_documents(1);
  // The first id is handed out only when its reserve record is on disk.
  const std::size_t reserved = bytes().size();
  end_source("/torn");
  commit();
  catalog.reset();
  const std::string whole = bytes();
  ASSERT_LT(safe, reserved);

  for (std::size_t length = safe; length < whole.size(); ++length) {
    SCOPED_TRACE(length);
    replace(whole.substr(0, length));
    open(true);
    EXPECT_EQ(find(kept[1]), "/kept:2");
    EXPECT_EQ(tool_catalog_source(*catalog, "/torn"), nullptr);
    const auto next = add_source("/next", 1);
    EXPECT_TRUE(length < reserved || next[0] > torn[0]);
    commit();

    open(false);
    EXPECT_EQ(catalog->torn_bytes, 0u);
    EXPECT_EQ(find(next[0]), "/next:1");
    EXPECT_EQ(find(kept[0]), "/kept:1");
  }
}

TEST_F(CatalogTest, ForeignFileIsRefusedAndLeftAlone) {
  replace("something else entirely");
  tool_catalog other;
  EXPECT_THAT(tool_catalog_open(other, dir.path(), true).sentence,
              ::testing::HasSubstr("is not a catalogue"));
  EXPECT_EQ(bytes(), "something else entirely");
}

// Damage is found by the checksums: whatever a byte turns into, opening and looking up end well,
// and every document that is still known is the right one.
TEST_F(CatalogTest, DamagedBytesNeverGiveAWrongDocument) {
  open(true);
  add_source("/a", 20);
  commit();
  add_source("/b", 20);
  commit();
  finish();
  catalog.reset();
  const std::string whole = bytes();

  std::mt19937 random(20);
  for (int i = 0; i < 500; ++i) {
    std::string damaged = whole;
    const std::size_t at = 8 + random() % (whole.size() - 8);
    damaged[at] = static_cast<char>(damaged[at] ^ static_cast<char>(1 + random() % 255));
    replace(damaged);
    SCOPED_TRACE(at);
    open(false);
    for (std::uint64_t id = 1; id <= 40; ++id) {
      const std::string right =
          id <= 20 ? "/a:" + std::to_string(id) : "/b:" + std::to_string(id - 20);
      EXPECT_THAT(find(id), ::testing::AnyOf("", right));
    }
    EXPECT_GT(catalog->torn_bytes, 0u);
  }
}

}  // namespace
