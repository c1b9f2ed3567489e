// What a look at a table's files finds, one finding a fault, and how far it has come.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/progress.h"
#include "tools/tool.h"

enum class check_severity : std::uint8_t {
  note,    // nothing is lost: leftovers that the next open tidies, copies that it keeps
  damage,  // postings are lost, or queries fail or miss them
};

// Where a fault lies, as far as that can be told.
struct check_place {
  std::string file;                                   // in the table's directory
  std::optional<std::uint64_t> block = std::nullopt;  // of 64 KiB
  std::optional<std::uint64_t> byte = std::nullopt;   // in the file
};

check_place check_at(const std::string &file, std::uint64_t block, std::size_t byte_in_block);

struct check_finding {
  check_severity severity;
  const char *kind;  // a short name for programs, which stays the same
  check_place place;
  std::string words;
  // How many postings the fault has cost for good, as the file itself counts them.
  std::optional<std::uint64_t> lost;
};

// One look at one table.
struct check_run {
  explicit check_run(const tool_io &of) : io(of), progress{.io = of, .total = 1} {}

  const tool_io &io;
  tool_progress progress;
  std::vector<check_finding> findings;
  std::uint64_t files = 0;
  std::uint64_t blocks = 0;
};

void check_note(check_run &run, const char *kind, const check_place &place,
                const std::string &words);
void check_damage(check_run &run, const char *kind, const check_place &place,
                  const std::string &words, std::optional<std::uint64_t> lost = std::nullopt);

std::uint64_t check_count(const check_run &run, check_severity severity);

// "FILE, block N, byte M", without what is not known.
std::string check_place_text(const check_place &place);

// One line for a person.
std::string check_line(const check_finding &finding);
