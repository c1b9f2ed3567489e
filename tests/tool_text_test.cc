// How the program `sdb` cuts files into documents and documents into words.
#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tools/progress.h"
#include "tools/text.h"
#include "tools/words.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// ---- words ----

std::vector<std::string> words_of(std::string_view text) {
  std::vector<std::string> found;
  tool_words words{.rest = text, .word = {}};
  while (tool_words_next(words))
    found.push_back(words.word);
  return found;
}

TEST(WordsTest, LettersAndDigitsMakeWordsAndCaseIsFolded) {
  EXPECT_THAT(words_of("The cat, the 2nd CAT-like (x86_64)!"),
              ElementsAre("the", "cat", "the", "2nd", "cat", "like", "x86", "64"));
  EXPECT_THAT(words_of(" .,;-- \t\n"), IsEmpty());
  EXPECT_THAT(words_of(""), IsEmpty());
}

TEST(WordsTest, ScriptsBeyondAsciiFoldByUnicode) {
  EXPECT_THAT(words_of("Straße STRASSE"), ElementsAre("strasse", "strasse"));
  EXPECT_THAT(words_of("ДОМ дом"), ElementsAre("дом", "дом"));
  EXPECT_THAT(words_of("Ünïcode … naïve"), ElementsAre("ünïcode", "naïve"));
}

TEST(WordsTest, OneWordInTwoEncodingsIsOneWord) {
  const std::string composed = "caf\u00e9";
  const std::string decomposed = "cafe\u0301";
  EXPECT_EQ(words_of(composed), words_of(decomposed));
  EXPECT_THAT(words_of(decomposed), ElementsAre(composed));
}

TEST(WordsTest, BytesThatAreNoUtf8SeparateWords) {
  EXPECT_THAT(words_of("one\xff\xfetwo\xc3"), ElementsAre("one", "two"));
  EXPECT_THAT(words_of("\xe2\x82"), IsEmpty());
}

TEST(WordsTest, TermIsTheFirst96BitsOfTheHash) {
  const tool_term cat = tool_word_term("cat");
  // Files on disk depend on these numbers.
  EXPECT_EQ(cat.head, 4'779'597'430'144'128'238U);
  EXPECT_EQ(cat.third, 3'964'744'221U);
  EXPECT_NE(cat, tool_word_term("dog"));
}

// ---- documents ----

struct document {
  std::uint64_t offset;
  std::uint32_t line;
  std::string text;
  friend bool operator==(const document &, const document &) = default;
};

void PrintTo(const document &d, std::ostream *out) {
  *out << d.offset << " line " << d.line << " '" << d.text << "'";
}

class TextTest : public ::testing::Test {
 protected:
  std::vector<document> documents(std::string_view text, tool_unit unit, std::size_t read_size = 4,
                                  std::size_t limit = tool_document_limit) {
    const std::string path = dir.path("text");
    std::ofstream(path, std::ios::binary) << text;
    tool_reader reader;
    reader.fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    reader.unit = unit;
    reader.read_size = read_size;
    reader.limit = limit;
    std::vector<document> found;
    tool_piece piece;
    while (tool_reader_next(reader, piece)) {
      found.push_back({piece.offset, piece.line, std::string(piece.text)});
    }
    EXPECT_EQ(reader.error, 0);
    ::close(reader.fd);
    return found;
  }

  temp_dir dir;
};

TEST_F(TextTest, ParagraphsAreSplitByBlankLines) {
  EXPECT_THAT(documents("\n\none\ntwo\n \t\nthree\n", tool_unit::paragraph),
              ElementsAre(document{2, 3, "one\ntwo"}, document{13, 6, "three"}));
  EXPECT_THAT(documents("no line end", tool_unit::paragraph),
              ElementsAre(document{0, 1, "no line end"}));
  EXPECT_THAT(documents("", tool_unit::paragraph), IsEmpty());
  EXPECT_THAT(documents("\n \n\r\n", tool_unit::paragraph), IsEmpty());
}

TEST_F(TextTest, LinesAreDocumentsAndBlankOnesAreNone) {
  EXPECT_THAT(
      documents("one\r\n\r\n  two\nthree", tool_unit::line),
      ElementsAre(document{0, 1, "one"}, document{7, 3, "  two"}, document{13, 4, "three"}));
}

TEST_F(TextTest, WindowsLineEndsSeparateParagraphs) {
  EXPECT_THAT(documents("a\r\nb\r\n\r\nc\r\n", tool_unit::paragraph),
              ElementsAre(document{0, 1, "a\r\nb"}, document{8, 4, "c"}));
}

TEST_F(TextTest, LongDocumentsAreCutAtTheLimit) {
  EXPECT_THAT(documents("abcdefgh\nxy\n", tool_unit::line, 4, 3),
              ElementsAre(document{0, 1, "abc"}, document{3, 1, "def"}, document{6, 1, "gh"},
                          document{9, 2, "xy"}));
  // A paragraph ends before the line that would take it past the limit.
  EXPECT_THAT(documents("ab\ncd\nef\n", tool_unit::paragraph, 4, 5),
              ElementsAre(document{0, 1, "ab\ncd"}, document{6, 3, "ef"}));
}

// Whatever a read delivers, the documents are the same, and each lies where its offset says.
TEST_F(TextTest, DocumentsDoNotDependOnHowTheFileIsRead) {
  std::string text;
  for (int i = 0; i < 300; ++i) {
    text += "line " + std::string(static_cast<std::size_t>(i % 17), 'x');
    text += i % 5 == 0 ? "\n\n" : i % 3 == 0 ? "\r\n" : "\n";
  }
  for (const tool_unit unit : {tool_unit::paragraph, tool_unit::line}) {
    const std::vector<document> whole = documents(text, unit, text.size() + 1);
    for (const document &d : whole)
      EXPECT_EQ(text.substr(d.offset, d.text.size()), d.text);
    for (const std::size_t read_size : {1U, 2U, 7U, 64U, 1000U}) {
      EXPECT_EQ(documents(text, unit, read_size), whole) << read_size;
    }
  }
}

// ---- progress ----

TEST(ProgressTest, LineFitsItsColumnsAndEndsWithTheNamesEnd) {
  EXPECT_EQ(tool_progress_line(1, 2, "/a/b", 80), "[###############...............]  50% /a/b");
  EXPECT_EQ(tool_progress_line(2, 2, "/long/path/name", 42),
            "[##############################] 100% name");
  EXPECT_EQ(tool_progress_line(3, 2, "\u00e4\u00e4b", 40),
            "[##############################] 100% b");
  EXPECT_EQ(tool_progress_line(0, 1, "x", 5).size(), 5u);
}

}  // namespace
