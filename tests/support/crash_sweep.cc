#include "tests/support/crash_sweep.h"

#include <array>
#include <iostream>
#include <iterator>
#include <sstream>
#include <unordered_set>

namespace {

constexpr std::uint64_t seed = 20'24;
constexpr std::size_t lives_each = 32;  // one of so many directories gets a second life

// The posting that ends a shard's range, where there are several.
posting last_of(std::uint32_t number) { return {{number * words_a_shard - 1, 0, 0}, 0}; }

std::uint64_t mix(std::uint64_t sum, std::uint64_t value) {
  sum = (sum ^ value) * 0x9E3779B97F4A7C15ULL;
  return sum ^ (sum >> 32);
}

std::uint64_t sum_of(const posting &p) {
  return mix(mix(mix(p.id, p.term[0]), p.term[1]), p.term[2]);
}

// Does not depend on an order, and changes with a posting as it comes and goes.
std::uint64_t sum_of(const postings &all) {
  std::uint64_t sum = 0;
  for (const posting &p : all)
    sum ^= sum_of(p);
  return sum;
}

std::uint64_t sum_of(const promise &given) {
  std::uint64_t sum = given.next != nullptr ? sum_of(*given.next) : 0;
  for (const auto &[number, shard] : given.shards)
    sum = mix(mix(mix(sum, shard.model), shard.committed), shard.begun);
  return sum;
}

}  // namespace

disk_state shards_state(std::uint32_t count) {
  const temp_dir directory;
  const disk_recorder recorder(directory.path());
  std::vector<postings> content(count);
  for (std::uint32_t number = 1; count > 1 && number <= count; ++number)
    content[number - 1].insert(last_of(number));
  make_table(directory.path(), content);
  return disk_state::load(directory.path());
}

disk_state peer_state() {
  const temp_dir directory;
  const disk_recorder recorder(directory.path());
  const std::string beside = directory.path(table_life::peer_name);
  std::filesystem::create_directory(beside);
  for (const std::string &each : {directory.path(), beside})
    make_table(each, {{}});
  return disk_state::load(directory.path());
}

std::vector<posting> keys(std::uint32_t word0, std::uint64_t first_id, std::size_t count) {
  std::vector<posting> some;
  for (std::size_t i = 0; i < count; ++i)
    some.push_back(key(word0, first_id + i));
  return some;
}

std::vector<posting> terms(std::uint32_t word0, std::uint32_t first, std::uint32_t count) {
  std::vector<posting> some;
  for (std::uint32_t i = 0; i < count; ++i)
    some.push_back({{word0, first + i, 0}, 1});
  return some;
}

void model_shard::begin_with(postings all) {
  sums = {sum_of(all)};
  dat_ = first_ = std::move(all);
}

void model_shard::update(const posting &p, bool insert) {
  const bool before = holds(p);
  if (insert) {
    log_.try_emplace(p, true);
  } else if (const auto place = log_.find(p); place != log_.end()) {
    place->second = false;  // a delete reaches only what the live log holds
  }
  const bool turned = holds(p) != before;
  sums.push_back(sums.back() ^ (turned ? sum_of(p) : 0));
  turned_.push_back(turned ? std::optional(p) : std::nullopt);
}

void model_shard::freeze() { frozen_ = std::exchange(log_, {}); }

void model_shard::merged() {
  for (const auto &[p, live] : std::exchange(frozen_, {})) {
    if (live) {
      dat_.insert(p);
    } else {
      dat_.erase(p);
    }
  }
}

model_shard model_shard::half(const posting &last_of_lower, bool upper) const {
  model_shard whole = *this;
  whole.merged();
  const auto goes = [&](const posting &p) { return (last_of_lower < p) == upper; };
  postings all;
  std::copy_if(whole.dat_.begin(), whole.dat_.end(), std::inserter(all, all.end()), goes);
  model_shard part;
  for (const auto &change : log_) {
    if (!goes(change.first)) continue;
    part.log_.insert(change);
    change.second ? void(all.insert(change.first)) : void(all.erase(change.first));
  }
  part.begin_with(std::move(all));
  return part;
}

void model_shard::rewind(std::size_t updates) {
  sums.resize(updates + 1);
  turned_.resize(updates);
  log_.clear();
  frozen_.clear();
  dat_ = first_;
  for (const std::optional<posting> &p : turned_) {
    if (p && dat_.erase(*p) == 0) dat_.insert(*p);
  }
}

bool model_shard::holds(const posting &p) const {
  for (const log_map *log : {&log_, &frozen_}) {
    if (const auto place = log->find(p); place != log->end()) return place->second;
  }
  return dat_.contains(p);
}

promise::shard &promise::owner(const posting &p) {
  shard *found = nullptr;
  for (auto &[number, one] : shards) {
    if (!(p < one.after) && (found == nullptr || found->after < one.after)) found = &one;
  }
  return *found;
}

const promise &recording::promised(std::size_t done) const {
  return std::prev(promises.upper_bound(done))->second;
}

void scripted_life::expect_shards(std::uint32_t count) {
  for (std::uint32_t number = 1; number <= count; ++number) {
    now_.shards[number] = {.model = models_.size()};
    if (number > 1) now_.shards[number].after = last_of(number - 1);
    models_.emplace_back();
    if (count > 1) models_.back().begin_with(last_of(number));
  }
  note();
}

void scripted_life::expect(const promise &given, const std::vector<model_shard> &models) {
  now_ = given;
  models_ = models;
  note();
}

void scripted_life::open() {
  ASSERT_EQ(table.open(), zem_ok);
  ASSERT_EQ(table.wait(), zem_yes);
}

void scripted_life::sync() {
  ASSERT_EQ(table.sync(), zem_ok);
  committed();
}

void scripted_life::close() {
  ASSERT_EQ(table.close(), zem_ok);
  committed();
}

void scripted_life::clear() {
  const promise cleared{.shards = {{1, {.model = models_.size()}}}, .next = nullptr};
  models_.emplace_back();
  now_.next = std::make_shared<promise>(cleared);
  note();
  ASSERT_EQ(zem_table_clear(*table), zem_ok);
  now_ = cleared;
  note();
}

void scripted_life::merge() {
  ASSERT_EQ(table.merge(), zem_yes);
  for (const auto &[number, shard] : now_.shards) {
    models_[shard.model].freeze();
    models_[shard.model].merged();
  }
}

void scripted_life::begin() {
  zem_shard &shard = table.shard(1);
  const zem_write_guard held(shard.lock);
  if (!zem_shard_frozen(shard)) model_of(1).freeze();
  ASSERT_EQ(zem_shard_merge_begin(shard), zem_ok);
}

void scripted_life::pass() { ASSERT_EQ(zem_shard_merge(table.shard(1)), zem_ok); }

void scripted_life::end() {
  zem_shard &shard = table.shard(1);
  const zem_write_guard held(shard.lock);
  remains_ = std::make_unique<zem_shard_remains>();
  ASSERT_EQ(zem_shard_merge_end(shard, *remains_), zem_ok);
  model_of(1).merged();
}

void scripted_life::release() {
  ASSERT_EQ(zem_shard_merge_release(table.shard(1), *remains_), zem_ok);
}

void scripted_life::cancel() {
  zem_shard &shard = table.shard(1);
  const zem_write_guard held(shard.lock);
  zem_shard_merge_cancel(shard);
}

void scripted_life::split(const std::function<void()> &live, const std::function<void()> &parked) {
  const std::size_t begun = recorder_->count();
  note();
  {
    const zem_shard &shard = table.shard(1);
    const zem_read_guard held(shard.lock);
    if (!zem_shard_frozen(shard)) model_of(1).freeze();
  }
  ASSERT_EQ(table.split([&](const std::string &line) {
    if (line.starts_with("split rest")) live();
    if (line.starts_with("split notify (0)")) parked();
  }),
            zem_ok);
  ASSERT_FALSE(table.unsplit());

  const zem_shard &low = *table.shards().front();
  const posting boundary = table_life::last_of(low);
  const std::uint32_t upper =
      table.moved_after ? peer_shards + 1 : static_cast<std::uint32_t>(table.shards().back()->id);
  const model_shard whole = model_of(1);
  const promise halves{.shards = {{low.id, {.model = models_.size()}},
                                  {upper, {.model = models_.size() + 1, .after = boundary}}},
                       .next = nullptr};
  models_.push_back(whole.half(boundary, false));
  models_.push_back(whole.half(boundary, true));
  // Both are whole before the list turns to them, and nothing tells here when it does.
  for (auto at = promises_.lower_bound(begun); at != promises_.end(); ++at)
    at->second.next = std::make_shared<promise>(halves);
  now_ = halves;
  note();
}

recording scripted_life::stop() {
  table.kill();
  recording made{recorder_->story(), promises_, models_};
  recorder_.reset();
  return made;
}

void scripted_life::update(const std::vector<posting> &some, bool insert) {
  for (const posting &p : postings(some.begin(), some.end())) {  // a batch goes in key order
    promise::shard &owner = now_.owner(p);
    models_[owner.model].update(p, insert);
    owner.begun = models_[owner.model].sums.size() - 1;
  }
  note();
  ASSERT_EQ(table.route(some, insert ? 1 : 0), zem_ok);
}

void scripted_life::committed() {
  for (auto &[number, shard] : now_.shards)
    shard.committed = shard.begun;
  note();
}

void scripted_life::note() { promises_.insert_or_assign(recorder_->count(), now_); }

namespace {

using crash_visitor = std::function<void(const crash &)>;

// A kill, also in the middle of the operation that comes next: of a write some pages are done.
void every_kill(const disk_state &state, const disk_op *next, const crash_visitor &visit) {
  constexpr std::size_t page = 4096;
  visit({state, "killed"});
  if (next == nullptr || next->what != disk_op::kind::write) return;
  const std::size_t first = page - next->size % page;
  const std::size_t most = next->bytes.size() < first ? 0 : (next->bytes.size() - first) / page;
  for (const std::size_t pages : std::set{std::size_t{0}, most / 2, most}) {
    const std::size_t bytes = first + pages * page;
    if (bytes >= next->bytes.size()) continue;
    crash halfway{state, "killed after " + std::to_string(bytes) + " bytes of a write", true};
    halfway.left.apply(disk_op_part(*next, bytes));
    visit(halfway);
  }
}

// Which changes of names have landed: all subsets where they are few, else every beginning and
// some others.
std::vector<std::vector<bool>> every_landing(std::size_t pending, std::mt19937_64 &random) {
  constexpr std::size_t few = 5;
  constexpr std::size_t others = 16;
  std::vector<std::vector<bool>> landings;
  for (std::size_t set = 0; pending <= few && set < std::size_t{1} << pending; ++set) {
    std::vector<bool> &landed = landings.emplace_back();
    for (std::size_t i = 0; i < pending; ++i)
      landed.push_back((set >> i & 1) != 0);
  }
  if (pending <= few) return landings;
  for (std::size_t count = 0; count <= pending; ++count) {
    landings.emplace_back(pending, false);
    std::fill_n(landings.back().begin(), count, true);
  }
  for (std::size_t i = 0; i < others; ++i) {
    std::vector<bool> &landed = landings.emplace_back();
    for (std::size_t k = 0; k < pending; ++k)
      landed.push_back(random() % 2 == 0);
  }
  return landings;
}

void every_cut(const disk_state &state, std::mt19937_64 &random, const crash_visitor &visit) {
  constexpr int tries = 2;  // of what is left to chance
  for (const std::vector<bool> &landed : every_landing(state.pending(), random)) {
    std::string names = "power cut, names landed: ";
    for (const bool one : landed)
      names += one ? '1' : '0';
    visit({state.cut(landed, disk_cut::dropped, random), names + ", data dropped"});
    visit({state.cut(landed, disk_cut::kept, random), names + ", data kept"});
    for (int i = 0; i < tries; ++i) {
      visit({state.cut(landed, disk_cut::mixed, random), names + ", data mixed"});
      visit({state.cut(landed, disk_cut::torn_512, random), names + ", data torn at 512", true});
      visit({state.cut(landed, disk_cut::torn_4k, random), names + ", data torn at 4096", true});
    }
  }
}

}  // namespace

void every_crash(const disk_story &story, std::size_t first,
                 const std::function<void(std::size_t done, const crash &end)> &visit) {
  std::mt19937_64 random(seed);
  disk_state state = story.start;
  for (std::size_t done = 0; done <= story.ops.size(); ++done) {
    if (done > 0) state.apply(story.ops[done - 1]);
    if (done < first || (story.ops.size() - done) % sweep_stride != 0) continue;
    const disk_op *next = done < story.ops.size() ? story.ops[done].get() : nullptr;
    const auto visit_this = [&](const crash &end) { visit(done, end); };
    every_kill(state, next, visit_this);
    every_cut(state, random, visit_this);
  }
}

std::string tell(const disk_story &story, std::size_t done) {
  constexpr std::array kinds{"create",   "make_dir", "rename", "remove",
                             "sync_dir", "write",    "resize", "sync"};
  constexpr std::size_t before = 16;
  constexpr std::size_t after = 2;
  std::ostringstream text;
  const std::size_t end = std::min(done + after, story.ops.size());
  for (std::size_t i = done > before ? done - before : 0; i < end; ++i) {
    const disk_op &op = *story.ops[i];
    if (i == done) text << "  -- crash --\n";
    text << "  " << i << ": " << kinds.at(static_cast<std::size_t>(op.what)) << ' ' << op.name
         << ' ' << op.to << " file " << op.file << " at " << op.size << ", " << op.bytes.size()
         << " bytes\n";
  }
  return text.str();
}

namespace {

using shard_sums = std::map<std::uint32_t, std::uint64_t>;

shard_sums sums_of(table_life &table) {
  shard_sums sums;
  for (const zem_shard *shard : table.shards())
    sums[shard->id] = sum_of(shard_postings(*shard));
  for (const zem_shard *shard : table.shards_there())
    sums[peer_shards + shard->id] = sum_of(shard_postings(*shard));
  return sums;
}

// Narrows a promise to what the tables hold; false when they hold something else.
bool narrow(const shard_sums &sums, const std::vector<model_shard> &models, promise &promised) {
  promise found = promised;
  found.next = nullptr;
  if (sums.size() != found.shards.size()) return false;
  for (auto &[number, shard] : found.shards) {
    if (!sums.contains(number)) return false;
    const std::vector<std::uint64_t> &known = models[shard.model].sums;
    while (shard.begun > shard.committed && known[shard.begun] != sums.at(number))
      --shard.begun;
    if (known[shard.begun] != sums.at(number)) return false;
  }
  promised = found;
  return true;
}

void find(const shard_sums &sums, const std::vector<model_shard> &models, promise &promised) {
  if (promised.next != nullptr) {
    promise next = *promised.next;
    if (narrow(sums, models, next)) {
      promised = next;
      return;
    }
  }
  if (narrow(sums, models, promised)) return;
  std::ostringstream text;
  for (const auto &[number, shard] : promised.shards)
    text << " shard " << number << " between its updates " << shard.committed
         << ", the last committed, and " << shard.begun << ", the last begun;";
  FAIL() << "not what is promised:" << text.str() << " shards found: " << sums.size();
}

void check_lines(table_life &table, const crash &end) {
  for (const std::string &line : table.lines.take()) {
    const bool of_block = line.find(", block ") != std::string::npos;
    EXPECT_TRUE(of_block && end.torn) << line;
  }
}

// Nothing of a merge is left. What a split has retired may be: no list names it.
void check_names(const disk_state &state, const shard_sums &listed) {
  for (const auto &[number, sum] : listed) {
    const std::string directory = number < peer_shards ? "" : table_life::peer_name;
    for (const char *suffix : {zem_suffix::frozen_log, zem_suffix::new_dat, zem_suffix::old_dat}) {
      const std::string name = zem_shard_fname(directory, number % peer_shards, suffix);
      EXPECT_EQ(state.find(name), nullptr) << name;
    }
  }
}

// Opens what a crash left, compares it with what was promised, narrows that to what was found, and
// tries whether the table works on.
void judge(const crash &end, const std::vector<model_shard> &models, promise &promised) {
  const temp_dir directory;
  auto recorder = std::make_unique<disk_recorder>(directory.path(), end.left);
  table_life table(directory.path());
  ASSERT_EQ(table.open(), zem_ok);
  ASSERT_EQ(table.wait(), zem_yes);
  check_lines(table, end);
  shard_sums sums = sums_of(table);
  ASSERT_NO_FATAL_FAILURE(find(sums, models, promised));
  table.kill();

  ASSERT_EQ(table.open(), zem_ok) << "a second time";
  ASSERT_EQ(table.wait(), zem_yes);
  ASSERT_EQ(sums_of(table), sums) << "a second open finds something else";
  for (const auto &[number, shard] : promised.shards) {
    const posting extra{{shard.after.term[0], 9999, 0}, 1};
    ASSERT_GE(table.route({&extra, 1}, 1), zem_ok);
    sums.at(number) ^= sum_of(extra);
  }
  ASSERT_EQ(table.sync(), zem_ok);
  ASSERT_EQ(table.merge(), zem_yes);
  ASSERT_EQ(sums_of(table), sums) << "a merge changes something";
  ASSERT_EQ(table.close(), zem_ok);

  std::mt19937_64 random(seed);
  const disk_state closed = recorder->state();
  check_names(closed, sums);
  recorder.reset();
  const std::vector<bool> none(closed.pending(), false);
  recorder = std::make_unique<disk_recorder>(directory.path(),
                                             closed.cut(none, disk_cut::dropped, random));
  ASSERT_EQ(table.open(), zem_ok) << "after a close and a power cut";
  ASSERT_EQ(table.wait(), zem_yes);
  ASSERT_EQ(sums_of(table), sums) << "a close and a power cut lose something";
  table.kill();
}

// What files there are, and which of them are empty.
std::string shape(const disk_state &state) {
  std::string text;
  for (const std::string &name : state.names())
    text += name + (state.find(name)->size() == 0 ? " " : "+ ");
  return text;
}

}  // namespace

void CrashTest::work_on(scripted_life &life) {
  life.insert({{{1, 8888, 0}, 1}, {{1, 8888, 0}, 2}});
  life.sync();
  life.merge();
  life.insert({{{1, 8888, 0}, 3}});
}

void CrashTest::sweep(const char *what, scripted_life &life, const script &second_life) {
  tally total;
  sweep_recording(life.stop(), second_life, total);
  print(what, total);
}

void CrashTest::sweep(const char *what, const disk_story &story, std::size_t turn,
                      const std::function<void(const crash &end, bool turned)> &judge) {
  tally total{.operations = story.ops.size()};
  std::unordered_set<std::uint64_t> seen;
  every_crash(story, 0, [&](std::size_t done, const crash &end) {
    if (HasFailure()) return;
    ++total.points;
    const bool turned = done >= turn;
    if (!seen.insert(mix(end.left.hash(), turned ? 1 : 0)).second) return;
    ++total.distinct;
    judge(end, turned);
    if (HasFailure())
      std::cout << end.how << " after " << done << " operations\n" << tell(story, done);
  });
  print(what, total);
}

void CrashTest::print(const char *what, const tally &total) {
  std::cout << "[   SWEPT  ] " << what << ": " << total.operations << " operations, "
            << total.points << " crash points, " << total.distinct << " directories opened, "
            << total.lives << " second lives" << std::endl;
}

void CrashTest::sweep_recording(const recording &life, const script &second_life, tally &total) {
  std::mt19937_64 random(seed + total.lives);
  std::unordered_set<std::uint64_t> seen;
  std::set<std::string> lived;
  total.operations += life.story.ops.size();
  every_crash(life.story, 0, [&](std::size_t done, const crash &end) {
    if (HasFailure()) return;
    ++total.points;
    const promise &promised = life.promised(done);
    if (!seen.insert(mix(end.left.hash(), sum_of(promised))).second) return;
    if (!second_life && random() % tried_each != 0) return;
    ++total.distinct;
    promise found = promised;
    judge(end, life.models, found);
    if (!HasFailure() && second_life &&
        (lived.insert(shape(end.left)).second || random() % lives_each == 0)) {
      ++total.lives;
      live_on(end, life.models, promised, found, second_life, total);
    }
    if (HasFailure())
      std::cout << end.how << " after " << done << " operations\n" << tell(life.story, done);
  });
}

// What was found gets another life, of which every point is a crash again.
void CrashTest::live_on(const crash &end, std::vector<model_shard> models, const promise &promised,
                        const promise &found, const script &second_life, tally &total) {
  for (const auto &[number, shard] : found.shards)
    models[shard.model].rewind(shard.begun);
  scripted_life life(end.left);
  // Before it was opened, a table may still turn out to be as before the clear or the split.
  const bool turned = found.shards.begin()->second.model != promised.shards.begin()->second.model;
  life.expect(turned ? promised : found, models);
  life.open();
  life.expect(found, models);
  second_life(life);
  sweep_recording(life.stop(), nullptr, total);
}
