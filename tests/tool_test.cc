// The program `sdb` from its arguments to what it prints, on real files.
#include <algorithm>
#include <array>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <cwctype>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "include/zem_sdb.h"
#include "tests/support/temp_dir.h"
#include "tests/support/tool_host.h"
#include "tools/catalog.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using words = tool_host::words;

class ToolTest : public ::testing::Test, protected tool_host {
 protected:
  end index(const std::string &path) { return sdb({"index", root, "notes", path}); }
  end search(const std::string &word) { return sdb({"search", root, "notes", word}); }
  std::string write(const std::string &name, const std::string &text) const {
    const fs::path path = fs::path(texts) / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    return fs::canonical(path).string();
  }
  void SetUp() override { ASSERT_EQ(sdb({"create", root, "notes"}), done) << err; }

  temp_dir dir;
  const std::string root = dir.path("db");
  const std::string texts = dir.path("texts");
};

TEST_F(ToolTest, TablesAreCreatedListedAndDroppedAndMistakesNamed) {
  EXPECT_EQ(sdb({"create", root, "two"}), done);
  EXPECT_EQ(sdb({"create", root, "one"}), done);
  EXPECT_EQ(sdb({"drop", root, "two"}), done);
  fs::create_directory(root + "/photos");  // no table
  EXPECT_EQ(sdb({"list", root}), done);
  EXPECT_EQ(out, "notes\none\n");
  zem_sdb *other = zem_sdb_new(root.c_str(), nullptr);
  ASSERT_NE(zem_sdb_table_open(other, "notes"), 0U);
  const std::vector<std::tuple<end, words, std::string>> cases{
      {failed, {"list", texts}, "sdb create " + texts + " TABLE"},
      {failed, {"create", root, "one"}, "table one exists already"},
      {failed, {"create", root, "a/b"}, "without slashes"},
      {failed, {"drop", root, "two"}, "there is no table two"},
      {failed, {"drop", root, "photos"}, "photos"},
      {failed, {"search", root, "other", "word"}, "sdb create " + root + " other"},
      {failed, {"search", root, "notes", "word"}, "table notes is open in another process"},
      {failed, {"drop", root, "notes"}, "Wait until that ends"},
      {failed, {"index", root, "one", texts + "/nowhere"}, "No such file"},
      {usage, {}, ""},
      {usage, {"fly"}, ""},
      {usage, {"search", root, "notes", "--limit", "many", "word"}, "many"},
      {usage, {"search", root, "notes", "..."}, ""},
      {usage, {"list", root, "--loud"}, "loud"}};
  for (const auto &[code, arguments, why] : cases) {
    EXPECT_EQ(sdb(arguments), code) << ::testing::PrintToString(arguments);
    EXPECT_THAT(err, HasSubstr(why));
    EXPECT_NE(err, "");
  }
  zem_sdb_free(other);
  EXPECT_TRUE(fs::is_empty(root + "/photos"));
}

TEST_F(ToolTest, SearchFindsParagraphsThatHoldAllWordsOrAnyBestFirst) {
  const std::string path = write("a.txt",
                                 "The cat sat.\nOn a mat.\n\nA dog, a \x1b[31mlog.\n\n"
                                 "Cat and dog:\n  friends\n");
  ASSERT_EQ(index(path), done) << err;
  EXPECT_THAT(out, HasSubstr("indexed 1 files: 3 documents"));
  const std::string first = path + ":1:\n    The cat sat.\n    On a mat.\n";
  const std::string second = path + ":4:\n    A dog, a ?[31mlog.\n";
  const std::string third = path + ":6:\n    Cat and dog:\n      friends\n";
  const std::vector<std::pair<words, std::string>> cases{
      {{"CAT"}, first + third},
      {{"dog", "cat"}, third},
      {{"cat", "log"}, ""},
      {{"--any", "cat", "dog", "green"}, third + first + second},
      {{"--any", "--limit", "1", "cat", "dog"}, third}};
  for (const auto &[asked, found] : cases) {
    words arguments{"search", root, "notes"};
    arguments.insert(arguments.end(), asked.begin(), asked.end());
    EXPECT_EQ(sdb(arguments), found.empty() ? nothing : done);
    EXPECT_EQ(out, found);
  }
  EXPECT_THAT(err, HasSubstr("1 of 3 documents"));
}

TEST_F(ToolTest, DirectoriesAreWalkedWithoutLinksBinariesAndTheDatabaseItself) {
  const std::string deep = write("deep/er/a.txt", "needle here\nhay\nneedle\n");
  const std::string flat = write("b.txt", "needle there");
  write("binary", std::string("needle\0x", 8));
  fs::create_symlink(texts, texts + "/deep/loop");
  fs::create_symlink(texts + "/b.txt", texts + "/link.txt");
  ASSERT_EQ(sdb({"index", "--lines", root, "notes", dir.path()}), done) << err;
  EXPECT_THAT(out, HasSubstr("indexed 2 files: 4 documents"));
  EXPECT_THAT(out, HasSubstr("1 files are no text"));
  // One file, given in several ways, is one file.
  EXPECT_EQ(sdb({"index", "--lines", root, "notes", texts + "/link.txt", texts}), done);
  EXPECT_THAT(out, HasSubstr("2 files were indexed before, unchanged"));
  EXPECT_EQ(search("needle"), done);
  EXPECT_THAT(out, HasSubstr(deep + ":3: needle\n"));
  EXPECT_THAT(out, HasSubstr(flat + ":1: needle there\n"));
}

TEST_F(ToolTest, TextThatChangedIsNotedUntilItIsIndexedAgain) {
  const std::string changed = write("a.txt", "first cat\n\nsecond cat\n");
  const std::string gone = write("b.txt", "third cat\n");
  ASSERT_EQ(index(texts), done);
  write("a.txt", "first cat\n\nSECOND bat\n");
  const std::string fresh = write("c.txt", "fourth cat\n");
  fs::remove(gone);
  EXPECT_EQ(search("cat"), done);
  EXPECT_EQ(out, changed + ":1:\n    first cat\n" + changed +
                     ":3: (file has changed since it was indexed; index it again)\n" + gone +
                     ":1: (file is gone)\n");
  ASSERT_EQ(index(texts), done) << err;
  EXPECT_THAT(out, HasSubstr("indexed 2 files: 3 documents"));
  EXPECT_EQ(sdb({"search", root, "notes", "cat", "second"}), nothing);
  EXPECT_EQ(search("bat"), done);
  ASSERT_EQ(sdb({"stat", root, "notes", "--json"}), done) << err;
  const nlohmann::json stat = nlohmann::json::parse(out);
  EXPECT_EQ(stat["files"], 3);
  EXPECT_EQ(stat["documents"], 4);
  EXPECT_EQ(stat["postings"], 12);  // the retired ones included
  EXPECT_EQ(stat["shards"][0]["log_terms"], 6);
}

// A run that was stopped, and one that died after the table took its postings but before the
// catalogue's last record: the next does the rest, and each document is found once.
TEST_F(ToolTest, RunThatWasCutOffIsRepeatedWithoutDoubles) {
  const std::string path = write("a.txt", "cat one\n\ncat two\n");
  stop = true;
  EXPECT_EQ(index(texts), failed);
  EXPECT_THAT(err, HasSubstr("the same command does the rest"));
  stop = false;
  EXPECT_EQ(search("cat"), nothing);
  ASSERT_EQ(index(path), done);
  const std::string catalog = root + "/notes/" + tool_catalog_name;
  fs::resize_file(catalog, fs::file_size(catalog) - 20);
  ASSERT_EQ(index(path), done);
  EXPECT_THAT(err, HasSubstr("indexed again"));
  EXPECT_EQ(search("cat"), done);
  EXPECT_EQ(out, path + ":1:\n    cat one\n" + path + ":3:\n    cat two\n");
}

// ---- against a plain scan

// A second opinion on what words are: the C library's, one wide character at a time.
std::set<std::string> scanned_words(const std::string &text) {
  std::set<std::string> found;
  std::string word;
  std::array<char, MB_LEN_MAX> bytes{};
  for (std::size_t at = 0; at < text.size();) {
    wchar_t c = 0;
    const int length = std::mbtowc(&c, text.data() + at, text.size() - at);
    at += length > 0 ? static_cast<std::size_t>(length) : 1;
    const auto wide = static_cast<std::wint_t>(c);
    if (length > 0 && std::iswalnum(wide) != 0) {
      const int count = std::wctomb(bytes.data(), static_cast<wchar_t>(std::towlower(wide)));
      word.append(bytes.data(), static_cast<std::size_t>(count));
    } else {
      found.insert(std::exchange(word, ""));
    }
  }
  found.insert(word);
  found.erase("");
  return found;
}

// Every word of the paragraphs of a file, with the "path:line:" of each paragraph that holds it.
void scan(const std::string &path, std::map<std::string, std::set<std::string>> &places) {
  std::ifstream in(path, std::ios::binary);
  std::string paragraph, place, line;
  for (int number = 1; in; ++number) {
    const bool more = bool{std::getline(in, line)};
    if (more && line.find_first_not_of(" \t\r\f\v") != std::string::npos) {
      if (paragraph.empty()) place = path + ":" + std::to_string(number) + ":";
      paragraph += line + "\n";
      continue;
    }
    for (const std::string &word : scanned_words(std::exchange(paragraph, "")))
      places[word].insert(place);
  }
}

TEST_F(ToolTest, TwoHundredWordsAreFoundWhereAPlainScanFindsThem) {
  ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  // Texts that any Debian system holds, and one that is always there.
  words arguments{"index", root, "notes",
                  write("mixed.txt",
                        "Die Größe über allem\n\nПривет, мир! 42 cats\n\nnaïve café\n"
                        "\t\nthe the THE\n")};
  std::error_code error;
  for (const auto &entry : fs::directory_iterator("/usr/share/common-licenses", error)) {
    if (entry.is_regular_file() && !entry.is_symlink()) arguments.push_back(entry.path());
  }
  std::map<std::string, std::set<std::string>> places;
  for (std::size_t i = 3; i < arguments.size(); ++i)
    scan(arguments[i], places);
  ASSERT_EQ(sdb(arguments), done) << err;

  words all, asked{"the", "größe", "привет", "42"};
  for (const auto &[word, where] : places)
    all.push_back(word);
  std::sample(all.begin(), all.end(), std::back_inserter(asked), 200, std::mt19937(200));
  for (const std::string &word : asked) {
    search(word);
    std::set<std::string> found;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("/")) found.insert(line);
    }
    EXPECT_EQ(found, places[word]) << word;
  }
}

}  // namespace
