// Files and streams that are damaged, forged or nonsense: the table opens, answers from what is whole,
// takes updates, and never crashes or asks for memory without bound.

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <random>
#include <sys/resource.h>

#include "tests/support/file_reader.h"
#include "tests/support/host.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HOSTILE_MEMORY_IS_THE_SANITIZERS
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HOSTILE_MEMORY_IS_THE_SANITIZERS
#endif
#endif

namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::IsEmpty;

constexpr std::size_t block_bytes = 65536;

// Keeps the process from growing by more than a gigabyte: what asks for more gets no memory, which
// shows in a result. The sanitizers reserve terabytes, so nothing is kept from them.
class memory_limit {
 public:
  memory_limit() {
#ifndef HOSTILE_MEMORY_IS_THE_SANITIZERS
    EXPECT_EQ(getrlimit(RLIMIT_AS, &before_), 0);
    const std::string pages = read_whole("/proc/self/statm");
    rlimit limit = before_;
    limit.rlim_cur = std::stoull(pages) * 4096 + (std::size_t{1} << 30);
    EXPECT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
#endif
  }
  ~memory_limit() {
#ifndef HOSTILE_MEMORY_IS_THE_SANITIZERS
    EXPECT_EQ(setrlimit(RLIMIT_AS, &before_), 0);
#endif
  }
  memory_limit(const memory_limit &) = delete;
  memory_limit &operator=(const memory_limit &) = delete;

 private:
  [[maybe_unused]] rlimit before_{};
};

// Bytes that went wrong in one of the ways of disks, copies and hands.
class mutator {
 public:
  explicit mutator(unsigned seed) : random_(seed) {}

  std::uint64_t below(std::uint64_t limit) { return random_() % limit; }
  std::string noise(std::size_t count) {
    std::string bytes(count, '\0');
    for (char &byte : bytes)
      byte = static_cast<char>(random_());
    return bytes;
  }

  // Any text or stream.
  std::string garble(std::string bytes) {
    for (std::uint64_t changes = 1 + below(4); changes > 0; --changes) {
      const std::size_t at = bytes.empty() ? 0 : below(bytes.size());
      switch (below(5)) {
        case 0:
          bytes.insert(at, noise(1 + below(20)));
          break;
        case 1:
          bytes.erase(at, 1 + below(20));
          break;
        case 2:
          bytes.resize(at);
          break;
        case 3:
          bytes.insert(at, bytes.substr(below(bytes.size() + 1), below(200)));
          break;
        default:
          if (!bytes.empty()) bytes[at] = static_cast<char>(random_());
      }
    }
    return bytes;
  }

  // A file of blocks. Checksums that were right are not made right again.
  std::string damage(std::string bytes) {
    const std::size_t block = below(bytes.size() / block_bytes) * block_bytes;
    switch (below(6)) {
      case 0:
        for (std::uint64_t flips = 1 + below(20); flips > 0; --flips)
          bytes[block + below(block_bytes)] ^= static_cast<char>(1 << below(8));
        break;
      case 1:
        bytes[block + below(100)] ^= static_cast<char>(1 + below(255));
        break;
      case 2: {
        const std::size_t at = below(block_bytes);
        bytes.replace(block + at, block_bytes - at, noise(block_bytes - at));
        break;
      }
      case 3:
        bytes.replace(block, block_bytes, std::string(block_bytes, '\0'));
        break;
      case 4:
        bytes.resize(block + below(block_bytes));
        break;
      default:
        bytes.replace(block, block_bytes,
                      bytes.substr(below(bytes.size() / block_bytes) * block_bytes, block_bytes));
    }
    return bytes;
  }

  // Changes the numbers of a block, mostly those of its head, under a checksum that holds.
  std::string forge(std::string bytes) {
    const std::size_t block = below(bytes.size() / block_bytes) * block_bytes;
    for (std::uint64_t changes = 1 + below(3); changes > 0; --changes) {
      const std::size_t at = 4 + below(below(3) == 0 ? block_bytes - 4 : 60);
      constexpr std::array<std::uint64_t, 4> extremes{0, 1, 127, 255};
      bytes[block + at] = static_cast<char>(below(2) == 0 ? random_() : extremes[below(4)]);
    }
    const std::uint32_t sum =
        file_checksum(std::string_view(bytes).substr(block + 4, block_bytes - 4));
    for (std::size_t i = 0; i < 4; ++i)
      bytes[block + i] = static_cast<char>(sum >> (8 * i));
    return bytes;
  }

 private:
  std::mt19937_64 random_;
};

// A table with a data file and a log of several blocks each, in which no posting is in both, as a
// kill leaves it.
class HostHostileTest : public HostTest {
 protected:
  using ids = std::set<std::uint64_t>;
  static constexpr host_term fresh{9999, 9, 9};

  void build() {
    configure({{"commit_num", 500}, {"commit_time", 0}, {"merge_time", 0}});
    std::vector<host_posting> merged;
    for (std::uint32_t term = 0; term < 40; ++term) {
      for (std::uint64_t id = 1; id <= (term % 10 == 0 ? 9000U : 300U); ++id)
        merged.push_back({{term / 8, term % 8, 1}, id});
    }
    insert_all(merged);
    merge();
    std::vector<host_posting> logged, deleted;
    for (std::uint32_t i = 0; i < 20'000; ++i)
      logged.push_back({{i % 60 / 8, i % 8, 1}, 20'000 + i});
    for (std::uint32_t i = 0; i < 100; ++i)
      deleted.push_back(logged[i * 3]);
    insert_all(logged);
    sync();
    remove_all(deleted);
    sync();
    close();

    data = read_data_file(path("sdb_1.dat"));
    changes = read_log_file(path("sdb_1.log"));
    ASSERT_THAT(data.faults, IsEmpty());
    ASSERT_THAT(changes.faults, IsEmpty());
    ASSERT_GT(data.data_blocks, 5U);
    ASSERT_GT(changes.blocks, 2U);
    ASSERT_EQ(changes.records.size(), logged.size() + deleted.size());
    // Two blocks of zeros behind the end are enough.
    fs::resize_file(path("sdb_1.dat"), (data.data_blocks + data.index_blocks + 2) * block_bytes);
    fs::resize_file(path("sdb_1.log"), (changes.blocks + 2) * block_bytes);
    data_bytes = read_whole(path("sdb_1.dat"));
    log_bytes = read_whole(path("sdb_1.log"));
  }

  // Puts the table's files back as they were, with one of them changed.
  void lay_out(const std::string &name, const std::string &bytes) {
    for (const std::string &file : files())
      fs::remove_all(path(file));
    write_file("sdb.xml",
               "<table><commit_num>500</commit_num><flush_time>99999</flush_time></table>");
    write_file("sdb.lst", "1");
    write_file("sdb_1.dat", data_bytes);
    write_file("sdb_1.log", log_bytes);
    write_file(name, bytes);
    log.forget();
  }

  static std::set<std::size_t> blocks_that_differ(const std::string &a, const std::string &b) {
    std::set<std::size_t> blocks;
    for (std::size_t at = 0; at < std::max(a.size(), b.size()); at += block_bytes) {
      const auto block = [&](const std::string &bytes) {
        return at < bytes.size() ? std::string_view(bytes).substr(at, block_bytes)
                                 : std::string_view();
      };
      if (block(a) != block(b)) blocks.insert(at / block_bytes);
    }
    return blocks;
  }

  // What must be found in spite of the damage, and what may be.
  struct bounds {
    std::map<host_term, ids> least, most;
    std::set<host_term> damaged;  // of these a query may fail
  };
  void count_data(bounds &of, const std::set<std::size_t> &damaged) const {
    for (const file_data::record &record : data.records) {
      const auto &[term, id] = record.posting;
      of.most[term].insert(id);
      if (damaged.contains(record.block)) {
        of.damaged.insert(term);
      } else {
        of.least[term].insert(id);
      }
    }
  }
  // The log ends at its first damaged block. `merged`: deletes that it holds may have been done.
  void count_log(bounds &of, const std::set<std::size_t> &damaged, bool merged) const {
    const std::size_t end = damaged.empty() ? changes.blocks : *damaged.begin();
    for (const file_log::record &record : changes.records) {
      const auto &[term, id] = record.posting;
      of.most[term].insert(id);
      if (record.block < end && record.mark == file_mark::inserted) of.least[term].insert(id);
      if (merged && record.mark == file_mark::deleted) of.least[term].erase(id);
    }
  }

  void expect_within(const bounds &of) const {
    for (const auto &[term, most] : of.most) {
      const host_answer answer = query({{term}});
      ids found;
      for (const auto &[id, tag] : answer.ids)
        found.insert(id);
      const auto least = of.least.find(term);
      const bool holds =
          least == of.least.end() ||
          std::includes(found.begin(), found.end(), least->second.begin(), least->second.end());
      const bool may_fail = of.damaged.contains(term);
      EXPECT_TRUE(holds || may_fail) << term[0] << '.' << term[1] << " lost postings";
      EXPECT_TRUE(std::includes(most.begin(), most.end(), found.begin(), found.end()))
          << term[0] << '.' << term[1] << " holds what was never inserted";
      if (may_fail) {
        EXPECT_THAT(answer.status, AnyOf(0, ZEM_SDB_E_CHECKSUM, ZEM_SDB_E_KIND));
      } else {
        EXPECT_EQ(answer.status, 0) << term[0] << '.' << term[1];
      }
    }
  }

  // Everything that a host does, on a table of which nothing is known: no result but those that are
  // told of damage.
  void use_anything() {
    const auto fair = AnyOf(0, 1, ZEM_SDB_E_CHECKSUM, ZEM_SDB_E_KIND, ZEM_SDB_E_SHARD);
    open();
    for (int life = 0; life < 2; ++life) {
      for (std::uint32_t term = 0; term < 60; ++term)
        EXPECT_THAT(query({{{term / 8, term % 8, 1}}}).status, fair);
      EXPECT_THAT(zem_sdb_insert(sdb.get(), table, 5, host_head(fresh), fresh[2]), fair);
      EXPECT_THAT(zem_sdb_sync(sdb.get(), table), fair);
      EXPECT_THAT(zem_sdb_merge(sdb.get(), table), fair);
      wait_idle();
      std::uint64_t a = 0, b = 0, c = 0, d = 0;
      EXPECT_EQ(zem_sdb_table_count(sdb.get(), table, &a, &b, &c, &d), 0);
      EXPECT_THAT(zem_sdb_table_close(sdb.get(), table), fair);
      open();
    }
    EXPECT_THAT(zem_sdb_table_clear(sdb.get(), table), fair);
    sync();
    insert(fresh, 6);
    sync();
    EXPECT_THAT(find(fresh), ::testing::Contains(6));
    close();
  }

  file_data data;
  file_log changes;
  std::string data_bytes, log_bytes;
};

// In which file the damage is, the seed, and how often.
struct hostile_run {
  const char *file;
  unsigned seed;
  int cases;
};

class HostDamageTest : public HostHostileTest, public ::testing::WithParamInterface<hostile_run> {
 protected:
  void SetUp() override {
    build();
    RecordProperty("seed", static_cast<int>(GetParam().seed));
  }
};

TEST_P(HostDamageTest, WhatLiesOutsideTheDamageStays) {
  const memory_limit limit;
  mutator random(GetParam().seed);
  const std::string file = GetParam().file;
  const bool in_data = file == "sdb_1.dat";
  const std::string &whole = in_data ? data_bytes : log_bytes;
  for (int i = 0; i < GetParam().cases && !HasFailure(); ++i) {
    SCOPED_TRACE("case " + std::to_string(i));
    const std::string damaged = random.damage(whole);
    const std::set<std::size_t> blocks = blocks_that_differ(whole, damaged);
    bounds before, after;
    for (bounds *of : {&before, &after}) {
      count_data(*of, in_data ? blocks : std::set<std::size_t>{});
      count_log(*of, in_data ? std::set<std::size_t>{} : blocks, of == &after);
      for (std::uint64_t id = 1; id <= 100; ++id) {
        of->least[fresh].insert(id);
        of->most[fresh].insert(id);
      }
    }
    lay_out(file, damaged);
    open();
    for (std::uint64_t id = 1; id <= 100; ++id)
      insert(fresh, id);
    sync();
    expect_within(before);
    EXPECT_EQ(zem_sdb_merge(sdb.get(), table), 0);
    wait_idle();
    expect_within(after);
    reopen();
    expect_within(after);
    close();
  }
}

INSTANTIATE_TEST_SUITE_P(Files, HostDamageTest,
                         ::testing::Values(hostile_run{"sdb_1.dat", 1, 30},
                                           hostile_run{"sdb_1.log", 2, 30}),
                         [](const auto &each) { return each.index == 0 ? "Data" : "Log"; });

class HostForgeryTest : public HostDamageTest {};

TEST_P(HostForgeryTest, RightChecksumsOverNonsenseBreakNothing) {
  const memory_limit limit;
  mutator random(GetParam().seed);
  const std::string file = GetParam().file;
  for (int i = 0; i < GetParam().cases && !HasFailure(); ++i) {
    SCOPED_TRACE("case " + std::to_string(i));
    std::string bytes = file == "sdb_1.dat" ? data_bytes : log_bytes;
    for (std::uint64_t blocks = 1 + random.below(3); blocks > 0; --blocks)
      bytes = random.forge(std::move(bytes));
    lay_out(file, bytes);
    use_anything();
  }
}

TEST_P(HostForgeryTest, NoiseInPlaceOfAFileBreaksNothing) {
  const memory_limit limit;
  mutator random(GetParam().seed + 100);
  for (int i = 0; i < GetParam().cases / 4 && !HasFailure(); ++i) {
    SCOPED_TRACE("case " + std::to_string(i));
    lay_out(GetParam().file, random.noise(random.below(4 * block_bytes)));
    use_anything();
  }
}

INSTANTIATE_TEST_SUITE_P(Files, HostForgeryTest,
                         ::testing::Values(hostile_run{"sdb_1.dat", 3, 40},
                                           hostile_run{"sdb_1.log", 4, 40}),
                         [](const auto &each) { return each.index == 0 ? "Data" : "Log"; });

TEST_F(HostHostileTest, AnySettingsFileOpens) {
  const memory_limit limit;
  mutator random(5);
  const std::string real = read_whole(path("sdb.xml"));
  std::vector<std::string> texts{"", "<", std::string(3 << 20, '<'), std::string(100, '\0')};
  std::string deep;
  for (int i = 0; i < 100'000; ++i)
    deep += "<table>";
  texts.push_back(deep);
  for (int i = 0; i < 60; ++i)
    texts.push_back(i % 4 == 0 ? random.noise(random.below(2000)) : random.garble(real));
  close();
  std::uint64_t id = 0;
  for (const std::string &text : texts) {
    write_file("sdb.xml", text);
    open();
    insert(cat, ++id);
    sync();
    EXPECT_EQ(find(cat).size(), id);
    close();
  }
}

TEST_F(HostHostileTest, NoListDestroysAFile) {
  build();
  const memory_limit limit;
  mutator random(6);
  for (int i = 0; i < 60 && !HasFailure(); ++i) {
    SCOPED_TRACE("case " + std::to_string(i));
    lay_out("sdb.lst", i % 4 == 0 ? random.noise(random.below(300)) : random.garble("1\n2\n33\n"));
    open();
    std::set<std::uint32_t> numbers;
    for (const host_row &row : shards())
      numbers.insert(row.attribute);
    insert(fresh, 5);
    sync();
    EXPECT_FALSE(find(fresh).empty());
    close();
    bool kept = numbers.contains(1);
    for (const std::string &file : files())
      kept = kept || read_whole(path(file)) == data_bytes;
    EXPECT_TRUE(kept);
  }
}

TEST_F(HostHostileTest, ListOfMoreShardsThanTheSystemOpensCostsNothing) {
  insert(cat, 5);
  close();
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit few{std::min<rlim_t>(before.rlim_cur, 256), before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  std::string list;
  for (int number = 1; number < 500; ++number)
    list += std::to_string(number) + '\n';
  write_file("sdb.lst", list);
  open();
  EXPECT_THAT(shards(), IsEmpty());
  insert(dog, 6);
  EXPECT_EQ(zem_sdb_table_close(sdb.get(), table), ZEM_SDB_E_SHARD);
  EXPECT_EQ(read_whole(path("sdb.lst")), list);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  write_file("sdb.lst", "1");
  open();
  EXPECT_THAT(find(cat), ::testing::ElementsAre(5));
}

TEST_F(HostHostileTest, AnyStreamLoadsIntoABatch) {
  const memory_limit limit;
  mutator random(7);
  const host_doc batch =
      host_batch({{{cat, 1}, 1}, {{cat, 2}, 0}, {{dog, 1}, 1}, {{ant, 7}, 1}, {{ant, 6}, 1}}, 5);
  const host_list stream = host_longs({});
  zem_sdb_doc_dumps(batch.get(), stream.get());
  const char *text = nullptr;
  std::int64_t length = 0;
  ASSERT_EQ(zem_var_get_string(stream.get(), -1, &text, &length), 1);
  const std::string real(text, static_cast<std::size_t>(length));
  ASSERT_EQ(real.size(), 2U + 3 * 14 + 5 * 9);

  for (int i = 0; i < 2000; ++i) {
    const std::string bytes = i % 4 == 0 ? random.noise(random.below(300)) : random.garble(real);
    zem_var_set_string(stream.get(), -1, bytes.data(), static_cast<std::int64_t>(bytes.size()));
    const host_doc loaded(zem_sdb_doc_new());
    zem_sdb_doc_loads(loaded.get(), stream.get());
    std::size_t postings = 0;
    zem_xtree_node *node = zem_sdb_doc_iter(loaded.get());
    for (; node != nullptr; ++postings)
      node = zem_sdb_doc_next(loaded.get(), node, nullptr, nullptr, nullptr);
    EXPECT_LE(postings * 9, bytes.size());
    zem_sdb_doc_set_val(loaded.get(), 1, 1);
    EXPECT_EQ(zem_sdb_update(sdb.get(), table, loaded.get(), nullptr), 0);
  }
  merge();
  reopen();
}

}  // namespace
