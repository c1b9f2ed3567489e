// How the program `sdb` cuts files into documents and documents into words.
#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tools/text.h"
#include "tools/words.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<std::string> words_of(std::string_view text) {
  std::vector<std::string> found;
  tool_words words{.rest = text, .word = {}};
  while (tool_words_next(words))
    found.push_back(words.word);
  return found;
}

TEST(WordsTest, LettersAndDigitsMakeWordsAndCaseIsFolded) {
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases{
      {"The cat, the 2nd CAT-like (x86_64)!",
       {"the", "cat", "the", "2nd", "cat", "like", "x86", "64"}},
      {" .,;-- \t\n", {}},
      {"Straße STRASSE ДОМ дом", {"strasse", "strasse", "дом", "дом"}},
      {"caf\u00e9 cafe\u0301", {"caf\u00e9", "caf\u00e9"}},  // one word in two encodings
      {"one\xff\xfetwo\xc3", {"one", "two"}},
  };
  for (const auto &[text, words] : cases)
    EXPECT_EQ(words_of(text), words) << text;
}

TEST(WordsTest, TermIsTheFirst96BitsOfTheHash) {
  const tool_term cat = tool_word_term("cat");
  // Files on disk depend on these numbers.
  EXPECT_EQ(cat.head, 4'779'597'430'144'128'238U);
  EXPECT_EQ(cat.third, 3'964'744'221U);
}

using document = std::tuple<std::uint64_t, std::uint32_t, std::string>;  // offset, line, text

std::vector<document> documents(std::string_view text, tool_unit unit, std::size_t read_size = 4,
                                std::size_t limit = tool_document_limit) {
  const temp_dir dir;
  std::ofstream(dir.path("text"), std::ios::binary) << text;
  tool_reader reader;
  reader.fd = ::open(dir.path("text").c_str(), O_RDONLY | O_CLOEXEC);
  reader.unit = unit;
  reader.read_size = read_size;
  reader.limit = limit;
  std::vector<document> found;
  tool_piece piece;
  while (tool_reader_next(reader, piece))
    found.emplace_back(piece.offset, piece.line, piece.text);
  EXPECT_EQ(reader.error, 0);
  ::close(reader.fd);
  return found;
}

TEST(TextTest, FilesAreCutIntoParagraphsOrLines) {
  constexpr tool_unit paragraph = tool_unit::paragraph;
  constexpr tool_unit line = tool_unit::line;
  EXPECT_THAT(documents("\n\none\ntwo\n \t\nthree\n", paragraph),
              ElementsAre(document{2, 3, "one\ntwo"}, document{13, 6, "three"}));
  EXPECT_THAT(documents("no line end", paragraph), ElementsAre(document{0, 1, "no line end"}));
  EXPECT_THAT(documents("\n \n\r\n", paragraph), IsEmpty());
  EXPECT_THAT(documents("a\r\nb\r\n\r\nc\r\n", paragraph),
              ElementsAre(document{0, 1, "a\r\nb"}, document{8, 4, "c"}));
  EXPECT_THAT(documents("one\r\n\r\n  two", line),
              ElementsAre(document{0, 1, "one"}, document{7, 3, "  two"}));
  EXPECT_THAT(documents("abcdefgh\nxy\n", line, 4, 3),
              ElementsAre(document{0, 1, "abc"}, document{3, 1, "def"}, document{6, 1, "gh"},
                          document{9, 2, "xy"}));
  // A paragraph ends before the line that would take it past the limit.
  EXPECT_THAT(documents("ab\ncd\nef\n", paragraph, 4, 5),
              ElementsAre(document{0, 1, "ab\ncd"}, document{6, 3, "ef"}));
}

// Whatever a read delivers, the documents are the same, and each lies where its offset says.
TEST(TextTest, DocumentsDoNotDependOnHowTheFileIsRead) {
  std::string text;
  for (int i = 0; i < 300; ++i) {
    text += "line " + std::string(static_cast<std::size_t>(i % 17), 'x');
    text += i % 5 == 0 ? "\n\n" : i % 3 == 0 ? "\r\n" : "\n";
  }
  for (const tool_unit unit : {tool_unit::paragraph, tool_unit::line}) {
    const std::vector<document> whole = documents(text, unit, text.size() + 1);
    for (const auto &[offset, line, content] : whole)
      EXPECT_EQ(text.substr(offset, content.size()), content);
    for (const std::size_t read_size : {1U, 2U, 7U, 64U, 1000U}) {
      EXPECT_EQ(documents(text, unit, read_size), whole) << read_size;
    }
  }
}

}  // namespace
