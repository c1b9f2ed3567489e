// Postings as a stream of bytes: what `dump` writes and `load` reads.
//
// Text: a posting a line, four decimal numbers "word0 word1 word2 id" with blanks between them; "-"
// and a blank before them deletes the posting. Blank lines count for nothing, and so does what
// follows a "#". The document id is at least 1: the library reserves 0.
//
// Binary: a head, frames of postings, and one end frame, with nothing behind it. Integers are
// little-endian. All its postings are inserts.
//
//   head                                   frame
//   offset  size  field                    offset  size  field
//        0     8  "sdbposts"                    0     4  kind: 1 postings, 2 end
//        8     4  version, 1                    4     4  n: bytes of payload, at most 1 MiB
//                                               8     8  XXH3-64 of the payload, seeded by the kind
//   postings: groups                           16     n  payload
//   offset   size  field
//        0     12  term, three words       end
//       12      4  c >= 1, ids that follow offset  size  field
//       16  c * 8  document ids                 0     8  postings of the whole stream
//
// So a stream that was cut anywhere, or changed, is told from a whole one. A writer gives postings
// in key order; a reader takes any.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "tools/posting.h"
#include "tools/tool.h"

namespace tool_posting_format {
inline constexpr std::string_view magic = "sdbposts";
inline constexpr std::uint32_t version = 1;
inline constexpr std::size_t head_size = 12;
inline constexpr std::size_t frame_head_size = 16;
inline constexpr std::size_t frame_size_max = std::size_t{1} << 20;  // of the payload
inline constexpr std::size_t group_head_size = 16;
inline constexpr std::size_t id_size = 8;
inline constexpr std::size_t end_size = 8;
inline constexpr std::uint32_t kind_postings = 1;
inline constexpr std::uint32_t kind_end = 2;
}  // namespace tool_posting_format

// One step of a stream.
struct tool_change {
  tool_posting posting;
  bool insert = true;
};

// Reads one stream from an open file, in either form. Owns nothing but its buffer.
struct tool_posting_reader {
  int fd = -1;
  const std::atomic<bool> &stop;  // raised: the stream ends where it is

  bool begun = false;
  bool binary = false;
  bool complete = false;       // binary: the end frame was met
  std::uint64_t line = 0;      // text: of the last change, from 1
  std::uint64_t changes = 0;   // given so far
  std::uint64_t consumed = 0;  // bytes of the stream, for showing progress
  tool_problem problem{};      // why the stream ended early; none at its end

  std::string buffer{};
  std::size_t at = 0;         // in `buffer`: what comes next
  bool ended = false;         // the file has no more bytes
  std::size_t frame_end = 0;  // in `buffer`; `at` when no frame is open
  tool_key_term term{};       // of the open group
  std::uint32_t ids_left = 0;
};

// Moves to the next change. False at the end, after a raised `stop`, and after `problem` was set.
bool tool_posting_next(tool_posting_reader &reader, tool_change &change);

// Takes the bytes of a stream being written.
using tool_byte_sink = std::function<tool_problem(std::string_view bytes)>;

struct tool_posting_writer {
  tool_byte_sink sink;
  bool binary = false;
  std::uint64_t postings = 0;  // written so far
  std::string pending{};       // bytes not yet given to `sink`; binary: the frame being filled
  tool_key_term term{};        // binary: of the group in hand
  std::uint32_t group_ids = 0;
};

// A stream is begun once, then written to in key order, then ended.
tool_problem tool_posting_begin(tool_posting_writer &writer);
tool_problem tool_posting_write(tool_posting_writer &writer, const tool_key_term &term,
                                std::span<const std::uint64_t> ids);
tool_problem tool_posting_end(tool_posting_writer &writer);
