#include "tools/check_report.h"

#include <algorithm>

#include "base/stream.h"

check_place check_at(const std::string &file, std::uint64_t block, std::size_t byte_in_block) {
  return {.file = file, .block = block, .byte = block * zem_block_size + byte_in_block};
}

void check_note(check_run &run, const char *kind, const check_place &place,
                const std::string &words) {
  run.findings.push_back({.severity = check_severity::note,
                          .kind = kind,
                          .place = place,
                          .words = words,
                          .lost = std::nullopt});
}

void check_damage(check_run &run, const char *kind, const check_place &place,
                  const std::string &words, std::optional<std::uint64_t> lost) {
  run.findings.push_back({.severity = check_severity::damage,
                          .kind = kind,
                          .place = place,
                          .words = words,
                          .lost = lost});
}

std::uint64_t check_count(const check_run &run, check_severity severity) {
  const auto count =
      std::count_if(run.findings.begin(), run.findings.end(),
                    [&](const check_finding &each) { return each.severity == severity; });
  return static_cast<std::uint64_t>(count);
}

std::string check_place_text(const check_place &place) {
  std::string text = tool_printable(place.file);
  if (place.block) text += ", block " + std::to_string(*place.block);
  if (place.byte) text += ", byte " + std::to_string(*place.byte);
  return text;
}

std::string check_line(const check_finding &finding) {
  const char *severity = finding.severity == check_severity::damage ? "damage" : "note";
  std::string line =
      severity + (": " + check_place_text(finding.place)) + ": " + tool_printable(finding.words);
  if (finding.lost) line += " (" + std::to_string(*finding.lost) + " postings lost)";
  return line;
}
