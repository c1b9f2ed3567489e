// Many postings with the default settings. SDB_SCALE_POSTINGS says how many; a million by default, and
// ten million to see what the library is for:
//
//   SDB_SCALE_POSTINGS=10000000 sdb_tests --gtest_filter='HostScaleTest.*'

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <gmock/gmock.h>
#include <iostream>
#include <numeric>
#include <thread>

#include "tests/support/file_reader.h"
#include "tests/support/host.h"

namespace {

using ::testing::IsEmpty;
using namespace std::chrono_literals;
using duration = std::chrono::steady_clock::duration;

constexpr std::uint64_t postings_a_term = 10;
// Of the log maps, with the default 8 MiB a log: one that a merge works on, and a live one that
// writers are slowed down for, at some 8 bytes of memory for one of file.
constexpr std::uint64_t map_bytes_max = 256 << 20;
constexpr duration slow_down = 50ms;  // one step of it

double millis(duration time) { return std::chrono::duration<double, std::milli>(time).count(); }

template <class Body>
duration time_of(Body &&body) {
  const auto begin = std::chrono::steady_clock::now();
  body();
  return std::chrono::steady_clock::now() - begin;
}

class HostScaleTest : public HostTest {
 protected:
  HostScaleTest() {
    const char *wanted = std::getenv("SDB_SCALE_POSTINGS");  // NOLINT(concurrency-mt-unsafe)
    const std::uint64_t postings = wanted == nullptr ? 1'000'000 : std::stoull(wanted);
    terms = postings / postings_a_term;
    stride = terms * 5 / 8 + 1;
    while (std::gcd(stride, terms) != 1)
      ++stride;
  }

  // Posting n has id n + 1. Each round of `terms` postings goes through all terms, in leaps.
  host_term term_of(std::uint64_t n) const { return term_number(n % terms * stride % terms); }
  static host_term term_number(std::uint64_t number) {
    return {static_cast<std::uint32_t>(number >> 4), static_cast<std::uint32_t>(number & 15), 42};
  }

  void expect_every_id() {
    std::vector<std::uint64_t> first(terms);  // the id of a term's posting in the first round
    for (std::uint64_t n = 0; n < terms; ++n)
      first[n * stride % terms] = n + 1;
    duration longest{};
    const duration all = time_of([&] {
      for (std::uint64_t number = 0; number < terms && !HasFailure(); ++number) {
        std::vector<std::uint64_t> expected, found;
        for (std::uint64_t round = 0; round < postings_a_term; ++round)
          expected.push_back(first[number] + round * terms);
        longest = std::max(longest, time_of([&] { found = find(term_number(number)); }));
        ASSERT_EQ(found, expected) << "term " << number;
      }
    });
    std::cout << "  every term asked: " << millis(all) << " ms, longest query " << millis(longest)
              << " ms\n";
  }

  std::uint64_t terms = 0;
  std::uint64_t stride = 0;  // without a divisor in common with `terms`
};

TEST_F(HostScaleTest, EveryIdOfManyPostingsIsFound) {
  const std::uint64_t postings = terms * postings_a_term;
  std::cout << postings << " postings, " << terms << " terms\n";

  std::atomic<bool> over = false;
  duration longest_query{};
  std::uint64_t queries = 0;
  std::uint64_t map_bytes = 0;
  std::thread asker([&] {
    while (!over) {
      const host_term term = term_number(++queries * 7919 % terms);
      longest_query = std::max(longest_query, time_of([&] { find(term); }));
      if (queries % 64 == 0) map_bytes = std::max(map_bytes, totals().msize);
    }
  });
  duration longest{}, longest_free{};
  std::uint64_t held = 0;  // inserts as long as a slow-down or longer
  const duration inserts = time_of([&] {
    for (std::uint64_t n = 0; n < postings && !HasFailure(); ++n) {
      const host_term term = term_of(n);
      const duration time = time_of([&] { insert(term, n + 1); });
      longest = std::max(longest, time);
      if (time >= slow_down) {
        ++held;
      } else {
        longest_free = std::max(longest_free, time);
      }
    }
  });
  over = true;
  asker.join();
  std::cout << "  inserted: " << millis(inserts) << " ms; " << held
            << " inserts of 50 ms or more, up to " << millis(longest) << " ms; the longest other "
            << millis(longest_free) << " ms\n  beside them " << queries << " queries, the longest "
            << millis(longest_query) << " ms; maps of " << (map_bytes >> 20) << " MiB\n";
  EXPECT_LT(map_bytes, map_bytes_max);

  std::cout << "  synced: " << millis(time_of([&] { sync(); })) << " ms\n";
  const duration merging = time_of([&] {
    wait_idle();
    merge();
  });
  std::cout << "  merged: " << millis(merging) << " ms\n";
  EXPECT_EQ(totals().xcount, postings);
  EXPECT_THAT(key_count(), ::testing::Pair(0, terms));
  expect_every_id();

  std::cout << "  reopened: " << millis(time_of([&] { reopen(); })) << " ms\n";
  expect_every_id();
  close();
  const file_content file = read_data_file(path("sdb_1.dat"));
  EXPECT_THAT(file.faults, IsEmpty());
  EXPECT_EQ(file.records.size(), postings);
  EXPECT_EQ(file.terms, terms);
  EXPECT_THAT(log.errors(), IsEmpty());
}

}  // namespace
