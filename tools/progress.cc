#include "tools/progress.h"

#include <algorithm>
#include <ostream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr std::string_view clear_line = "\r\033[K";

std::size_t terminal_columns() {
  winsize size = {};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
  return size.ws_col;
}

void draw(tool_progress &progress, std::string_view doing) {
  constexpr auto pause = std::chrono::milliseconds(100);
  const auto now = std::chrono::steady_clock::now();
  if (progress.visible && now - progress.drawn < pause) return;
  progress.drawn = now;
  progress.visible = true;
  // One column stays free: a full line makes some terminals move to the next.
  progress.io.err << clear_line;
  if (progress.total == 0) {
    progress.io.err << progress.done << ' ' << progress.unit << ' ' << doing << std::flush;
    return;
  }
  progress.io.err << tool_progress_line(progress.done, progress.total, doing,
                                        terminal_columns() - 1)
                  << std::flush;
}

}  // namespace

std::string tool_progress_line(std::uint64_t done, std::uint64_t total, std::string_view doing,
                               std::size_t columns) {
  constexpr std::size_t bar_columns = 30;
  const double share = static_cast<double>(std::min(done, total)) / static_cast<double>(total);
  const auto filled = static_cast<std::size_t>(share * bar_columns);
  const std::string percent = std::to_string(static_cast<int>(share * 100));
  std::string line = "[" + std::string(filled, '#') + std::string(bar_columns - filled, '.') + "] ";
  line += std::string(3 - percent.size(), ' ') + percent + "% ";
  if (line.size() >= columns) return line.substr(0, columns);
  const std::size_t room = columns - line.size();
  if (doing.size() > room) {
    doing.remove_prefix(doing.size() - room);
    // What is left begins with a whole character.
    while (!doing.empty() && (static_cast<unsigned char>(doing.front()) & 0xc0U) == 0x80) {
      doing.remove_prefix(1);
    }
  }
  line += doing;
  return line;
}

void tool_progress_step(tool_progress &progress, std::uint64_t more, std::string_view doing) {
  progress.done += more;
  if (progress.io.terminal) {
    draw(progress, doing);
    return;
  }
  if (progress.total == 0) return;
  const auto tenths =
      static_cast<std::uint32_t>(std::min(progress.done, progress.total) * 10 / progress.total);
  if (tenths == progress.tenths) return;
  progress.tenths = tenths;
  progress.io.err << "  " << tenths * 10 << "% of " << progress.total << ' ' << progress.unit
                  << std::endl;
}

void tool_progress_clear(tool_progress &progress) {
  if (progress.visible) progress.io.err << clear_line << std::flush;
  progress.visible = false;
}
