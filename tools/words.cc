#include "tools/words.h"

#include <array>
#include <cstdlib>
#include <memory>
#include <utf8proc.h>
#include <xxhash.h>

namespace {

struct symbol {
  std::size_t length = 1;  // bytes
  bool opens = false;      // a letter or a digit
  bool carries = false;    // goes on with a word: also a mark
};

symbol symbol_at(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  if (first < 0x80) {
    const bool letter = (first | 0x20U) >= 'a' && (first | 0x20U) <= 'z';
    const bool digit = first >= '0' && first <= '9';
    return {.length = 1, .opens = letter || digit, .carries = letter || digit};
  }
  utf8proc_int32_t code = 0;
  const auto *bytes = reinterpret_cast<const utf8proc_uint8_t *>(text.data());
  const utf8proc_ssize_t length =
      utf8proc_iterate(bytes, static_cast<utf8proc_ssize_t>(text.size()), &code);
  if (length <= 0) return {};
  const utf8proc_category_t category = utf8proc_category(code);
  const bool letter = category >= UTF8PROC_CATEGORY_LU && category <= UTF8PROC_CATEGORY_LO;
  const bool mark = category >= UTF8PROC_CATEGORY_MN && category <= UTF8PROC_CATEGORY_ME;
  const bool digit = category >= UTF8PROC_CATEGORY_ND && category <= UTF8PROC_CATEGORY_NO;
  return {.length = static_cast<std::size_t>(length),
          .opens = letter || digit,
          .carries = letter || digit || mark};
}

void fold_ascii(std::string_view raw, std::string &folded) {
  folded.assign(raw);
  for (char &c : folded) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
  }
}

void fold_any(std::string_view raw, std::string &folded) {
  constexpr int options =
      UTF8PROC_STABLE | UTF8PROC_COMPOSE | UTF8PROC_COMPAT | UTF8PROC_CASEFOLD | UTF8PROC_IGNORE;
  utf8proc_uint8_t *bytes = nullptr;
  const utf8proc_ssize_t length = utf8proc_map(
      reinterpret_cast<const utf8proc_uint8_t *>(raw.data()),
      static_cast<utf8proc_ssize_t>(raw.size()), &bytes, static_cast<utf8proc_option_t>(options));
  const std::unique_ptr<utf8proc_uint8_t, void (*)(void *)> owned(bytes, &std::free);
  if (length < 0) {
    folded.assign(raw);  // memory is short: the word as it stands is better than none
    return;
  }
  folded.assign(reinterpret_cast<const char *>(bytes), static_cast<std::size_t>(length));
}

}  // namespace

bool tool_words_next(tool_words &words) {
  std::string_view &rest = words.rest;
  words.word.clear();
  while (words.word.empty()) {  // a word of ignorable characters alone folds to nothing
    while (!rest.empty()) {
      const symbol next = symbol_at(rest);
      if (next.opens) break;
      rest.remove_prefix(next.length);
    }
    if (rest.empty()) return false;

    std::size_t length = 0;
    bool ascii = true;
    while (length < rest.size()) {
      const symbol next = symbol_at(rest.substr(length));
      if (!next.carries) break;
      ascii = ascii && static_cast<unsigned char>(rest[length]) < 0x80;
      length += next.length;
    }
    const std::string_view raw = rest.substr(0, length);
    rest.remove_prefix(length);
    if (ascii) {
      fold_ascii(raw, words.word);
    } else {
      fold_any(raw, words.word);
    }
  }
  return true;
}

tool_term tool_word_term(std::string_view folded) {
  const XXH128_hash_t hash = XXH3_128bits(folded.data(), folded.size());
  return {.head = hash.low64, .third = static_cast<std::uint32_t>(hash.high64)};
}
