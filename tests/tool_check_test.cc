// `sdb check` and `sdb repair`: every kind of fault is planted into a copy of a sound table.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "src/spx_impl.h"
#include "tests/support/file_reader.h"
#include "tests/support/host.h"
#include "tests/support/table_life.h"
#include "tests/support/tool_run.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAreArray;

constexpr std::size_t block_bytes = 65536;
constexpr std::size_t block_ids = 8188;  // of one term, in a full data block

std::size_t at(std::size_t block, std::size_t byte) { return block * block_bytes + byte; }

// A directory of a table, with verbs to damage it.
struct table_files {
  std::string directory;

  std::string path(const std::string &name) const { return directory + '/' + name; }
  std::string read(const std::string &name, std::size_t from, std::size_t count) const {
    return read_whole(path(name)).substr(from, count);
  }
  void write(const std::string &name, std::size_t from, const std::string &bytes) const {
    std::fstream file(path(name), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(from));
    file << bytes;
    ASSERT_TRUE(file.flush());
  }
  void replace(const std::string &name, const std::string &bytes) const {
    std::ofstream(path(name), std::ios::binary | std::ios::trunc) << bytes;
  }
  void rename(const std::string &from, const std::string &to) const {
    fs::rename(path(from), path(to));
  }
  void copy(const std::string &from, const std::string &to) const {
    fs::copy_file(path(from), path(to), fs::copy_options::overwrite_existing);
  }
  void remove(const std::string &name) const { EXPECT_TRUE(fs::remove(path(name))); }
  void resize(const std::string &name, std::size_t bytes) const {
    fs::resize_file(path(name), bytes);
  }
  void flip(const std::string &name, std::size_t byte) const {
    write(name, byte, std::string(1, static_cast<char>(read(name, byte, 1)[0] ^ 0x10)));
  }
  // Changes a block and gives it the checksum of its new bytes.
  void forge(const std::string &name, std::size_t block,
             const std::function<void(std::string &)> &change) const {
    std::string bytes = read(name, at(block, 0), block_bytes);
    change(bytes);
    const std::uint32_t crc = file_checksum(std::string_view(bytes).substr(4));
    for (std::size_t i = 0; i < 4; ++i)
      bytes[i] = static_cast<char>(crc >> (8 * i));
    write(name, at(block, 0), bytes);
  }
  void forge_byte(const std::string &name, std::size_t block, std::size_t byte, int value) const {
    forge(name, block, [&](std::string &bytes) { bytes[byte] = static_cast<char>(value); });
  }
  // Writes the index of shard 1 anew, with its first `keep` entries, changed.
  void index(std::size_t keep,
             const std::function<void(zem_spx_val &, std::size_t)> &change) const {
    zem_spx old, spx;
    zem_mkey mkey;
    old.file.name = spx.file.name = path("sdb_1.dat");
    ASSERT_EQ(zem_spx_open(old, zem_file_mode::existing), zem_ok);
    ASSERT_EQ(zem_spx_open(spx, zem_file_mode::existing), zem_ok);
    ASSERT_EQ(zem_spx_load(old, mkey, nullptr), zem_ok);
    std::size_t i = 0;
    for (const auto *node = zem_xtree_node_first(old.tree); node != nullptr && i < keep;
         node = node->next, ++i) {
      zem_spx_val val = *node->value;
      change(val, i + 1);
      zem_spx_add_blk(spx, node->term, node->id, val);
    }
    ASSERT_EQ(zem_spx_merge(spx, old.blk_num + 1), zem_ok);
  }
  // Moves all entries of the index of shard 1 to a second block of it.
  void chain_index(std::size_t data_blocks) const {
    const std::string head = read("sdb_1.dat", 0, block_bytes);
    forge("sdb_1.dat", 0, [&](std::string &bytes) {
      std::fill(bytes.begin() + 5, bytes.begin() + 8, '\0');
      bytes[12] = static_cast<char>(data_blocks + 1);
      std::fill(bytes.begin() + 16, bytes.end(), '\0');
    });
    forge("sdb_1.dat", data_blocks + 1, [&](std::string &bytes) {
      bytes = head.substr(0, 8) + std::string(4, '\0') + head.substr(16) + std::string(4, '\0');
    });
  }
};

// Two shards. Shard 1: data blocks 1 to 3 are full of `big`, block 4 holds the rest of it and five
// terms behind it; log blocks 0 to 2 are full and block 3, which was committed twice, is not. Shard 2:
// two data blocks, an empty log.
class ToolCheckTest : public HostTest {
 protected:
  static constexpr host_term big{1, 0, 0};

  ToolCheckTest() {
    close();
    postings first, second;
    for (std::uint64_t i = 1; i <= 3 * block_ids + 100; ++i)
      first.insert({big, 2 * i});
    for (std::uint32_t i = 0; i < 5; ++i)
      first.insert({{2, 0, i}, 7});
    for (std::uint32_t i = 0; i < 3000; ++i)
      second.insert({{100, 0, i}, 9});
    make_table(root.path("t"), {first, second});
    open();
    merge();
    std::vector<host_posting> logged;
    for (std::uint32_t i = 0; i < 9000; ++i)
      logged.push_back({{0, 1, i}, 5});
    insert_all(logged);
    sync();
    old_head = base.read("sdb_1.log", at(3, 0), 512);
    // Deleted in the log: some that only it holds, and some of the data file.
    const std::vector<host_posting> twice{{big, 100}, {big, 102}, {{2, 0, 0}, 7}};
    insert_all(twice);
    sync();
    remove_all({logged.begin() + 5000, logged.begin() + 5010});
    remove_all(twice);
    sync();
  }
  tool_run_result sdb(const std::vector<std::string> &arguments) const {
    return run_tool(arguments, stop);
  }
  // Findings as "damage KIND FILE BLOCK BYTE".
  std::vector<std::string> check(const std::string &name) const {
    const tool_run_result run = sdb({"check", root.path(), name, "--json"});
    std::vector<std::string> lines;
    bool damage = false;
    const nlohmann::json json = nlohmann::json::parse(run.out);
    for (const nlohmann::json &each : json["findings"]) {
      std::string line = each["severity"].get<std::string>() + ' ' +
                         each["kind"].get<std::string>() + ' ' + each["file"].get<std::string>();
      if (!each["block"].is_null()) line += ' ' + each["block"].dump();
      if (!each["byte"].is_null()) line += ' ' + each["byte"].dump();
      lines.push_back(line);
      damage = damage || each["severity"] == "damage";
    }
    EXPECT_EQ(run.end, damage ? tool_exit::damaged : tool_exit::done);
    return lines;
  }
  // Cuts most of the zeros off the ends of the closed table's files, which copies faster.
  void shorten() const {
    for (const auto &entry : fs::directory_iterator(base.directory)) {
      if (entry.file_size() > at(16, 0)) fs::resize_file(entry.path(), at(16, 0));
    }
  }
  void copy_table() const {
    fs::remove_all(copied.directory);
    fs::copy(base.directory, copied.directory);
  }
  // Every file with its bytes.
  static std::map<std::string, std::string> snapshot(const std::string &directory) {
    std::map<std::string, std::string> content;
    for (const auto &entry : fs::directory_iterator(directory))
      content[entry.path().filename()] = read_whole(entry.path());
    return content;
  }

  const table_files base{root.path("t")};
  const table_files copied{root.path("c")};
  std::string old_head;  // of log block 3, after its first commit
  std::atomic<bool> stop = false;
};

struct fault {
  const char *name;
  std::function<void(const table_files &)> plant;
  std::vector<std::string> found;
};

std::string place(const char *what, const char *file, std::size_t block, std::size_t byte) {
  return std::string(what) + ' ' + file + ' ' + std::to_string(block) + ' ' +
         std::to_string(at(block, byte));
}

constexpr const char *log_name = "sdb_1.log";
constexpr const char *dat_name = "sdb_1.dat";

std::vector<fault> log_faults(const std::string &old_head) {
  const auto in_log = [](const char *what, std::size_t block, std::size_t byte) {
    return place(what, log_name, block, byte);
  };
  const auto forged = [](std::size_t block, std::size_t byte, int value) {
    return [=](const table_files &t) { t.forge_byte(log_name, block, byte, value); };
  };
  return {
      {"last block",
       [](auto &t) { t.flip(log_name, at(3, 40)); },
       {in_log("damage checksum", 3, 0)}},
      {"block before others",
       [](auto &t) { t.flip(log_name, at(1, 40)); },
       {in_log("damage checksum", 1, 0), in_log("damage log-unreached", 2, 0)}},
      {"kind", forged(3, 4, 2), {in_log("damage kind", 3, 4)}},
      {"fewer postings than its groups", forged(3, 5, 0xd6), {in_log("damage count", 3, 5)}},
      {"more postings than its groups", forged(3, 6, 2), {in_log("damage count", 3, 5)}},
      {"more terms than postings", forged(3, 8, 100), {in_log("damage count", 3, 7)}},
      {"empty group", forged(3, 21, 0), {in_log("damage group", 3, 21)}},
      {"group too long", forged(3, 22, 100), {in_log("damage group", 3, 21)}},
      {"bytes behind the groups", forged(3, 65535, 1), {in_log("damage slack", 3, 65535)}},
      {"torn write of a block committed before",
       [=](auto &t) { t.write(log_name, at(3, 0), old_head); },
       {in_log("note log-torn", 3, 0)}},
      {"torn first write",
       [](auto &t) { t.write(log_name, at(4, 600), "x"); },
       {in_log("note log-tail", 4, 600)}},
      {"block behind a hole",
       [](auto &t) { t.write(log_name, at(5, 0), t.read(log_name, 0, block_bytes)); },
       {in_log("damage log-unreached", 5, 0)}},
      {"bad block behind a hole",
       [](auto &t) { t.write(log_name, at(6, 0), "noise"); },
       {in_log("damage checksum", 6, 0)}},
      {"count of terms", forged(2, 7, 1), {in_log("note log-terms", 2, 7)}},
      {"operation", forged(0, 9 + 14 + 8, 3), {in_log("note log-operation", 0, 31)}},
      {"records twice",
       [](auto &t) { t.write(log_name, at(4, 0), t.read(log_name, 0, block_bytes)); },
       {in_log("note log-record", 4, 23)}},
      {"cut inside a block",
       [](auto &t) { t.resize(log_name, at(3, 100)); },
       {in_log("damage file-end", 3, 100)}},
      {"cut inside zeros",
       [](auto &t) { t.resize(log_name, at(4, 100)); },
       {in_log("note file-end", 4, 100)}},
      {"gone", [](auto &t) { t.remove(log_name); }, {"damage no-log sdb_1.log"}},
  };
}

std::vector<fault> data_faults() {
  const auto in_dat = [](const char *what, std::size_t block, std::size_t byte) {
    return place(what, dat_name, block, byte);
  };
  const auto forged = [](std::size_t block, std::size_t byte, int value) {
    return [=](const table_files &t) { t.forge_byte(dat_name, block, byte, value); };
  };
  const auto indexed = [](std::size_t block, const std::function<void(zem_spx_val &)> &change) {
    return [=](const table_files &t) {
      t.index(4, [&](zem_spx_val &val, std::size_t number) {
        if (number == block) change(val);
      });
    };
  };
  const std::size_t id_end = 9 + 14 + block_ids * 8;
  return {
      {"data block",
       [](auto &t) { t.flip(dat_name, at(2, 99)); },
       {in_dat("damage checksum", 2, 0)}},
      {"kind", forged(2, 4, 1), {in_dat("damage kind", 2, 4)}},
      {"count of postings", forged(2, 5, 1), {in_dat("damage count", 2, 5)}},
      {"count of groups", forged(2, 7, 0), {in_dat("damage count", 2, 7)}},
      {"one group fewer", forged(4, 7, 5), {in_dat("damage count", 4, 5)}},
      {"empty group",
       [](auto &t) { t.forge(dat_name, 2, [](std::string &b) { b[21] = b[22] = 0; }); },
       {in_dat("damage group", 2, 21)}},
      {"group too long", forged(2, 22, 100), {in_dat("damage group", 2, 21)}},
      {"ids out of order", forged(2, 23 + 8 * 3 + 7, 1), {in_dat("damage order", 2, 23 + 24)}},
      {"terms out of order",
       forged(4, 9 + 14 + 800 + 22, 0),
       {in_dat("damage order", 4, 9 + 14 + 800 + 22)}},
      {"last posting", forged(3, id_end - 8, 0xcb), {in_dat("damage entry", 3, id_end - 8)}},
      {"first posting before the end of the block before",
       [](auto &t) { t.write(dat_name, at(3, 0), t.read(dat_name, at(2, 0), block_bytes)); },
       {in_dat("damage order", 3, 9)}},
      {"entry's postings",
       indexed(2, [](zem_spx_val &val) { --val.rec_num; }),
       {in_dat("damage entry", 2, 5)}},
      {"entry's groups",
       indexed(4, [](zem_spx_val &val) { --val.grp_num; }),
       {in_dat("damage entry", 4, 7)}},
      {"entry's continuation mark",
       indexed(4, [](zem_spx_val &val) { val.cont = 0; }),
       {in_dat("damage entry", 4, 9)}},
      {"entry's continuation mark against its term",
       indexed(2, [](zem_spx_val &val) { val.cont = 0; }),
       {in_dat("damage index", 0, 16 + 14 + 2 * 13 - 1)}},
      {"entry's block",
       indexed(2, [](zem_spx_val &val) { val.blk_no = 3; }),
       {in_dat("damage index", 0, 16 + 14 + 13 + 8)}},
      {"block without entry",
       [](auto &t) { t.index(3, [](zem_spx_val &, std::size_t) {}); },
       {in_dat("damage index-short", 4, 0)}},
      {"index head", [](auto &t) { t.flip(dat_name, 30); }, {in_dat("damage checksum", 0, 0)}},
      {"index head of zeros",
       [](auto &t) { t.write(dat_name, 0, std::string(block_bytes, '\0')); },
       {in_dat("damage checksum", 0, 0)}},
      {"index head and a data block of zeros",
       [](auto &t) {
         t.write(dat_name, 0, std::string(block_bytes, '\0'));
         t.write(dat_name, at(2, 0), std::string(block_bytes, '\0'));
       },
       {in_dat("damage checksum", 0, 0), in_dat("damage zeros", 2, 0)}},
      {"kind of the index", forged(0, 4, 2), {in_dat("damage kind", 0, 4)}},
      {"fewer entries", forged(0, 5, 2), {in_dat("damage index", 0, 5)}},
      {"more entries", forged(0, 5, 5), {in_dat("damage index", 0, 5)}},
      {"fewer data blocks",
       forged(0, 8, 3),
       {in_dat("damage index", 0, 16 + 14 + 3 * 13 + 14 + 8)}},
      {"next index block", forged(0, 12, 7), {in_dat("damage index", 0, 12)}},
      {"chained index", [](auto &t) { t.chain_index(4); }, {}},
      {"second block of the index",
       [](auto &t) {
         t.chain_index(4);
         t.flip(dat_name, at(5, 20));
       },
       {in_dat("damage checksum", 5, 0)}},
      {"bytes behind the groups",
       [](auto &t) {
         t.forge_byte(dat_name, 4, 65000, 1);
         t.forge_byte(dat_name, 0, 65000, 1);
       },
       {in_dat("note slack", 0, 65000), in_dat("note slack", 4, 65000)}},
      {"bytes behind the last block",
       [](auto &t) { t.write(dat_name, at(9, 5), "x"); },
       {in_dat("note tail", 9, 5)}},
      {"file cut",
       [](auto &t) { t.resize(dat_name, at(3, 0)); },
       {in_dat("damage file-short", 3, 0)}},
  };
}

std::vector<fault> table_faults() {
  const auto list = [](const char *text) {
    return [=](const table_files &t) { t.replace("sdb.lst", text); };
  };
  const auto settings = [](const char *text) {
    return [=](const table_files &t) { t.replace("sdb.xml", text); };
  };
  const auto make = [](const char *name) {
    return [=](const table_files &t) { t.replace(name, "x"); };
  };
  const std::vector<std::string> strays{"note stray sdb_1.dat", "note stray sdb_1.log",
                                        "note stray sdb_2.dat", "note stray sdb_2.log"};
  std::vector<std::string> cleared{"note list-empty sdb.lst"};
  cleared.insert(cleared.end(), strays.begin(), strays.end());
  return {
      {"odd line", list("1\n2\nx3"), {"damage list-line sdb.lst 4"}},
      {"number 0", list("0\n1\n2"), {"damage list-line sdb.lst 0"}},
      {"listed twice", list("1\n2\n2"), {"note list-order sdb.lst 4"}},
      {"out of order", list("2\n1"), {"note list-order sdb.lst 2"}},
      {"a shard without files", list("1\n2\n3"), {"damage no-data-file sdb_3.dat"}},
      {"a shard not listed", list("2"), {"note stray sdb_1.dat", "note stray sdb_1.log"}},
      {"list gone", [](auto &t) { t.remove("sdb.lst"); }, {"damage list sdb.lst"}},
      {"list of nothing", list("\n"), {"damage list sdb.lst"}},
      {"list emptied", list(""), cleared},
      {"settings gone", [](auto &t) { t.remove("sdb.xml"); }, {"note settings sdb.xml"}},
      {"settings that are none", settings("<table>"), {"damage settings sdb.xml"}},
      {"settings out of range",
       settings("<table><merge_num>0</merge_num><split_num>4095</split_num>"
                "<flush_time>soon</flush_time></table>"),
       {"note setting sdb.xml", "note setting sdb.xml"}},
      {"copy set aside", make("sdb_1.log.bad.1"), {"note aside sdb_1.log.bad.1"}},
      {"list set aside", make("sdb.lst.old"), {"note aside sdb.lst.old"}},
      {"half a list", make("sdb.lst.tmp"), {"note temporary sdb.lst.tmp"}},
      {"somebody else's file", make("sdb_01.dat"), {"note foreign sdb_01.dat"}},
      {"merge left half a data file", make("sdb_1_m.dat"), {"note leftover sdb_1_m.dat"}},
      {"merge was given up",
       [](auto &t) { t.rename(log_name, "sdb_1_m.log"); },
       {"note leftover sdb_1_m.log"}},
      {"merge was done but for the last renames",
       [](auto &t) {
         t.copy(dat_name, "sdb_1_m.dat");
         t.rename(dat_name, "sdb_1_t.dat");
         t.replace("sdb_1_m.log", "removed unread");
       },
       {"note leftover sdb_1_m.dat", "note leftover sdb_1_t.dat", "note leftover sdb_1_m.log"}},
      {"data file under its former name",
       [](auto &t) { t.rename(dat_name, "sdb_1_t.dat"); },
       {"note leftover sdb_1_t.dat"}},
      {"data file gone", [](auto &t) { t.remove(dat_name); }, {"damage no-data-file sdb_1.dat"}},
      {"ranges that overlap",
       [](auto &t) { t.copy(log_name, "sdb_2.log"); },
       {"damage range sdb_2.log 0 0"}},
  };
}

TEST_F(ToolCheckTest, EveryPlantedFaultIsFoundInItsPlaceAndNothingElse) {
  close();
  shorten();
  const std::vector<std::vector<fault>> all{log_faults(old_head), data_faults(), table_faults()};
  for (const std::vector<fault> &faults : all) {
    for (const fault &each : faults) {
      SCOPED_TRACE(each.name);
      copy_table();
      each.plant(copied);
      const auto before = snapshot(copied.directory);
      EXPECT_THAT(check("c"), UnorderedElementsAreArray(each.found));
      EXPECT_TRUE(snapshot(copied.directory) == before) << "check changed something";
      // What makes an open complain was found.
      table_life life(copied.directory);
      EXPECT_EQ(life.open(), zem_ok);
      EXPECT_TRUE(life.lines.take().empty() || !each.found.empty());
    }
  }
}

// Anything at all may stand in a block, under a right checksum too.
TEST_F(ToolCheckTest, NoChangedByteGoesUnseenAndNoContentBreaksTheProgram) {
  close();
  shorten();
  std::mt19937 random(64);
  for (int i = 0; i < 100; ++i) {
    copy_table();
    const char *file = random() % 2 == 0 ? log_name : dat_name;
    const std::size_t block = random() % 4;
    const std::size_t reach = random() % 2 == 0 ? 64 : block_bytes;
    const std::size_t byte = random() % reach;
    SCOPED_TRACE(place("byte of", file, block, byte));
    copied.flip(file, at(block, byte));
    EXPECT_THAT(check("c"), Not(IsEmpty()));
    copied.forge(file, block, [&](std::string &bytes) {
      bytes[byte] = static_cast<char>(random());
      bytes[random() % reach] = static_cast<char>(random());
    });
    check("c");
    if (i % 10 != 0) continue;
    const std::string name = "new" + std::to_string(i);
    EXPECT_NE(sdb({"repair", root.path(), "c", name}).end, tool_exit::failed);
    EXPECT_THAT(check(name), IsEmpty());
  }
}

TEST_F(ToolCheckTest, SoundTablesHaveNoFindings) {
  fs::copy(base.directory, root.path("killed"));
  EXPECT_THAT(check("killed"), IsEmpty());
  const tool_run_result open = sdb({"check", root.path(), "t"});
  EXPECT_EQ(open.end, tool_exit::failed);
  EXPECT_THAT(open.err, HasSubstr("open in another process"));
  merge();
  reopen();
  insert({500, 0, 0}, 1);  // to the last shard
  close();
  EXPECT_THAT(check("t"), IsEmpty());
  const tool_run_result words = sdb({"check", root.path(), "t"});
  EXPECT_THAT(words.out, HasSubstr("no damage, 0 notes"));

  ASSERT_EQ(sdb({"create", root.path(), "never-opened"}).end, tool_exit::done);
  EXPECT_THAT(check("never-opened"), IsEmpty());
  fs::create_directory(root.path("photos"));
  for (const char *name : {"photos", "nowhere", "../", "."})
    EXPECT_EQ(sdb({"check", root.path(), name}).end, tool_exit::failed) << name;

  stop = true;
  const tool_run_result stopped = sdb({"check", root.path(), "t", "--json"});
  EXPECT_EQ(stopped.end, tool_exit::failed);
  EXPECT_EQ(nlohmann::json::parse(stopped.out)["complete"], false);
}

TEST_F(ToolCheckTest, TableThatWasSplitHasNoFindings) {
  configure({{"merge_num", 1}, {"split_num", 1}, {"commit_time", 0}, {"merge_time", 0}});
  for (std::uint32_t part = 0; part < 3; ++part) {
    std::vector<host_posting> some;
    for (std::uint32_t i = 0; i < 120'000; ++i)
      some.push_back({{i % 300, 0, 0}, 120'000 * part + i + 1});
    insert_all(some);
    sync();
    wait_idle();
  }
  ASSERT_GT(shards().size(), 2U);
  close();
  EXPECT_THAT(check("t"), IsEmpty());
}

// ---- repair ----

using skipped = std::set<std::pair<std::string, std::size_t>>;  // files with block numbers

// Applies a log's records one after the other.
void apply(const file_content &log, const std::string &name, const skipped &lost,
           std::set<file_posting> &held) {
  for (const file_content::record &record : log.records) {
    if (lost.contains({name, record.block})) continue;
    if (record.mark == file_mark::inserted) {
      held.insert(record.posting);
    } else {
      held.erase(record.posting);
    }
  }
}

class ToolRepairTest : public ToolCheckTest {
 protected:
  ToolRepairTest() {
    close();
    for (const char *shard : {"sdb_1", "sdb_2"}) {
      const std::string name = base.path(shard);
      sound.push_back({shard, read_data_file(name + ".dat"), read_log_file(name + ".log")});
    }
    shorten();
  }

  // What the sound table comes to without some blocks of it.
  std::set<file_posting> model(const skipped &lost) const {
    std::set<file_posting> held;
    for (const auto &[name, data, changes] : sound) {
      for (const file_content::record &record : data.records) {
        if (!lost.contains({name + ".dat", record.block})) held.insert(record.posting);
      }
      apply(changes, name + ".log", lost, held);
    }
    return held;
  }
  // All postings of a table, by what its data files hold after a merge.
  std::set<file_posting> dump(const std::string &name) {
    table = zem_sdb_table_open(sdb_now().get(), name.c_str());
    EXPECT_NE(table, 0U);
    EXPECT_EQ(zem_sdb_wait(now.get(), table, 120'000), 1);  // for a frozen log
    EXPECT_EQ(zem_sdb_merge(now.get(), table), 0);
    EXPECT_EQ(zem_sdb_wait(now.get(), table, 120'000), 1);
    std::set<file_posting> held;
    const host_keys keys(zem_sdb_keys_new());
    EXPECT_EQ(zem_sdb_shards(now.get(), table, keys.get()), 0);
    EXPECT_EQ(zem_sdb_table_close(now.get(), std::exchange(table, 0)), 0);
    for (const host_row &row : host_rows(keys.get())) {
      const std::string file = root.path(name) + "/sdb_" + std::to_string(row.attribute) + ".dat";
      for (const file_content::record &record : read_data_file(file).records)
        held.insert(record.posting);
    }
    return held;
  }
  // A database that knows tables made meanwhile.
  host_sdb &sdb_now() {
    now.reset(zem_sdb_new(root.path().c_str(), log.get()));
    return now;
  }
  void expect_repaired(tool_exit end, const std::set<file_posting> &expected) {
    fs::remove_all(root.path("new"));
    const auto before = snapshot(copied.directory);
    const tool_run_result run = sdb({"repair", root.path(), "c", "new"});
    EXPECT_EQ(run.end, end) << run.out << run.err;
    EXPECT_TRUE(snapshot(copied.directory) == before) << "repair changed the old table";
    EXPECT_THAT(check("new"), IsEmpty());
    EXPECT_TRUE(dump("new") == expected) << run.out;
  }

  struct shard_content {
    std::string name;
    file_content data, log;
  };
  std::vector<shard_content> sound;
  host_sdb now;
};

TEST_F(ToolRepairTest, AllThatLiesOutsideOfDamagedBlocksIsWrittenAgain) {
  struct damage {
    const char *name;
    std::function<void(const table_files &)> plant;
    skipped lost;
    tool_exit end;
  };
  constexpr tool_exit done = tool_exit::done, damaged = tool_exit::damaged;
  const std::vector<damage> all{
      {"none", [](auto &) {}, {}, done},
      {"data block", [](auto &t) { t.flip(dat_name, at(2, 99)); }, {{dat_name, 2}}, damaged},
      {"log block in the middle",
       [](auto &t) { t.flip(log_name, at(1, 40)); },
       {{log_name, 1}},
       damaged},
      {"log block with deletes",
       [](auto &t) { t.flip(log_name, at(3, 40)); },
       {{log_name, 3}},
       damaged},
      {"index and a data block",
       [](auto &t) {
         t.write(dat_name, 0, std::string(block_bytes, '\0'));
         t.flip(dat_name, at(3, 99));
       },
       {{dat_name, 3}},
       damaged},
      {"index entries", [](auto &t) { t.index(2, [](auto &, auto) {}); }, {}, damaged},
      {"list gone", [](auto &t) { t.remove("sdb.lst"); }, {}, damaged},
      {"list with an odd line", [](auto &t) { t.replace("sdb.lst", "1\n@"); }, {}, damaged},
      {"merge given up", [](auto &t) { t.rename(log_name, "sdb_1_m.log"); }, {}, done},
      {"merge not finished",
       [](auto &t) {
         t.rename(log_name, "sdb_1_m.log");
         t.replace("sdb_1_m.dat", "half of it");
       },
       {},
       done},
      {"merge done but for the last renames",
       [](auto &t) {
         t.copy(dat_name, "sdb_1_m.dat");
         t.rename(dat_name, "sdb_1_t.dat");
         t.replace("sdb_1_m.log", "");
       },
       {},
       done},
      {"data file under its former name",
       [](auto &t) { t.rename(dat_name, "sdb_1_t.dat"); },
       {},
       done},
      {"data file gone",
       [](auto &t) { t.remove(dat_name); },
       {{dat_name, 1}, {dat_name, 2}, {dat_name, 3}, {dat_name, 4}},
       damaged},
  };
  for (const damage &each : all) {
    SCOPED_TRACE(each.name);
    copy_table();
    each.plant(copied);
    expect_repaired(each.end, model(each.lost));
  }
}

// A frozen log and a live log over one data file: the later one decides, and within one the last record.
TEST_F(ToolRepairTest, LogsDecideAsTheNextMergesWould) {
  copy_table();
  copied.rename(log_name, "sdb_1_m.log");
  {
    // The live log: deletes what the frozen one inserts, and inserts what that one deletes.
    zem_spm live;
    zem_proc proc;
    zem_mkey mkey;
    live.file.name = copied.path(log_name);
    ASSERT_EQ(zem_spm_open(live, zem_file_mode::fresh), zem_ok);
    for (const std::uint32_t word : {0U, 5000U}) {
      ASSERT_GE(zem_spm_insert(live, proc, 5, {0, 1, word}, mkey), 0);
    }
    ASSERT_GE(zem_spm_delete(live, proc, 5, {0, 1, 0}, mkey), 0);
    ASSERT_GE(zem_spm_insert(live, proc, 102, big, mkey), 0);
    ASSERT_GE(zem_spm_commit(live), 0);
  }
  std::set<file_posting> expected = model({});
  EXPECT_EQ(expected.erase({{0, 1, 0}, 5}), 1U);
  EXPECT_TRUE(expected.insert({{0, 1, 5000}, 5}).second);
  EXPECT_TRUE(expected.insert({big, 102}).second);
  expect_repaired(tool_exit::done, expected);
  // So it does.
  copied.resize("sdb_2.dat", 8 << 20);  // as it was: no merge writes it anew
  EXPECT_TRUE(dump("c") == expected);
}

TEST_F(ToolRepairTest, NewTableIsMadeAtOnceOrNotAtAll) {
  copy_table();
  copied.replace("sdb.xml", "<table><merge_num>5</merge_num></table>");
  copied.replace("sdb-tool.docs", "sdbdocs1");
  fs::create_directory(root.path("taken"));
  const std::string other = root.path("other");
  for (const char *name : {"t", "taken", "a/b", ""}) {
    EXPECT_EQ(sdb({"repair", root.path(), "c", name}).end, tool_exit::failed) << name;
  }
  stop = true;
  EXPECT_EQ(sdb({"repair", root.path(), "c", "new"}).end, tool_exit::failed);
  EXPECT_FALSE(fs::exists(root.path("new")));
  stop = false;
  EXPECT_EQ(sdb({"repair", root.path(), "c", "new", "--to-root", other}).end, tool_exit::done);
  EXPECT_EQ(read_whole(other + "/new/sdb.xml"), read_whole(copied.path("sdb.xml")));
  EXPECT_EQ(read_whole(other + "/new/sdb-tool.docs"), "sdbdocs1");
}

}  // namespace
