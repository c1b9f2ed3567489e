// Cuts a text file into documents, one a paragraph or one a line, without holding more of the file
// in memory than one document and a read's worth.
//
// A paragraph is a run of lines that are not blank; a line that is blank makes no document. Line
// ends are LF or CR LF and belong to no document. A document longer than the limit is cut there,
// be it inside a word: no file, however shaped, makes memory grow beyond it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tools/tool.h"

// Stored in the catalogue.
enum class tool_unit : std::uint8_t { paragraph = 1, line = 2 };

inline constexpr std::size_t tool_document_limit = std::size_t{16} << 20;  // bytes

// One document as it lies in its file. `text` is valid until the next step of the reader.
struct tool_piece {
  std::uint64_t offset = 0;  // of its first byte in the file
  std::uint32_t line = 0;    // of its first byte, counted from 1
  std::string_view text;
};

// Reads one open file from where it stands. Owns nothing but its buffer.
struct tool_reader {
  int fd = -1;
  tool_unit unit = tool_unit::paragraph;
  std::size_t limit = tool_document_limit;  // bytes of one document
  std::size_t read_size = std::size_t{256} << 10;

  std::string buffer;               // bytes read, the first of them at `buffer_offset` of the file
  std::size_t at = 0;               // in `buffer`: where the next line begins
  std::uint64_t buffer_offset = 0;  // in the file
  std::uint32_t line = 1;           // number of the line at `at`
  bool ended = false;               // the file has no more bytes
  int error = 0;                    // errno of the read that failed; ends the file too
};

// Moves to the next document; false at the end of the file or after a failed read.
bool tool_reader_next(tool_reader &reader, tool_piece &piece);

// 128 bits by which the content of a file is known again.
struct tool_hash {
  std::uint64_t low = 0;
  std::uint64_t high = 0;
  friend bool operator==(const tool_hash &, const tool_hash &) = default;
};

// What one look through a file tells.
struct tool_identity {
  tool_hash hash;
  bool binary = false;  // a NUL byte among its first bytes: no text, `hash` is not filled in
};

// Reads the file from its beginning and rewinds it. Gives 0 or an errno.
int tool_identify(int fd, tool_identity &identity);

// The hash by which a document's text is known again.
std::uint64_t tool_text_hash(std::string_view text);
