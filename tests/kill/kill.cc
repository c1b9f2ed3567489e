// Kills a process that writes, again and again, and looks at what it leaves.
//
//   sdb_kill SECONDS [SEED]
//
// A child inserts postings with rising ids, commits, syncs and merges, and tells in shared memory how
// far it has come. After a random time it is killed. Then its table must hold every posting that a
// sync covered, each once, and none that was never begun. Ends with 1 at the first that is not so.

#include <atomic>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <new>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "include/zem_sdb.h"
#include "tests/support/host.h"
#include "tests/support/temp_dir.h"

namespace {

using std::chrono::steady_clock;

constexpr std::uint64_t terms = 512;
constexpr std::uint64_t postings_a_table = 300'000;
constexpr unsigned longest_life_ms = 150;
// A merge of each MiB, and nobody slowed down: as much as possible goes on when the kill comes.
constexpr const char *settings =
    "<table><merge_num>1</merge_num><merge_time>0</merge_time><commit_num>500</commit_num>"
    "<commit_time>0</commit_time></table>";

// What the children have come to. Ids from 1 on are inserted in order.
struct progress {
  std::atomic<std::uint64_t> begun = 0;
  std::atomic<std::uint64_t> synced = 0;
};

std::uint64_t head_of(std::uint64_t id) { return id * 7 % terms; }

// An open table of a database of its own.
struct opened {
  explicit opened(const std::string &root) : sdb(zem_sdb_new(root.c_str(), log.get())) {
    table = zem_sdb_table_open(sdb.get(), "t");
  }
  // Inserts the ids up to `end`.
  bool insert(std::uint64_t begin, std::uint64_t end) const {
    for (std::uint64_t id = begin; id <= end; ++id) {
      if (zem_sdb_insert(sdb.get(), table, id, head_of(id), 0) < 0) return false;
    }
    return true;
  }
  bool sync() const { return zem_sdb_sync(sdb.get(), table) >= 0; }

  host_log log;
  host_sdb sdb;
  std::uint64_t table = 0;
};

[[noreturn]] void write_until_killed(const std::string &root, progress &shared,
                                     std::uint64_t seed) {
  std::mt19937_64 random(seed);
  const opened writer(root);
  for (;;) {
    const std::uint64_t begin = shared.begun + 1;
    shared.begun = shared.begun + 1 + random() % 2000;
    if (!writer.insert(begin, shared.begun)) _exit(2);
    const std::uint64_t next = random() % 8;
    if (next < 3 && writer.sync()) shared.synced = shared.begun.load();
    if (next == 3) zem_sdb_commit(writer.sdb.get(), writer.table);
    if (next == 4) zem_sdb_merge(writer.sdb.get(), writer.table);
  }
}

// Counts the ids that the table holds; false when one is not where it was inserted, or is there twice.
bool find_all(const opened &reader, std::vector<bool> &held) {
  for (std::uint64_t head = 0; head < terms; ++head) {
    const host_list heads = host_longs({head});
    const host_list thirds = host_longs({0});
    const host_list ids(zem_var_new(0, 1));
    const std::int32_t st =
        zem_sdb_query(reader.sdb.get(), reader.table, heads.get(), thirds.get(), ids.get());
    if (st < 0) return false;
    for (std::int64_t i = 0; i < zem_var_size(ids.get()); ++i) {
      const std::uint64_t id = zem_var_get_long(ids.get(), i);
      if (id >= held.size() || held[id] || head_of(id) != head) return false;
      held[id] = true;
    }
  }
  return true;
}

// Says what is wrong, if anything. What was begun and is not there is inserted again.
const char *check(const opened &reader, progress &shared) {
  if (reader.table == 0) return "the table does not open";
  if (!reader.log.errors().empty()) return "the open has found damage";
  std::vector<bool> held(shared.begun + 1);
  if (!find_all(reader, held)) return "an id is found that should not be, or twice";
  for (std::uint64_t id = 1; id <= shared.synced; ++id) {
    if (!held[id]) return "an id is lost that a sync covered";
  }
  if (!reader.insert(shared.synced + 1, shared.begun)) return "the table takes no inserts";
  if (!reader.sync()) return "the table does not sync";
  shared.synced = shared.begun.load();
  return nullptr;
}

// One life of a child.
const char *kill_one(const std::string &root, progress &shared, std::mt19937_64 &random) {
  const std::uint64_t seed = random();
  const std::chrono::milliseconds life(random() % longest_life_ms);
  const pid_t child = fork();
  if (child < 0) return "no child can be started";
  if (child == 0) write_until_killed(root, shared, seed);
  std::this_thread::sleep_for(life);
  kill(child, SIGKILL);
  int ended = 0;
  waitpid(child, &ended, 0);
  if (!WIFSIGNALED(ended)) return "the child ended by itself";

  const opened reader(root);
  const char *wrong = check(reader, shared);
  if (wrong == nullptr) return nullptr;
  for (const std::string &line : reader.log.errors())
    std::cerr << line << '\n';
  return wrong;
}

// Kills children on one table until it has grown large or the time is over.
const char *kill_on_one_table(progress &shared, std::mt19937_64 &random,
                              steady_clock::time_point end, std::uint64_t &kills) {
  const temp_dir root;
  std::filesystem::create_directory(root.path("t"));
  std::ofstream(root.path("t/sdb.xml")) << settings;
  shared.begun = 0;
  shared.synced = 0;
  while (shared.begun < postings_a_table && steady_clock::now() < end) {
    if (const char *wrong = kill_one(root.path(), shared, random)) return wrong;
    ++kills;
  }
  return nullptr;
}

}  // namespace

int main(int argc, char **argv) {
  unsigned seconds = 0;
  std::uint64_t seed = 1;
  const auto number = [](const char *text, auto &value) {
    return std::from_chars(text, text + std::strlen(text), value).ec == std::errc{};
  };
  if (argc < 2 || !number(argv[1], seconds) || (argc > 2 && !number(argv[2], seed))) {
    std::cerr << "usage: sdb_kill SECONDS [SEED]\n";
    return 2;
  }
  void *memory =
      mmap(nullptr, sizeof(progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return 2;
  progress &shared = *new (memory) progress;

  std::mt19937_64 random(seed);
  std::uint64_t kills = 0;
  const steady_clock::time_point end = steady_clock::now() + std::chrono::seconds(seconds);
  while (steady_clock::now() < end) {
    const char *wrong = kill_on_one_table(shared, random, end, kills);
    if (wrong == nullptr) continue;
    std::cerr << "after " << kills << " kills with seed " << seed << ": " << wrong << "\n  begun "
              << shared.begun << ", synced " << shared.synced << '\n';
    return 1;
  }
  std::cout << kills << " kills, nothing lost\n";
  return 0;
}
