#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <poll.h>
#include <unistd.h>
#include <xxhash.h>

#include "tools/posting_stream.h"

namespace {

namespace format = tool_posting_format;

constexpr std::size_t read_size = std::size_t{1} << 20;
constexpr std::size_t line_size_max = 4096;  // of a line of text; also its comment
constexpr int poll_ms = 200;                 // between two looks at `stop` while no bytes come

// Appends a read's worth; false when no byte came.
bool read_more(tool_posting_reader &reader) {
  if (reader.ended) return false;
  reader.buffer.erase(0, reader.at);
  reader.frame_end -= std::min(reader.frame_end, reader.at);
  reader.at = 0;
  // A wait for bytes that never come has to end with `stop`; a read would not.
  pollfd ready{.fd = reader.fd, .events = POLLIN, .revents = 0};
  while (!reader.stop && ::poll(&ready, 1, poll_ms) <= 0) {
  }
  if (reader.stop) return false;
  const std::size_t held = reader.buffer.size();
  reader.buffer.resize(held + read_size);
  ssize_t got = 0;
  do {
    got = ::read(reader.fd, reader.buffer.data() + held, read_size);
  } while (got < 0 && errno == EINTR);
  if (got < 0) reader.problem = tool_problem_errno("cannot read the postings", errno);
  reader.ended = got <= 0;
  reader.buffer.resize(held + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  return got > 0;
}

std::size_t held(const tool_posting_reader &reader) { return reader.buffer.size() - reader.at; }

bool have(tool_posting_reader &reader, std::size_t bytes) {
  while (held(reader) < bytes) {
    if (!read_more(reader)) return false;
  }
  return true;
}

void step(tool_posting_reader &reader, std::size_t bytes) {
  reader.at += bytes;
  reader.consumed += bytes;
}

// ---- text ----

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::string_view without_blanks(std::string_view text) {
  while (!text.empty() && is_blank(text.front()))
    text.remove_prefix(1);
  return text;
}

bool refuse_line(tool_posting_reader &reader, std::string_view why) {
  reader.problem = {"line " + std::to_string(reader.line) +
                    " of the postings: " + std::string(why)};
  return false;
}

// Takes a number and the blanks behind it off the line.
template <class Number>
bool take_number(tool_posting_reader &reader, std::string_view &line, Number &number) {
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
  if (error == std::errc::result_out_of_range) {
    return refuse_line(reader, sizeof number == 4 ? "a word of a term takes 0 to 4294967295"
                                                  : "a document id takes 1 to "
                                                    "18446744073709551615");
  }
  line.remove_prefix(static_cast<std::size_t>(end - line.data()));
  if (error != std::errc() || (!line.empty() && !is_blank(line.front()))) {
    return refuse_line(reader,
                       "expected four numbers, 'word0 word1 word2 id', with '- ' before "
                       "them to delete");
  }
  line = without_blanks(line);
  return true;
}

// Reads the change that a line without its comment and leading blanks holds.
bool read_line(tool_posting_reader &reader, std::string_view line, tool_change &change) {
  change.insert = line.front() != '-';
  if (!change.insert) {
    if (line.size() < 2 || !is_blank(line[1])) {
      return refuse_line(reader, "a blank belongs between the '-' and the posting that it deletes");
    }
    line = without_blanks(line.substr(1));
  }
  for (std::uint32_t &word : change.posting.term) {
    if (!take_number(reader, line, word)) return false;
  }
  if (!take_number(reader, line, change.posting.id)) return false;
  if (!line.empty()) return refuse_line(reader, "there is more than four numbers");
  if (change.posting.id == 0) return refuse_line(reader, "document id 0 is reserved");
  return true;
}

// Finds the end of the line at `at`, false when there is none any more.
bool find_line(tool_posting_reader &reader, std::size_t &length, bool &whole) {
  std::size_t looked = 0;
  while (true) {
    const std::string_view rest = std::string_view(reader.buffer).substr(reader.at);
    const std::size_t feed = rest.find('\n', looked);
    length = std::min(feed, rest.size());
    whole = feed != std::string_view::npos;
    if (length > line_size_max) {
      ++reader.line;
      return refuse_line(reader, "the line is longer than 4096 bytes");
    }
    if (whole) return true;
    looked = rest.size();
    if (read_more(reader)) continue;
    return reader.problem.sentence.empty() && !reader.stop && length > 0;
  }
}

bool next_of_text(tool_posting_reader &reader, tool_change &change) {
  std::size_t length = 0;
  bool whole = false;
  while (find_line(reader, length, whole)) {
    ++reader.line;
    std::string_view line = std::string_view(reader.buffer).substr(reader.at, length);
    step(reader, length + (whole ? 1 : 0));
    line = without_blanks(line.substr(0, line.find('#')));
    if (!line.empty()) return read_line(reader, line, change);
  }
  return false;
}

// ---- binary ----

template <class Number>
Number number_at(const tool_posting_reader &reader, std::size_t at) {
  Number number = 0;
  std::memcpy(&number, reader.buffer.data() + at, sizeof number);
  return number;
}

bool refuse_stream(tool_posting_reader &reader, std::string_view why) {
  reader.problem = {"the binary postings " + std::string(why)};
  return false;
}

bool refuse_cut(tool_posting_reader &reader) {
  if (reader.problem || reader.stop) return false;
  return refuse_stream(reader, "were cut off: write the stream anew");
}

bool end_stream(tool_posting_reader &reader) {
  const bool counted = number_at<std::uint64_t>(reader, reader.at) == reader.changes;
  step(reader, format::end_size);
  reader.frame_end = reader.at;
  if (!counted) return refuse_stream(reader, "hold another number than they tell at their end");
  if (have(reader, 1)) return refuse_stream(reader, "go on after their end");
  reader.complete = !reader.problem && !reader.stop;
  return false;
}

// Opens the next frame of postings; false at the end of the stream.
bool open_frame(tool_posting_reader &reader) {
  if (!have(reader, format::frame_head_size)) return refuse_cut(reader);
  const auto kind = number_at<std::uint32_t>(reader, reader.at);
  const std::size_t size = number_at<std::uint32_t>(reader, reader.at + 4);
  const auto sum = number_at<std::uint64_t>(reader, reader.at + 8);
  const bool is_end = kind == format::kind_end;
  const bool sized = is_end ? size == format::end_size
                            : size > format::group_head_size && size <= format::frame_size_max;
  if ((!is_end && kind != format::kind_postings) || !sized) {
    return refuse_stream(reader, "are damaged: a frame's head makes no sense");
  }
  step(reader, format::frame_head_size);
  if (!have(reader, size)) return refuse_cut(reader);
  if (XXH3_64bits_withSeed(reader.buffer.data() + reader.at, size, kind) != sum) {
    return refuse_stream(reader, "are damaged: a checksum does not match");
  }
  if (is_end) return end_stream(reader);
  reader.frame_end = reader.at + size;
  return true;
}

bool open_group(tool_posting_reader &reader) {
  const std::size_t left = reader.frame_end - reader.at;
  if (left < format::group_head_size) return refuse_stream(reader, "hold half a group");
  for (std::size_t i = 0; i < reader.term.size(); ++i)
    reader.term[i] = number_at<std::uint32_t>(reader, reader.at + 4 * i);
  reader.ids_left = number_at<std::uint32_t>(reader, reader.at + 12);
  step(reader, format::group_head_size);
  if (reader.ids_left == 0 ||
      reader.ids_left > (left - format::group_head_size) / format::id_size) {
    return refuse_stream(reader, "hold a group that tells a wrong size");
  }
  return true;
}

bool next_of_binary(tool_posting_reader &reader, tool_change &change) {
  if (reader.complete) return false;
  if (reader.ids_left == 0) {
    if (reader.at == reader.frame_end && !open_frame(reader)) return false;
    if (!open_group(reader)) return false;
  }
  change.posting = {.term = reader.term, .id = number_at<std::uint64_t>(reader, reader.at)};
  change.insert = true;
  if (change.posting.id == 0) return refuse_stream(reader, "hold document id 0, which is reserved");
  step(reader, format::id_size);
  --reader.ids_left;
  return true;
}

// Tells the form by the first bytes. A binary stream that was cut within them is a bad text.
bool begin(tool_posting_reader &reader) {
  reader.begun = true;
  reader.binary = have(reader, format::magic.size()) && reader.buffer.starts_with(format::magic);
  if (!reader.binary) return !reader.problem && !reader.stop;
  if (!have(reader, format::head_size)) return refuse_cut(reader);
  const auto version = number_at<std::uint32_t>(reader, format::magic.size());
  step(reader, format::head_size);
  reader.frame_end = reader.at;
  if (version != format::version) {
    return refuse_stream(
        reader, "are of version " + std::to_string(version) + ", which this program does not read");
  }
  return true;
}

}  // namespace

bool tool_posting_next(tool_posting_reader &reader, tool_change &change) {
  if (reader.problem || (!reader.begun && !begin(reader))) return false;
  const bool more = reader.binary ? next_of_binary(reader, change) : next_of_text(reader, change);
  reader.changes += more ? 1 : 0;
  return more;
}
