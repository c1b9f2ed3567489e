// Looking into a shard: positions, pages of terms and pages of doc ids, over its log and its data file,
// against a model of what each of them holds.

#include <algorithm>
#include <functional>
#include <gmock/gmock.h>
#include <random>

#include "tests/support/host.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint64_t nowhere = ~std::uint64_t{0};

struct listed_term {
  host_term term{};
  std::uint32_t count = 0;
  std::vector<std::uint64_t> ids;
  friend bool operator==(const listed_term &, const listed_term &) = default;
};

// One source of shard 1: the functions that look into it, and what it holds, newest id first.
struct source {
  decltype(zem_sdb_log_find) *find;
  decltype(zem_sdb_log_keys) *keys;
  decltype(zem_sdb_log_ids) *ids;
  std::map<host_term, std::map<std::uint64_t, bool, std::greater<>>> held;  // false: deleted
};

class ListingTest : public HostTest {
 protected:
  source log_source{zem_sdb_log_find, zem_sdb_log_keys, zem_sdb_log_ids, {}};
  source dat_source{zem_sdb_dat_find, zem_sdb_dat_keys, zem_sdb_dat_ids, {}};

  void insert_into(source &to, const std::vector<host_posting> &postings) const {
    insert_all(postings);
    sync();
    for (const host_posting &posting : postings)
      to.held[posting.term].try_emplace(posting.id, true);
  }
  void remove_from_log(const std::vector<host_posting> &postings) {
    remove_all(postings);
    sync();
    for (const host_posting &posting : postings)
      log_source.held[posting.term][posting.id] = false;
  }

  std::vector<listed_term> page(const source &from, std::int64_t first, std::int64_t limit,
                                std::int32_t &status) const {
    const host_list heads = host_longs({}), thirds(zem_var_new(0, 1));
    const std::unique_ptr<zem_xvars, decltype(&zem_xvars_free)> ids(zem_xvars_new(),
                                                                    zem_xvars_free);
    status = from.keys(sdb.get(), table, 1, first, limit, heads.get(), thirds.get(), ids.get());
    std::vector<listed_term> terms;
    EXPECT_EQ(zem_xvars_size(ids.get()), zem_var_size(heads.get()));
    for (std::int64_t i = 0; i < zem_var_size(heads.get()); ++i) {
      const std::uint64_t head = zem_var_get_long(heads.get(), i);
      listed_term term{{static_cast<std::uint32_t>(head), static_cast<std::uint32_t>(head >> 32),
                        zem_var_get_integer(thirds.get(), i)},
                       zem_var_get_buf(thirds.get(), i),
                       {}};
      const std::uint64_t *values = nullptr;
      const auto count = zem_var_longs(zem_xvars_get(ids.get(), i), &values, nullptr);
      term.ids.assign(values, values + count);
      terms.push_back(std::move(term));
    }
    return terms;
  }

  static std::vector<listed_term> expected_page(const source &from, std::size_t first,
                                                std::size_t limit) {
    std::vector<listed_term> terms;
    std::size_t index = 0;
    for (const auto &[term, ids] : from.held) {
      const std::size_t at = index++;
      if (at < first || at - first >= limit || !ids.begin()->second) continue;
      listed_term row{term, static_cast<std::uint32_t>(ids.size()), {}};
      for (const auto &[id, live] : ids) {
        if (row.ids.size() < 11) row.ids.push_back(id);
      }
      terms.push_back(std::move(row));
    }
    return terms;
  }

  void expect_pages(const source &from) const {
    const std::size_t terms = from.held.size();
    for (const std::size_t limit : {std::size_t{1}, std::size_t{3}, terms, terms + 1}) {
      for (std::size_t first = 0; first <= terms; first += limit) {
        std::int32_t status = 0;
        const auto found =
            page(from, static_cast<std::int64_t>(first), static_cast<std::int64_t>(limit), status);
        EXPECT_EQ(status, first + limit < terms ? 1 : 0) << first << " " << limit;
        EXPECT_TRUE(found == expected_page(from, first, limit)) << first << " " << limit;
      }
    }
    std::int32_t status = 0;
    EXPECT_TRUE(page(from, -3, 0, status) == expected_page(from, 0, terms));
    EXPECT_EQ(status, 0);
  }

  void expect_positions(const source &from) const {
    std::uint64_t index = 0;
    for (const auto &[term, ids] : from.held) {
      EXPECT_EQ(position(from, term), index);
      const host_term before{term[0], term[1], term[2] - 1};
      const bool gap = term[2] > 0 && !from.held.contains(before);
      EXPECT_EQ(gap ? position(from, before) : index, index);
      ++index;
    }
    EXPECT_EQ(position(from, {9, 9, 9}), nowhere);
  }
  std::uint64_t position(const source &from, const host_term &term) const {
    std::uint32_t shard = 77;
    std::uint64_t found = 77;
    EXPECT_EQ(from.find(sdb.get(), table, host_head(term), term[2], &shard, &found), 0);
    EXPECT_EQ(shard, 1U);
    return found;
  }

  void expect_ids(const source &from) const {
    for (const auto &[term, held] : from.held) {
      const auto size = static_cast<std::int64_t>(held.size());
      for (const std::int64_t offset :
           {std::int64_t{0}, std::int64_t{3}, size / 2, size - 1, size}) {
        for (const std::int64_t limit : {std::int64_t{0}, std::int64_t{2}, size / 3, size})
          expect_id_page(from, term, offset, limit);
      }
    }
    const host_list none = host_longs({1});
    EXPECT_EQ(from.ids(sdb.get(), table, 1, 9, 9, 0, 0, none.get()), 0);
    EXPECT_EQ(zem_var_size(none.get()), 0);
  }
  void expect_id_page(const source &from, const host_term &term, std::int64_t offset,
                      std::int64_t limit) const {
    const auto &held = from.held.at(term);
    std::vector<std::uint64_t> expected;
    std::int64_t i = 0;
    for (const auto &[id, live] : held) {
      if (i >= offset && (limit <= 0 || i < offset + limit)) expected.push_back(id);
      ++i;
    }
    const host_list ids = host_longs({77});  // emptied first
    EXPECT_EQ(from.ids(sdb.get(), table, 1, host_head(term), term[2], offset, limit, ids.get()), 1);
    const std::uint64_t *values = nullptr;
    const auto count = zem_var_longs(ids.get(), &values, nullptr);
    EXPECT_TRUE(std::equal(values, values + count, expected.begin(), expected.end()))
        << term[0] << " " << offset << " " << limit;
  }
  void expect_all(const source &from) const {
    expect_pages(from);
    expect_positions(from);
    expect_ids(from);
  }

  // Short terms, and a few that fill blocks of a data file whole.
  static std::vector<host_posting> mixed_postings() {
    std::mt19937_64 random(11);
    std::vector<host_posting> postings;
    for (std::uint32_t third = 0; third < 120; ++third) {
      const bool is_long = third % 40 == 7;
      const std::size_t count = is_long ? 9000 * (third / 40 + 1) : random() % 25 + 1;
      for (std::size_t i = 0; i < count; ++i)
        postings.push_back({{third / 60, 5, 2 * third}, random() % 1'000'000 + 1});
    }
    std::sort(postings.begin(), postings.end());
    postings.erase(std::unique(postings.begin(), postings.end()), postings.end());
    return postings;
  }
};

TEST_F(ListingTest, LogAndDataFileShowWhatTheyHoldPageByPage) {
  insert_into(log_source, mixed_postings());
  const auto &newest = *log_source.held.begin();
  const host_term &some = std::next(log_source.held.begin(), 3)->first;
  remove_from_log({{newest.first, newest.second.begin()->first},
                   {some, log_source.held[some].rbegin()->first}});
  expect_all(log_source);

  merge();
  for (const auto &[term, ids] : log_source.held) {
    for (const auto &[id, live] : ids) {
      if (live) dat_source.held[term].try_emplace(id, true);
    }
  }
  log_source.held.clear();
  expect_all(dat_source);
  EXPECT_EQ(position(log_source, cat), nowhere);
  insert_into(log_source, {{cat, 1}, {cat, 2}, {dog, 7}});
  expect_all(log_source);
  expect_all(dat_source);
}

TEST_F(ListingTest, WhatIsNotThereIsAnsweredByItsCode) {
  const host_list list = host_longs({7});
  const std::unique_ptr<zem_xvars, decltype(&zem_xvars_free)> lists(zem_xvars_new(),
                                                                    zem_xvars_free);
  std::uint32_t shard = 77;
  std::uint64_t at = 77;
  for (const source *from : {&log_source, &dat_source}) {
    std::int32_t status = 77;
    EXPECT_THAT(page(*from, 0, 0, status), IsEmpty());
    EXPECT_EQ(status, 0);
    EXPECT_EQ(position(*from, cat), nowhere);
    EXPECT_EQ(from->keys(sdb.get(), table, 2, 0, 0, list.get(), list.get(), lists.get()),
              ZEM_SDB_E_SHARD);
    EXPECT_EQ(from->find(sdb.get(), 99, 0, 0, &shard, &at), ZEM_SDB_E_HANDLE);
    EXPECT_EQ(from->keys(sdb.get(), 99, 1, 0, 0, list.get(), nullptr, lists.get()), -EINVAL);
    EXPECT_EQ(zem_var_size(list.get()), 1);
    EXPECT_EQ(from->ids(sdb.get(), 99, 1, 0, 0, 0, 0, list.get()), ZEM_SDB_E_HANDLE);
    EXPECT_EQ(zem_var_size(list.get()), 0);  // emptied before the look-up
    zem_var_add_long(list.get(), 7);
  }
  EXPECT_EQ(shard + at, 77U + 77);
  EXPECT_THAT(log.errors(), ElementsAre("log keys error: -904", "dat keys error: -904"));
}

}  // namespace
