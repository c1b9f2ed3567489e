#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/err.h"

namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

class ErrorLogTest : public ::testing::Test {
 protected:
  static void take(void *context, int level, const char *line) {
    static_cast<ErrorLogTest *>(context)->lines.emplace_back(level, line);
  }
  std::vector<std::pair<int, std::string>> lines;
  std::unique_ptr<zem_err, decltype(&zem_err_free)> log{zem_err_new(take, this), zem_err_free};
};

TEST_F(ErrorLogTest, LinesArriveFormattedAndWithoutTheirEnd) {
  zem_err_log(log.get(), 3, "%s error: %d\r\n", "close", -28);
  zem_err_info(log.get(), "two\nlines\n\n");
  zem_err_log(log.get(), 0, "\n");
  zem_err_log(log.get(), 0, "%s", "100%");

  EXPECT_THAT(lines, ElementsAre(Pair(3, "close error: -28"), Pair(-1, "two\nlines"), Pair(0, ""),
                                 Pair(0, "100%")));
}

TEST_F(ErrorLogTest, ALongLineIsCut) {
  const std::string text(5000, 'x');
  zem_err_log(log.get(), 0, "%s\n", text.c_str());

  ASSERT_EQ(lines.size(), 1U);
  EXPECT_LT(lines[0].second.size(), text.size());
  EXPECT_TRUE(text.starts_with(lines[0].second));
}

TEST_F(ErrorLogTest, NothingToWriteToIsNoError) {
  zem_err_log(nullptr, 0, "%d", 1);
  zem_err_info(nullptr, "%d", 1);
  zem_err_free(nullptr);
  EXPECT_EQ(zem_err_new(nullptr, this), nullptr);
  EXPECT_TRUE(lines.empty());
}

TEST_F(ErrorLogTest, ThreadsTakeTurns) {
  const auto write = [&] {
    for (int i = 0; i < 500; ++i)
      zem_err_log(log.get(), i, "line %d", i);
  };
  std::thread one(write);
  std::thread two(write);
  one.join();
  two.join();

  ASSERT_EQ(lines.size(), 1000U);
  for (const auto &[level, line] : lines)
    EXPECT_EQ(line, "line " + std::to_string(level));
}

}  // namespace
