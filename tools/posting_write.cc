#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>
#include <xxhash.h>

#include "tools/posting_stream.h"

namespace {

namespace format = tool_posting_format;

constexpr std::size_t text_size = std::size_t{256} << 10;  // bytes of text given away at once

template <class Number>
void append_bytes(std::string &bytes, Number number) {
  bytes.append(reinterpret_cast<const char *>(&number), sizeof number);
}

template <class Number>
void append_decimal(std::string &text, Number number) {
  char digits[20];
  const auto end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
  text.append(std::begin(digits), end);
}

void append_term(std::string &text, const tool_key_term &term) {
  append_decimal(text, term[0]);
  for (const std::uint32_t word : {term[1], term[2]}) {
    text += ' ';
    append_decimal(text, word);
  }
}

tool_problem give_away(tool_posting_writer &writer) {
  const std::string bytes = std::exchange(writer.pending, {});
  return writer.sink(bytes);
}

tool_problem write_text(tool_posting_writer &writer, const tool_key_term &term,
                        std::span<const std::uint64_t> ids) {
  std::string words;
  append_term(words, term);
  words += ' ';
  for (const std::uint64_t id : ids) {
    writer.pending += words;
    append_decimal(writer.pending, id);
    writer.pending += '\n';
    if (writer.pending.size() < text_size) continue;
    if (tool_problem problem = give_away(writer)) return problem;
  }
  return {};
}

tool_problem give_frame(tool_posting_writer &writer, std::uint32_t kind) {
  if (writer.pending.empty()) return {};
  const std::string &payload = writer.pending;
  std::string head;
  append_bytes(head, kind);
  append_bytes(head, static_cast<std::uint32_t>(payload.size()));
  append_bytes(head, std::uint64_t{XXH3_64bits_withSeed(payload.data(), payload.size(), kind)});
  if (tool_problem problem = writer.sink(head)) return problem;
  return give_away(writer);
}

// Where the stream goes on with the group in hand, however the ids of a term are handed over, so that
// the same postings always give the same bytes.
bool goes_on(const tool_posting_writer &writer, const tool_key_term &term) {
  return !writer.pending.empty() && writer.group_ids > 0 && writer.term == term;
}

void open_group(tool_posting_writer &writer, const tool_key_term &term) {
  for (const std::uint32_t word : term)
    append_bytes(writer.pending, word);
  append_bytes(writer.pending, std::uint32_t{0});
  writer.term = term;
  writer.group_ids = 0;
}

// Adds ids to the group at the end of the frame and writes its count anew.
void extend_group(tool_posting_writer &writer, std::span<const std::uint64_t> ids) {
  std::string &frame = writer.pending;
  constexpr std::size_t count_size = sizeof writer.group_ids;
  const std::size_t count_at = frame.size() - writer.group_ids * format::id_size - count_size;
  writer.group_ids += static_cast<std::uint32_t>(ids.size());
  std::memcpy(frame.data() + count_at, &writer.group_ids, count_size);
  frame.append(reinterpret_cast<const char *>(ids.data()), ids.size_bytes());
}

tool_problem write_groups(tool_posting_writer &writer, const tool_key_term &term,
                          std::span<const std::uint64_t> ids) {
  while (!ids.empty()) {
    bool open = goes_on(writer, term);
    const std::size_t least = format::id_size + (open ? 0 : format::group_head_size);
    if (writer.pending.size() + least > format::frame_size_max) {
      if (tool_problem problem = give_frame(writer, format::kind_postings)) return problem;
      open = false;
    }
    if (!open) open_group(writer, term);
    const std::size_t room = (format::frame_size_max - writer.pending.size()) / format::id_size;
    const std::size_t taken = std::min(ids.size(), room);
    extend_group(writer, ids.first(taken));
    ids = ids.subspan(taken);
  }
  return {};
}

}  // namespace

std::string tool_key_text(const tool_key_term &term) {
  std::string text;
  append_term(text, term);
  return text;
}

tool_problem tool_posting_begin(tool_posting_writer &writer) {
  if (!writer.binary) return {};
  std::string head(format::magic);
  append_bytes(head, format::version);
  return writer.sink(head);
}

tool_problem tool_posting_write(tool_posting_writer &writer, const tool_key_term &term,
                                std::span<const std::uint64_t> ids) {
  writer.postings += ids.size();
  return writer.binary ? write_groups(writer, term, ids) : write_text(writer, term, ids);
}

tool_problem tool_posting_end(tool_posting_writer &writer) {
  if (!writer.binary) return give_away(writer);
  if (tool_problem problem = give_frame(writer, format::kind_postings)) return problem;
  append_bytes(writer.pending, writer.postings);
  return give_frame(writer, format::kind_end);
}
