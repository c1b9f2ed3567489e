// A posting as the commands that move postings see it: numbers, in the order of a table's keys.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

// The three words of a term.
using tool_key_term = std::array<std::uint32_t, 3>;

struct tool_posting {
  tool_key_term term{};
  std::uint64_t id = 0;
  friend bool operator==(const tool_posting &, const tool_posting &) = default;
  // Terms ascend, ids within a term descend.
  friend bool operator<(const tool_posting &a, const tool_posting &b) {
    return a.term != b.term ? a.term < b.term : a.id > b.id;
  }
};

// Words 0 and 1 of a term in the form that the library's calls take, and back.
constexpr std::uint64_t tool_key_head(const tool_key_term &term) noexcept {
  return term[0] | (std::uint64_t{term[1]} << 32);
}
constexpr tool_key_term tool_key_from(std::uint64_t head, std::uint32_t third) noexcept {
  return {static_cast<std::uint32_t>(head), static_cast<std::uint32_t>(head >> 32), third};
}

// "W0 W1 W2"
std::string tool_key_text(const tool_key_term &term);
