// Random histories of a log, killed or cut from power over several lives: the replay must bring back
// a prefix of what was written, with everything in it that a finished commit covered.
#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <random>
#include <utility>
#include <vector>

#include "tests/support/disk.h"
#include "tests/support/log_file.h"

namespace {

constexpr std::uint32_t last_blk = 5;       // a life ends here
constexpr std::uint64_t page_bytes = 4096;  // a kill leaves a write's first pages

class LogCrashTest : public LogTest {
 protected:
  std::uint64_t pick(std::uint64_t below) { return random() % below; }

  static bool before(const log_posting &a, const log_posting &b) {
    return zem_xtree_key_compare(a.term, a.id, b.term, b.id) < 0;
  }

  // Replays what a crash left and forgets what it lost.
  void recover() {
    const zem_status st = reopen();
    ASSERT_TRUE(st >= zem_ok || st == zem_status{ZEM_SDB_E_CHECKSUM}) << st;
    ASSERT_GE(spm->sum_recs, committed) << "lost";
    ASSERT_LE(spm->sum_recs, written.size()) << "foreign";
    written.resize(spm->sum_recs);

    std::vector<log_posting> expected = written;
    std::stable_sort(expected.begin(), expected.end(), before);
    const auto kept = std::unique(expected.rbegin(), expected.rend(),  // the last record counts
                                  [](const auto &a, const auto &b) { return !before(b, a); });
    expected.erase(expected.begin(), kept.base());
    ASSERT_TRUE(postings() == expected) << "foreign";
  }

  // A few steps; `commits` receives how many operations were done and records written by each.
  void live(const disk_recorder &disk, std::vector<std::pair<std::size_t, std::size_t>> &commits) {
    const std::uint64_t base = pick(2) == 0 ? 0 : 1'000'000 * ++epoch;
    zem_term term{1, 2, 3};
    for (std::uint64_t left = 1 + pick(30); left > 0 && spm->blk_no < last_blk; --left) {
      constexpr std::array<std::uint64_t, 6> most{8, 8, 600, 600, 4000, 1};
      const std::uint64_t what = pick(6);
      if (pick(3) == 0) term[1] = static_cast<std::uint32_t>(pick(1'000'000));
      for (std::uint64_t i = pick(most[what]); i > 0 && spm->blk_no < last_blk; --i) {
        if (what == 1) term[1] = static_cast<std::uint32_t>(pick(1'000'000));
        log_posting record{term, base + written.size() + 1};
        if (!written.empty() && pick(5) == 0) record = written[pick(written.size())];
        record.deleted = record.id != base + written.size() + 1;
        record.deleted ? remove(record.term, record.id) : insert(record.term, record.id);
        written.push_back(record);
      }
      if (what != 3 && what != 5) continue;
      ASSERT_EQ(commit(), zem_ok);
      commits.emplace_back(disk.count(), written.size());
    }
  }

  // What a crash somewhere in the story leaves. `done` receives the operations before it.
  disk_state crash(const disk_story &story, std::size_t &done) {
    done = pick(story.ops.size() + 1);
    disk_state state = story.start;
    for (std::size_t i = 0; i < done; ++i)
      state.apply(story.ops[i]);
    if (pick(2) == 0) {
      constexpr std::array<disk_cut, 5> cuts{disk_cut::dropped, disk_cut::kept, disk_cut::mixed,
                                             disk_cut::torn_512, disk_cut::torn_4k};
      return state.cut(std::vector<bool>(state.pending(), true), cuts[pick(cuts.size())], random);
    }
    if (done < story.ops.size() && story.ops[done]->what == disk_op::kind::write) {
      const disk_op &op = *story.ops[done];
      const std::uint64_t end = (op.size / page_bytes + pick(17)) * page_bytes;
      if (end > op.size && end < op.size + op.bytes.size())
        state.apply(disk_op_part(op, static_cast<std::size_t>(end - op.size)));
    }
    return state;
  }

  std::mt19937_64 random;
  std::uint64_t epoch = 0;           // ids of another million each
  std::vector<log_posting> written;  // records in the order of the log
  std::size_t committed = 0;         // how many of them a finished commit covers
};

TEST_F(LogCrashTest, NoCrashLosesWhatWasCommittedOrBringsBackWhatWasLost) {
  ASSERT_EQ(zem_spm_close(*spm), zem_ok);
  const disk_state empty = disk_state::load(dir.path());
  for (std::uint64_t seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE(seed);
    random.seed(seed);
    written.clear();
    committed = 0;
    disk_state disk = empty;
    for (std::uint64_t life = 0; life <= 4; ++life) {
      disk_recorder recorder(dir.path(), disk);
      ASSERT_NO_FATAL_FAILURE(recover()) << "life " << life;
      std::vector<std::pair<std::size_t, std::size_t>> commits;
      ASSERT_NO_FATAL_FAILURE(live(recorder, commits));
      std::size_t done = 0;
      disk = crash(recorder.story(), done);
      for (const auto &[operations, records] : commits)
        if (operations <= done) committed = records;
      ASSERT_EQ(zem_spm_close(*spm), zem_ok);
    }
  }
}

}  // namespace
