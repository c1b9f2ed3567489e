#include "src/shard_files.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <string>

#include "tests/support/faulty_files.h"
#include "tests/support/table_life.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
// Files by name, each with its content.
using files_of = std::map<std::string, std::string>;

class ShardFilesTest : public ::testing::Test {
 protected:
  // Nothing but these files.
  void lay_out(const files_of &files) const {
    for (const fs::path &path : fs::directory_iterator(directory.path()))
      fs::remove(path);
    for (const auto &[name, text] : files)
      std::ofstream(directory.path(name), std::ios::binary) << text;
  }
  files_of files() const {
    files_of found;
    for (const fs::path &path : fs::directory_iterator(directory.path())) {
      std::ifstream in(path, std::ios::binary);
      found[path.filename()] = std::string(std::istreambuf_iterator<char>(in), {});
    }
    return found;
  }
  zem_status recover() { return zem_shard_recover(directory.path(), 5, lines.err); }

  temp_dir directory;
  error_lines lines;
};

TEST_F(ShardFilesTest, OnlyNamesOfItsOwnAreAShards) {
  EXPECT_EQ(zem_shard_fname("/t/", 0xFFFFFFFF, zem_suffix::log), "/t/sdb_-1.log");
  for (const char *name : {"sdb_1.log", "sdb_12_m.log", "sdb_3.dat", "sdb_4_m.dat", "sdb_5_t.dat",
                           "sdb_-1.log", "sdb_2147483647.dat"})
    EXPECT_TRUE(zem_shard_owns(name)) << name;
  for (const char *name :
       {"sdb.lst", "sdb_.log", "sdb_x.log", "sdb_1.log.old", "sdb_1.log.bad", "sdb_1_t.log",
        "sdb_1", "xsdb_1.log", "sdb_99999999999.log", "sdb_ 1.log"})
    EXPECT_FALSE(zem_shard_owns(name)) << name;
}

// Each set of files that can be found, against the rules in words. Each step of each recovery fails
// once; another recovery then comes to the same.
TEST_F(ShardFilesTest, RecoveryCompletesOrTakesBackWhatIsFound) {
  const files_of others{{"sdb_50.log", "a"}, {"sdb_6_t.dat", "b"}, {"sdb.lst", "5"}};
  for (unsigned set = 0; set < 32; ++set) {
    SCOPED_TRACE(set);
    files_of found = others;
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

    bool failed = true;
    for (std::uint64_t nth = 1; failed; ++nth) {
      lay_out(found);
      lines.take();
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
        if (has_old_dat && has_dat && faults.count(file_op::sync_dir) == 0) {
          EXPECT_EQ(faults.count(file_op::remove), 0);
        }
      }
      if (!failed) {
        EXPECT_EQ(lines.take().size(), has_dat || has_old_dat ? 0U : 1U);
      }
      EXPECT_EQ(recover(), zem_ok);
      EXPECT_EQ(files(), expected) << nth;
    }
  }
}

}  // namespace
