// The words of a text, and the term under which a word is kept in a table.
//
// A word is a run of letters and digits of any script, with the marks that belong to them. Case and
// compatible forms are folded, so that "Straße" and "STRASSE", or two encodings of one accent, are
// the same word. Scripts that write no spaces between words give one word a run. Bytes that are no
// UTF-8 separate words.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>

// Walks the words of `rest`, which must outlive the reader.
struct tool_words {
  std::string_view rest;
  std::string word;  // the current word, folded
};

// Moves to the next word; false when there is none.
bool tool_words_next(tool_words &words);

// A term: 96 bits of the folded word's 128-bit hash, in the form that the library's calls take.
struct tool_term {
  std::uint64_t head = 0;   // words 0 and 1
  std::uint32_t third = 0;  // word 2
  friend bool operator==(const tool_term &, const tool_term &) = default;
  friend bool operator<(const tool_term &a, const tool_term &b) {
    return std::tie(a.head, a.third) < std::tie(b.head, b.third);
  }
};

tool_term tool_word_term(std::string_view folded);
