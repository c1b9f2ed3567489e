#include "tools/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <unistd.h>
#include <xxhash.h>

namespace {

// Appends a read's worth to the buffer.
void read_more(tool_reader &reader) {
  const std::size_t held = reader.buffer.size();
  reader.buffer.resize(held + reader.read_size);
  ssize_t got = 0;
  do {
    got = ::read(reader.fd, reader.buffer.data() + held, reader.read_size);
  } while (got < 0 && errno == EINTR);
  if (got < 0) reader.error = errno;
  reader.ended = got <= 0;
  reader.buffer.resize(held + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
}

// A line in the buffer. Positions stay right when the buffer grows at its end.
struct line_span {
  std::size_t begin = 0;
  std::size_t end = 0;   // after its last byte, line end not counted
  std::size_t next = 0;  // where the following line begins
  bool whole = true;     // ends where a line ends, not where a limit cut it
};

// Finds the line at `begin`, taking no more than `most` bytes of it; false when no byte is left.
bool line_at(tool_reader &reader, std::size_t begin, std::size_t most, line_span &line) {
  std::size_t looked = begin;
  while (true) {
    const std::size_t feed = reader.buffer.find('\n', looked);
    const std::size_t end = std::min(feed, reader.buffer.size());
    if (end - begin > most) {
      line = {.begin = begin, .end = begin + most, .next = begin + most, .whole = false};
      return true;
    }
    if (feed != std::string::npos) {
      const bool carriage_return = feed > begin && reader.buffer[feed - 1] == '\r';
      line = {.begin = begin, .end = carriage_return ? feed - 1 : feed, .next = feed + 1};
      return true;
    }
    if (reader.ended) {
      line = {.begin = begin, .end = end, .next = end};
      return end > begin;
    }
    looked = end;
    read_more(reader);
  }
}

bool is_blank(const tool_reader &reader, const line_span &line) {
  const auto text = std::string_view(reader.buffer).substr(line.begin, line.end - line.begin);
  return text.find_first_not_of(" \t\r\f\v") == std::string_view::npos;
}

void step_over(tool_reader &reader, const line_span &line) {
  reader.at = line.next;
  if (line.whole) ++reader.line;
}

}  // namespace

bool tool_reader_next(tool_reader &reader, tool_piece &piece) {
  line_span line;
  do {
    // The bytes of earlier documents go in large steps, so that moving the rest stays cheap.
    if (reader.at >= reader.read_size) {
      reader.buffer.erase(0, reader.at);
      reader.buffer_offset += reader.at;
      reader.at = 0;
    }
    if (!line_at(reader, reader.at, reader.limit, line)) return false;
    piece = {.offset = reader.buffer_offset + line.begin, .line = reader.line, .text = {}};
    step_over(reader, line);
  } while (is_blank(reader, line));

  const std::size_t begin = line.begin;
  std::size_t end = line.end;
  while (reader.unit == tool_unit::paragraph && line.whole) {
    // A line that would take the paragraph past the limit opens the next document.
    if (!line_at(reader, reader.at, reader.limit, line) || is_blank(reader, line)) break;
    if (line.end - begin > reader.limit) break;
    end = line.end;
    step_over(reader, line);
  }
  piece.text = std::string_view(reader.buffer).substr(begin, end - begin);
  return true;
}

int tool_identify(int fd, tool_identity &identity) {
  const std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t *)> state(XXH3_createState(),
                                                                               &XXH3_freeState);
  if (!state) return ENOMEM;
  XXH3_128bits_reset(state.get());
  std::string block(std::size_t{256} << 10, '\0');
  bool first = true;
  while (true) {
    const ssize_t got = ::read(fd, block.data(), block.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) break;
    const std::string_view bytes(block.data(), static_cast<std::size_t>(got));
    constexpr std::size_t sniffed = 8192;
    if (first && bytes.substr(0, sniffed).find('\0') != std::string_view::npos) {
      identity.binary = true;
      return 0;
    }
    first = false;
    XXH3_128bits_update(state.get(), bytes.data(), bytes.size());
  }
  const XXH128_hash_t hash = XXH3_128bits_digest(state.get());
  identity.hash = {.low = hash.low64, .high = hash.high64};
  return ::lseek(fd, 0, SEEK_SET) < 0 ? errno : 0;
}

std::uint64_t tool_text_hash(std::string_view text) {
  return XXH3_64bits(text.data(), text.size());
}
