#include "src/shard_files.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "base/file.h"

#include "tests/support/faulty_files.h"
#include "tests/support/table_life.h"
#include "tests/support/temp_dir.h"

namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

// Files by name, each with its content.
using files_of = std::map<std::string, std::string>;

class ShardFilesTest : public ::testing::Test {
 protected:
  void put(const std::string &name, const std::string &text) const {
    std::ofstream(directory.path(name), std::ios::binary) << text;
  }
  void put(const files_of &files) const {
    for (const auto &[name, text] : files)
      put(name, text);
  }
  files_of files() const {
    files_of found;
    for (const std::filesystem::path &path :
         std::filesystem::directory_iterator(directory.path())) {
      std::ifstream in(path, std::ios::binary);
      found[path.filename().string()] = std::string(std::istreambuf_iterator<char>(in), {});
    }
    return found;
  }
  void empty() const {
    for (const std::filesystem::path &path : std::filesystem::directory_iterator(directory.path()))
      std::filesystem::remove(path);
  }
  zem_status recover() { return zem_shard_recover(directory.path(), 5, lines.err); }

  temp_dir directory;
  error_lines lines;
};

TEST_F(ShardFilesTest, NamesCarryTheNumberAsASignedDecimal) {
  EXPECT_EQ(zem_shard_fname("/t", 7, zem_suffix::new_dat), "/t/sdb_7_m.dat");
  EXPECT_EQ(zem_shard_fname("/t/", 0xFFFFFFFF, zem_suffix::log), "/t/sdb_-1.log");
}

TEST_F(ShardFilesTest, OnlyNamesOfItsOwnAreAShards) {
  for (const char *name : {"sdb_1.log", "sdb_12_m.log", "sdb_3.dat", "sdb_4_m.dat", "sdb_5_t.dat",
                           "sdb_-1.log", "sdb_2147483647.dat"})
    EXPECT_TRUE(zem_shard_owns(name)) << name;
  for (const char *name :
       {"sdb.lst", "sdb_.log", "sdb_x.log", "sdb_1.log.old", "sdb_1.log.bad", "sdb_1_t.log",
        "sdb_1", "xsdb_1.log", "sdb_99999999999.log", "sdb_ 1.log"})
    EXPECT_FALSE(zem_shard_owns(name)) << name;
}

// Each set of files that can be found, against the rules in words.
TEST_F(ShardFilesTest, RecoveryCompletesOrTakesBackWhatIsFound) {
  for (unsigned set = 0; set < 32; ++set) {
    files_of found;
    for (std::size_t i = 0; i < zem_suffix::all.size(); ++i) {
      const std::string name = std::string("sdb_5") + zem_suffix::all[i];
      if ((set >> i & 1) != 0) found[name] = std::string("former ") + zem_suffix::all[i];
    }
    const bool has_dat = found.contains("sdb_5.dat");
    const bool has_new_dat = found.contains("sdb_5_m.dat");
    const bool has_old_dat = found.contains("sdb_5_t.dat");
    files_of expected = found;
    if (has_old_dat && !has_dat && !has_new_dat) {
      expected.erase("sdb_5_t.dat");
      expected["sdb_5.dat"] = "former _t.dat";
    } else if (has_old_dat) {
      if (has_new_dat) expected["sdb_5.dat"] = "former _m.dat";
      for (const char *gone : {"sdb_5_m.dat", "sdb_5_m.log", "sdb_5_t.dat"})
        expected.erase(gone);
    } else if (!has_dat) {
      expected.erase("sdb_5_m.log");
      expected.erase("sdb_5.log");
    } else if (found.contains("sdb_5_m.log")) {
      expected.erase("sdb_5_m.dat");
    }

    empty();
    put(found);
    EXPECT_EQ(recover(), zem_ok) << set;
    EXPECT_EQ(files(), expected) << set;
    EXPECT_THAT(lines.take(), SizeIs(has_dat || has_old_dat ? 0 : 1)) << set;
    EXPECT_EQ(recover(), zem_ok) << set;
    EXPECT_EQ(files(), expected) << set << ", a second time";
    lines.take();
  }
}

TEST_F(ShardFilesTest, RecoveryLeavesOtherShardsAlone) {
  const files_of others{{"sdb_50.log", "a"}, {"sdb_6_t.dat", "b"}, {"sdb.lst", "5"}};
  put(others);
  put({{"sdb_5.dat", "c"}, {"sdb_5_t.dat", "d"}, {"sdb_5_m.dat", "e"}, {"sdb_5_m.log", "f"}});
  ASSERT_EQ(recover(), zem_ok);
  files_of expected = others;
  expected["sdb_5.dat"] = "e";
  EXPECT_EQ(files(), expected);
}

// A step that fails ends the recovery, which then completes another time.
TEST_F(ShardFilesTest, RecoveryStopsAtItsFirstFailedStep) {
  const std::vector<files_of> starts = {
      {{"sdb_5.dat", "old"}, {"sdb_5_t.dat", "old"}, {"sdb_5_m.dat", "new"}, {"sdb_5_m.log", "x"}},
      {{"sdb_5.dat", "new"}, {"sdb_5_t.dat", "old"}, {"sdb_5_m.log", "x"}},
      {{"sdb_5_t.dat", "old"}, {"sdb_5_m.log", "x"}},
      {{"sdb_5.dat", "old"}, {"sdb_5_m.dat", "part"}, {"sdb_5_m.log", "x"}},
      {{"sdb_5.log", "x"}, {"sdb_5_m.log", "x"}},
  };
  for (const files_of &start : starts) {
    empty();
    put(start);
    ASSERT_EQ(recover(), zem_ok);
    const files_of recovered = files();
    bool failed = true;
    for (std::uint64_t nth = 1; failed; ++nth) {
      empty();
      put(start);
      {
        faulty_files faults;
        // What closes a directory after its sync is of no consequence.
        faults.fail_once(
            nth, EIO,
            {file_op::open, file_op::look_up, file_op::rename, file_op::remove, file_op::sync_dir});
        const zem_status st = recover();
        failed = faults.has_failed();
        EXPECT_EQ(st, failed ? zem_status{-EIO} : zem_ok);
        // Nothing is removed unless the rename before it is durable.
        const bool synced = faults.count(file_op::sync_dir) > 0;
        if (start.contains("sdb_5_t.dat") && start.contains("sdb_5.dat") && !synced) {
          EXPECT_EQ(faults.count(file_op::remove), 0);
        }
      }
      EXPECT_EQ(recover(), zem_ok);
      EXPECT_EQ(files(), recovered) << nth;
    }
  }
}

TEST_F(ShardFilesTest, APurgeRemovesAllFiveNamesInSpiteOfAFailure) {
  const files_of others{{"sdb_50.log", "a"}, {"sdb_5.log.bad", "b"}};
  put(others);
  for (const char *suffix : zem_suffix::all)
    put(std::string("sdb_5") + suffix, "x");
  {
    faulty_files faults;
    faults.fail_once(2, EACCES, {file_op::remove});
    EXPECT_EQ(zem_shard_purge(directory.path(), 5), -EACCES);
  }
  EXPECT_THAT(files(), SizeIs(others.size() + 1));
  EXPECT_EQ(zem_shard_purge(directory.path(), 5), zem_ok);
  EXPECT_EQ(files(), others);
  EXPECT_THAT(lines.take(), IsEmpty());
}

}  // namespace
