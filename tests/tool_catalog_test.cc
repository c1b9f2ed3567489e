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

class CatalogTest : public ::testing::Test {
 protected:
  std::string bytes() const {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  void replace(const std::string &content) const {
    std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
  }
  static void expect_fine(const tool_problem &problem) { EXPECT_EQ(problem.sentence, ""); }
  void open(bool writable) {
    catalog = std::make_unique<tool_catalog>();
    expect_fine(tool_catalog_open(*catalog, dir.path(), writable));
  }
  // Enters `count` documents of a file and gives their ids.
  std::vector<std::uint64_t> add_documents(std::uint64_t count) {
    std::vector<std::uint64_t> ids(count);
    for (std::uint64_t i = 0; i < count; ++i)
      expect_fine(tool_catalog_add(
          *catalog,
          {.offset = 100 * i, .hash = ~i, .length = 50, .line = static_cast<std::uint32_t>(i + 1)},
          ids[i]));
    return ids;
  }
  std::vector<std::uint64_t> add_source(const std::string &path, std::uint64_t count) {
    std::vector<std::uint64_t> ids = add_documents(count);
    tool_source source;
    source.path = path;
    source.hash = {.low = count, .high = 2};
    source.unit = tool_unit::line;
    expect_fine(tool_catalog_end_source(*catalog, source));
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
    EXPECT_EQ(document.hash, ~std::uint64_t{document.line - 1});
    return source->path + ":" + std::to_string(document.line);
  }

  temp_dir dir;
  const std::string file = dir.path(tool_catalog_name);
  std::unique_ptr<tool_catalog> catalog;
};

TEST_F(CatalogTest, IdsLeadBackToTheirDocumentsUntilTheirFileChanges) {
  open(true);
  const auto first = add_source("/a", 3);
  const auto second = add_source("/b", 10'000);  // several records
  commit();
  finish();
  open(true);
  for (const std::size_t i : {0U, 4096U, 9999U})
    EXPECT_EQ(find(second[i]), "/b:" + std::to_string(i + 1));
  EXPECT_EQ(tool_catalog_source(*catalog, "/b")->hash, (tool_hash{.low = 10'000, .high = 2}));
  const auto dropped = add_documents(3);
  tool_catalog_drop_source(*catalog);
  const auto after = add_source("/a", 1);
  EXPECT_EQ(find(first[0]), "/a:1");  // until the new state counts
  commit();
  EXPECT_EQ(find(first[0]) + find(first[2]) + find(dropped[0]) + find(0), "");
  EXPECT_EQ(find(after[0]) + find(second[0]), "/a:1/b:1");
}

// Cuts the file at every length that a crash can leave.
TEST_F(CatalogTest, AnyTornTailKeepsWhatWasCommittedAndRepeatsNoId) {
  open(true);
  const auto kept = add_source("/kept", 2);
  commit();
  finish();
  const std::size_t safe = bytes().size();
  open(true);
  const auto torn = add_documents(1);
  // The first id is handed out only when its reserve record is on disk.
  const std::size_t reserved = bytes().size();
  add_source("/torn", 1);
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
    EXPECT_EQ(find(next[0]) + find(kept[0]), "/next:1/kept:1");
  }
}

TEST_F(CatalogTest, DamagedBytesNeverGiveAWrongDocumentAndForeignOnesAreRefused) {
  open(true);
  add_source("/a", 20);
  commit();
  add_source("/a b", 20);
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
    for (std::uint64_t id = 1; id <= 40; ++id)
      EXPECT_THAT(find(id), ::testing::AnyOf("", (id <= 20 ? "/a:" : "/a b:") +
                                                     std::to_string((id - 1) % 20 + 1)));
    EXPECT_GT(catalog->torn_bytes, 0U);
  }
  replace("something else entirely");
  EXPECT_THAT(tool_catalog_open(*catalog, dir.path(), true).sentence,
              ::testing::HasSubstr("is not a catalogue"));
  EXPECT_EQ(bytes(), "something else entirely");
}

}  // namespace
