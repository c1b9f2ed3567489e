// Lives of a table that are recorded along with what they promise, and sweeps that take every point
// of such a life as a crash.
//
// A script runs on a recorded directory and notes what it may rely on: of the updates of each shard a
// prefix, which is as long as the last commit made durable and no longer than what was begun. What a
// crash leaves is opened, compared with the promise of that point, and used: a second open must find
// the same, updates, commits and merges must work, and a close must be proof against a power cut.
// Some of what is left starts a second life, whose operations are swept in turn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/support/disk.h"
#include "tests/support/table_life.h"
#include "tests/support/temp_dir.h"

#ifdef NDEBUG
inline constexpr std::size_t sweep_stride = 1;
#else
inline constexpr std::size_t sweep_stride = 3;  // sanitizers are slow, and see enough with a third
#endif

inline constexpr std::uint32_t words_a_shard = 100;  // shard n begins where word 0 is (n - 1) * 100

// A directory with one empty shard, or several that hold nothing but the ends of their ranges.
disk_state shards_state(std::uint32_t count);
// One empty shard, and a peer that takes its upper half.
disk_state peer_state();

inline posting key(std::uint32_t word0, std::uint64_t id) { return {{word0, 0, 0}, id}; }
std::vector<posting> keys(std::uint32_t word0, std::uint64_t first_id, std::size_t count);
// A term each, so that a log block takes 2848 of them.
std::vector<posting> terms(std::uint32_t word0, std::uint32_t first, std::uint32_t count);

// What a shard is to hold, kept by the rules of updates alone.
class model_shard {
 public:
  // The sum of its content at first and after each update.
  std::vector<std::uint64_t> sums{0};

  void begin_with(const posting &p) { begin_with(postings{p}); }
  void update(const posting &p, bool insert);
  void freeze();
  void merged();
  // What a split makes of it on either side of a key.
  model_shard half(const posting &last_of_lower, bool upper) const;
  // As after so many updates, all merged.
  void rewind(std::size_t updates);

 private:
  using log_map = std::map<posting, bool>;
  void begin_with(postings all);
  bool holds(const posting &p) const;
  postings first_;                              // what it held at first
  std::vector<std::optional<posting>> turned_;  // what came or went with each update
  log_map log_;
  log_map frozen_;
  postings dat_;
};

// What a table may hold after a crash.
struct promise {
  struct shard {
    std::size_t model;                        // index of its model
    std::size_t committed = 0;                // updates that are there
    std::size_t begun = 0;                    // updates that may be there
    posting after = {{}, ~std::uint64_t{0}};  // its range begins behind this
  };
  std::map<std::uint32_t, shard> shards;  // by number; the peer's from `peer_shards` on
  std::shared_ptr<const promise> next;    // or this, where a clear or a split has come that far

  shard &owner(const posting &p);
};
inline constexpr std::uint32_t peer_shards = 1000;

// A life, with its promises.
struct recording {
  disk_story story;
  std::map<std::size_t, promise> promises;  // by the number of operations done before each
  std::vector<model_shard> models;

  const promise &promised(std::size_t done) const;
};

// Records a life that a test scripts.
class scripted_life {
 public:
  explicit scripted_life(const disk_state &start)
      : recorder_(std::make_unique<disk_recorder>(directory_.path(), start)) {
    // Each change is a batch of its own to the peer: in one batch an insert hides a later delete.
    if (start.find(table_life::peer_name) != nullptr) table.cfg.commit_num = 1;
  }

  // What is there at first: shards as shards_state() makes them, or what an earlier life left.
  void expect_shards(std::uint32_t count);
  void expect(const promise &given, const std::vector<model_shard> &models);

  void open();
  void insert(const std::vector<posting> &some) { update(some, true); }
  void remove(const std::vector<posting> &some) { update(some, false); }
  void sync();
  void close();
  void clear();

  void merge();  // all shards, by the worker
  // A merge of shard 1, step by step on this thread.
  void begin();
  void pass();
  void end();
  void release();
  void cancel();
  // Splits shard 1; `live` comes when the frozen log is done with, `parked` while updates are parked.
  void split(const std::function<void()> &live, const std::function<void()> &parked);

  recording stop();  // as it stands

 private:
  temp_dir directory_;
  std::unique_ptr<disk_recorder> recorder_;

 public:
  table_life table{directory_.path()};

 private:
  model_shard &model_of(std::uint32_t number) { return models_[now_.shards.at(number).model]; }
  void update(const std::vector<posting> &some, bool insert);
  void committed();
  void note();

  promise now_;
  std::map<std::size_t, promise> promises_;
  std::vector<model_shard> models_;
  std::unique_ptr<zem_shard_remains> remains_;
};

// One way in which a crash can end a life.
struct crash {
  disk_state left;
  std::string how;
  bool torn = false;  // something was written in part
};

// Visits every crash that can follow the first `done` operations, for each `done` from `first` on.
void every_crash(const disk_story &story, std::size_t first,
                 const std::function<void(std::size_t done, const crash &end)> &visit);
// The last operations before a crash and those after it.
std::string tell(const disk_story &story, std::size_t done);

class CrashTest : public ::testing::Test {
 protected:
  using script = std::function<void(scripted_life &)>;

  // What is done in a second life, to shard 1 of what was found.
  static void work_on(scripted_life &life);

  std::uint64_t tried_each = 1;  // in second lives, one of so many directories left is opened

  // Ends a life and takes every point of it as a crash. Prints how many these were.
  void sweep(const char *what, scripted_life &life, const script &second_life = work_on);
  // The same with a judge of the test's own, which is told whether the first `turn` operations were
  // done, and without second lives.
  void sweep(const char *what, const disk_story &story, std::size_t turn,
             const std::function<void(const crash &end, bool turned)> &judge);

 private:
  struct tally {
    std::size_t operations = 0;
    std::size_t points = 0;    // crashes, each with one choice of what is left
    std::size_t distinct = 0;  // directories left, opened and tried
    std::size_t lives = 0;     // second lives swept as well
  };
  static void print(const char *what, const tally &total);
  void sweep_recording(const recording &life, const script &second_life, tally &total);
  void live_on(const crash &end, std::vector<model_shard> models, const promise &promised,
               const promise &found, const script &second_life, tally &total);
};
