// The program `sdb` from its arguments to what it prints, on real files.
#include "tools/tool.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <clocale>
#include <cwchar>
#include <cwctype>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "include/zem_sdb.h"
#include "tests/support/temp_dir.h"
#include "tools/catalog.h"

namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr int done = 0;
constexpr int nothing = 1;
constexpr int usage = 2;
constexpr int failed = 3;

class ToolTest : public ::testing::Test {
 protected:
  // Runs `sdb ARGUMENT...`; `out` and `err` hold what it printed.
  int sdb(const std::vector<std::string> &arguments, bool terminal = false) {
    std::vector<const char *> argv{"sdb"};
    for (const std::string &argument : arguments)
      argv.push_back(argument.c_str());
    std::ostringstream out_stream;
    std::ostringstream err_stream;
    const tool_io io{.out = out_stream, .err = err_stream, .terminal = terminal, .stop = stop};
    const int end = tool_run(static_cast<int>(argv.size()), argv.data(), io);
    out = out_stream.str();
    err = err_stream.str();
    return end;
  }

  void create() { ASSERT_EQ(sdb({"create", root, "notes"}), done) << err; }

  int index(const std::string &path) { return sdb({"index", root, "notes", path}); }

  int search(const std::string &word) { return sdb({"search", root, "notes", word}); }

  std::string write(const std::string &name, const std::string &text) const {
    const fs::path path = dir.path("texts") + "/" + name;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    return fs::canonical(path).string();
  }

  temp_dir dir;
  const std::string root = dir.path("db");
  const std::string texts = dir.path("texts");
  std::atomic<bool> stop = false;
  std::string out;
  std::string err;
};

// ---- tables ----

TEST_F(ToolTest, TablesAreCreatedListedAndDropped) {
  EXPECT_EQ(sdb({"create", root, "two"}), done);
  EXPECT_EQ(sdb({"create", root, "one"}), done);
  EXPECT_EQ(sdb({"list", root}), done);
  EXPECT_EQ(out, "one\ntwo\n");

  EXPECT_EQ(sdb({"create", root, "one"}), failed);
  EXPECT_THAT(err, HasSubstr("table one exists already"));
  EXPECT_EQ(sdb({"create", root, "a/b"}), failed);
  EXPECT_THAT(err, HasSubstr("without slashes"));

  EXPECT_EQ(sdb({"drop", root, "two"}), done);
  EXPECT_EQ(sdb({"list", root}), done);
  EXPECT_EQ(out, "one\n");
  EXPECT_EQ(sdb({"drop", root, "two"}), failed);
  EXPECT_THAT(err, HasSubstr("there is no table two"));
}

TEST_F(ToolTest, DirectoryThatIsNoTableIsNeitherListedNorFilledNorDropped) {
  create();
  fs::create_directory(root + "/photos");
  EXPECT_EQ(sdb({"list", root}), done);
  EXPECT_EQ(out, "notes\n");
  EXPECT_EQ(sdb({"drop", root, "photos"}), failed);
  EXPECT_EQ(sdb({"stat", root, "photos"}), failed);
  EXPECT_TRUE(fs::is_empty(root + "/photos"));
}

TEST_F(ToolTest, MissingDatabaseTableOrPathIsNamedWithWhatToDo) {
  EXPECT_EQ(sdb({"list", root}), failed);
  EXPECT_THAT(err, HasSubstr("sdb create " + root + " TABLE"));
  create();
  EXPECT_EQ(sdb({"search", root, "other", "word"}), failed);
  EXPECT_THAT(err, HasSubstr("sdb create " + root + " other"));
  EXPECT_EQ(index(texts + "/nowhere"), failed);
  EXPECT_THAT(err, HasSubstr("No such file"));
}

TEST_F(ToolTest, ArgumentsThatMakeNoSenseAreUsage) {
  for (const auto &arguments :
       std::vector<std::vector<std::string>>{{},
                                             {"fly"},
                                             {"create", root},
                                             {"search", root, "notes"},
                                             {"search", root, "notes", "--limit", "many", "word"},
                                             {"search", root, "notes", "..."},
                                             {"list", root, "--loud"}}) {
    EXPECT_EQ(sdb(arguments), usage) << ::testing::PrintToString(arguments);
    EXPECT_THAT(err, Not(IsEmpty()));
  }
  EXPECT_EQ(sdb({"--help"}), done);
  EXPECT_THAT(out, HasSubstr("index"));
  EXPECT_EQ(sdb({"--version"}), done);
  EXPECT_THAT(out, HasSubstr(zem_sdb_version()));
}

TEST_F(ToolTest, TableThatIsOpenElsewhereIsToldSo) {
  create();
  zem_sdb *other = zem_sdb_new(root.c_str(), nullptr);
  ASSERT_NE(zem_sdb_table_open(other, "notes"), 0u);

  EXPECT_EQ(search("word"), failed);
  EXPECT_THAT(err, HasSubstr("table notes is open in another process"));
  EXPECT_EQ(sdb({"drop", root, "notes"}), failed);
  EXPECT_THAT(err, HasSubstr("Wait until that ends"));

  zem_sdb_free(other);
  EXPECT_EQ(search("word"), nothing) << err;
}

// ---- index and search ----

TEST_F(ToolTest, SearchFindsParagraphsThatHoldAllWords) {
  const std::string path = write("a.txt",
                                 "The cat sat.\nOn a mat.\n\nA dog, a log.\n\n"
                                 "Cat and dog:\n  friends\n");
  create();
  ASSERT_EQ(index(path), done) << err;
  EXPECT_THAT(out, HasSubstr("indexed 1 files: 3 documents"));

  EXPECT_EQ(search("CAT"), done) << err;
  EXPECT_EQ(out, path + ":1:\n    The cat sat.\n    On a mat.\n" + path +
                     ":6:\n    Cat and dog:\n      friends\n");
  EXPECT_EQ(sdb({"search", root, "notes", "dog", "cat"}), done);
  EXPECT_EQ(out, path + ":6:\n    Cat and dog:\n      friends\n");
  EXPECT_EQ(sdb({"search", root, "notes", "cat", "log"}), nothing);
  EXPECT_EQ(out, "");
  EXPECT_THAT(err, HasSubstr("0 documents"));
}

TEST_F(ToolTest, SearchForAnyWordPutsTheBestDocumentsFirst) {
  const std::string path = write("a.txt", "red\n\nblue\n\nred and blue\n");
  create();
  ASSERT_EQ(index(path), done);
  EXPECT_EQ(sdb({"search", root, "notes", "--any", "red", "blue", "green"}), done);
  EXPECT_EQ(out,
            path + ":5:\n    red and blue\n" + path + ":1:\n    red\n" + path + ":3:\n    blue\n");
  EXPECT_EQ(sdb({"search", root, "notes", "--any", "--limit", "1", "red", "blue"}), done);
  EXPECT_EQ(out, path + ":5:\n    red and blue\n");
  EXPECT_THAT(err, HasSubstr("1 of 3 documents"));
}

TEST_F(ToolTest, LinesCanBeTheDocuments) {
  const std::string path = write("a.txt", "one cat\ntwo cats\n\nnine cat lives\n");
  create();
  ASSERT_EQ(sdb({"index", "--lines", root, "notes", path}), done);
  EXPECT_EQ(search("cat"), done);
  EXPECT_EQ(out, path + ":1: one cat\n" + path + ":4: nine cat lives\n");
}

TEST_F(ToolTest, ControlCharactersOfATextDoNotReachTheTerminal) {
  const std::string path = write("a.txt", "before \x1b[31m after\n");
  create();
  ASSERT_EQ(index(path), done);
  EXPECT_EQ(search("after"), done);
  EXPECT_EQ(out, path + ":1:\n    before ?[31m after\n");
}

TEST_F(ToolTest, DirectoriesAreWalkedWithoutLinksBinariesAndTheDatabaseItself) {
  write("deep/er/a.txt", "needle here");
  write("b.txt", "needle there");
  write("binary", std::string("needle\0x", 8));
  fs::create_symlink(texts, texts + "/deep/loop");
  fs::create_symlink(texts + "/b.txt", texts + "/link.txt");
  create();
  ASSERT_EQ(index(dir.path()), done) << err;  // holds the database, too
  EXPECT_THAT(out, AllOf(HasSubstr("indexed 2 files: 2 documents, 4 postings"),
                         HasSubstr("1 files are no text")));
  // One file, given in several ways, is one file.
  EXPECT_EQ(sdb({"index", root, "notes", texts + "/link.txt", texts + "/b.txt", texts}), done);
  EXPECT_THAT(out, HasSubstr("2 files were indexed before, unchanged"));
}

TEST_F(ToolTest, IndexingAgainAddsWhatIsNewAndReplacesWhatChanged) {
  const std::string same = write("same.txt", "cat one\n");
  const std::string changing = write("changing.txt", "cat two\n\ncat three\n");
  create();
  ASSERT_EQ(index(texts), done);

  write("changing.txt", "cat four\n");
  const std::string fresh = write("new.txt", "cat five\n");
  ASSERT_EQ(index(texts), done) << err;
  EXPECT_THAT(out, AllOf(HasSubstr("indexed 2 files: 2 documents"), HasSubstr("1 of them"),
                         HasSubstr("1 files were indexed before")));

  EXPECT_EQ(search("cat"), done);
  EXPECT_EQ(out, same + ":1:\n    cat one\n" + changing + ":1:\n    cat four\n" + fresh +
                     ":1:\n    cat five\n");
  EXPECT_EQ(search("three"), nothing);  // the table still holds it, the catalogue does not
}

TEST_F(ToolTest, TextThatChangedOrWentAwayIsNotedInsteadOfShown) {
  const std::string changed = write("a.txt", "first cat\n\nsecond cat\n");
  const std::string gone = write("b.txt", "third cat\n");
  create();
  ASSERT_EQ(index(texts), done);
  write("a.txt", "first cat\n\nSECOND bat\n");
  fs::remove(gone);

  EXPECT_EQ(search("cat"), done);
  EXPECT_EQ(out, changed + ":1:\n    first cat\n" + changed +
                     ":3: (file has changed since it was indexed; index it again)\n" + gone +
                     ":1: (file is gone)\n");
}

TEST_F(ToolTest, StoppedRunLeavesTheRestToTheNext) {
  write("a.txt", "cat");
  create();
  stop = true;
  EXPECT_EQ(index(texts), failed);
  EXPECT_THAT(err, HasSubstr("the same command does the rest"));

  stop = false;
  EXPECT_EQ(search("cat"), nothing);
  EXPECT_EQ(index(texts), done);
  EXPECT_EQ(search("cat"), done);
}

// What is left when a run dies after the table took its postings, but before the catalogue's last
// record: the file is indexed again, and each of its documents is found once.
TEST_F(ToolTest, RunThatDiedBeforeItsLastRecordIsRepeatedWithoutDoubles) {
  const std::string path = write("a.txt", "cat one\n\ncat two\n");
  create();
  ASSERT_EQ(index(path), done);
  const std::string catalog = root + "/notes/" + tool_catalog_name;
  fs::resize_file(catalog, fs::file_size(catalog) - 20);

  ASSERT_EQ(index(path), done);
  EXPECT_THAT(err, HasSubstr("indexed again"));
  EXPECT_EQ(search("cat"), done);
  EXPECT_EQ(out, path + ":1:\n    cat one\n" + path + ":3:\n    cat two\n");
}

TEST_F(ToolTest, ProgressIsABarOnATerminalAndLinesElsewhere) {
  for (int i = 0; i < 10; ++i)
    write(std::to_string(i), std::string(100, 'x'));
  create();
  ASSERT_EQ(sdb({"index", root, "notes", texts}, /*terminal=*/false), done);
  EXPECT_THAT(err, AllOf(HasSubstr("50% of 100"), Not(HasSubstr("\r"))));
  ASSERT_EQ(sdb({"create", root, "other"}), done);
  ASSERT_EQ(sdb({"index", root, "other", texts}, /*terminal=*/true), done);
  EXPECT_THAT(err, AllOf(HasSubstr("["), HasSubstr("%"), ::testing::EndsWith("\r\033[K")));
}

// ---- stat ----

TEST_F(ToolTest, StatCountsWhatWasIndexed) {
  write("a.txt", "cat dog\n\ncat\n");
  write("b.txt", "cat\n");
  create();
  ASSERT_EQ(index(texts), done);
  write("b.txt", "bird\n");
  ASSERT_EQ(index(texts), done);

  ASSERT_EQ(sdb({"stat", root, "notes", "--json"}), done) << err;
  const nlohmann::json stat = nlohmann::json::parse(out);
  EXPECT_EQ(stat["table"], "notes");
  EXPECT_EQ(stat["files"], 2);
  EXPECT_EQ(stat["documents"], 3);
  EXPECT_EQ(stat["postings"], 5);  // the retired one included
  EXPECT_EQ(stat["terms"], 3);
  EXPECT_GT(stat["disk_bytes"], 0);
  ASSERT_EQ(stat["shards"].size(), 1u);
  EXPECT_EQ(stat["shards"][0]["number"], 1);
  EXPECT_EQ(stat["shards"][0]["log_terms"], 3);
  EXPECT_EQ(stat["shards"][0]["data_terms"], 0);

  EXPECT_EQ(sdb({"stat", root, "notes"}), done);
  EXPECT_THAT(out, AllOf(HasSubstr("documents  3\n"), HasSubstr("shard 1: 3 terms in its log")));
}

// ---- against a plain scan ----

// A second opinion on what words are: the C library's, one wide character at a time.
std::set<std::string> scanned_words(const std::string &text) {
  std::set<std::string> words;
  std::string word;
  std::mbstate_t state = {};
  for (std::size_t at = 0; at < text.size();) {
    wchar_t c = 0;
    std::size_t length = std::mbrtowc(&c, text.data() + at, text.size() - at, &state);
    if (length == 0 || length > text.size()) {
      state = {};
      length = 1;
      c = L' ';
    }
    at += length;
    if (std::iswalnum(static_cast<std::wint_t>(c)) != 0) {
      std::array<char, MB_LEN_MAX> bytes{};
      std::mbstate_t out = {};
      const auto lower = static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(c)));
      word.append(bytes.data(), std::wcrtomb(bytes.data(), lower, &out));
    } else if (!word.empty()) {
      words.insert(std::exchange(word, ""));
    }
  }
  if (!word.empty()) words.insert(word);
  return words;
}

// Every word of the paragraphs of a file, with the "path:line:" of each paragraph that holds it.
void scan(const fs::path &path, std::map<std::string, std::set<std::string>> &places) {
  std::ifstream in(path, std::ios::binary);
  std::string paragraph;
  std::string place;
  std::string line;
  const auto end_paragraph = [&] {
    for (const std::string &word : scanned_words(paragraph))
      places[word].insert(place);
    paragraph.clear();
  };
  for (int number = 1; std::getline(in, line); ++number) {
    const bool blank = line.find_first_not_of(" \t\r\f\v") == std::string::npos;
    if (blank) {
      end_paragraph();
      continue;
    }
    if (paragraph.empty()) place = path.string() + ":" + std::to_string(number) + ":";
    paragraph += line + "\n";
  }
  end_paragraph();
}

// Texts that any Debian system holds, and some that this test makes where there are none.
std::vector<fs::path> real_texts() {
  std::vector<fs::path> paths;
  std::error_code error;
  for (const auto &entry : fs::directory_iterator("/usr/share/common-licenses", error)) {
    if (entry.is_regular_file() && !entry.is_symlink()) paths.push_back(entry.path());
  }
  return paths;
}

TEST_F(ToolTest, TwoHundredWordsAreFoundWhereAPlainScanFindsThem) {
  ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  std::vector<fs::path> paths = real_texts();
  paths.emplace_back(write("mixed.txt",
                           "Die Größe über allem\n\nПривет, мир! 42 cats\n\nnaïve café\n"
                           "\t\nthe the THE\n"));
  std::map<std::string, std::set<std::string>> places;
  std::vector<std::string> arguments{"index", root, "notes"};
  for (const fs::path &path : paths) {
    scan(path, places);
    arguments.push_back(path.string());
  }
  create();
  ASSERT_EQ(sdb(arguments), done) << err;

  std::vector<std::string> words{"the", "größe", "привет", "42"};
  std::mt19937 random(200);
  std::vector<std::string> all;
  for (const auto &[word, where] : places)
    all.push_back(word);
  std::sample(all.begin(), all.end(), std::back_inserter(words), 200, random);
  for (const std::string &word : words) {
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
