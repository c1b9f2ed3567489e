// A directory of a test's own, removed with everything in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <system_error>

class temp_dir {
 public:
  temp_dir() : path_((std::filesystem::temp_directory_path() / "sdb-test-XXXXXX").string()) {
    EXPECT_NE(::mkdtemp(path_.data()), nullptr);
  }
  ~temp_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  temp_dir(const temp_dir &) = delete;
  temp_dir &operator=(const temp_dir &) = delete;

  const std::string &path() const { return path_; }
  std::string path(const std::string &name) const { return path_ + '/' + name; }

 private:
  std::string path_;
};
