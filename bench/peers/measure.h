// What a benchmark reads off its process and its files.
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>

inline double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

inline double processor_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Of a field of the process's status, for instance "VmRSS".
inline double memory_mib(const char *field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field)) return std::stod(line.substr(line.find(':') + 1)) / 1024;
  }
  return 0;
}

inline void forget_peak_memory() { std::ofstream("/proc/self/clear_refs") << 5; }

inline double disk_bytes(const std::string &directory) {
  double bytes = 0;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(directory)) {
    struct ::stat status {};
    if (::stat(entry.path().c_str(), &status) == 0 && entry.is_regular_file())
      bytes += static_cast<double>(status.st_blocks) * 512;
  }
  return bytes;
}
