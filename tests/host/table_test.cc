// What a host sees of tables: names, handles, settings, the shard list, batches and messages.

#include <cerrno>
#include <filesystem>
#include <gmock/gmock.h>
#include <set>

#include "tests/support/file_reader.h"
#include "tests/support/host.h"

namespace {

namespace fs = std::filesystem;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

class HostTableTest : public HostTest {
 protected:
  static std::set<std::string> list(zem_sdb *of) {
    const host_list names = host_longs({7, 8});  // emptied first
    zem_sdb_table_list(of, names.get());
    std::set<std::string> found;
    for (std::int64_t i = 0; i < zem_var_size(names.get()); ++i) {
      const char *text = nullptr;
      std::int64_t length = 0;
      EXPECT_EQ(zem_var_get_string(names.get(), i, &text, &length), 1);
      found.emplace(text, static_cast<std::size_t>(length));
    }
    return found;
  }
  std::int32_t create(const char *name) { return zem_sdb_table_create(sdb.get(), name); }
  std::int32_t drop(const char *name) { return zem_sdb_table_drop(sdb.get(), name); }
};

TEST_F(HostTableTest, TablesAreCreatedListedAndDropped) {
  EXPECT_GE(create("a"), 0);
  EXPECT_GE(create("b \xc3\xa9"), 0);
  EXPECT_EQ(create("a"), ZEM_SDB_E_NAME);
  EXPECT_EQ(drop("a"), 0);
  EXPECT_EQ(drop("a"), ZEM_SDB_E_NAME);
  EXPECT_EQ(zem_sdb_table_open(sdb.get(), "a"), 0U);
  for (const char *name : {"", ".", "..", "a/b", "/", "a\nb", "a\x7f", "\x01"})
    EXPECT_EQ(create(name), -EINVAL) << name;
  EXPECT_LT(create(std::string(300, 'x').c_str()), 0);  // what the file system refuses

  // A directory made by hand is a table for the next database on the root.
  fs::create_directory(root.path("by hand"));
  fs::create_directory_symlink(root.path("t"), root.path("link"));
  write_file("../file", "no table");
  EXPECT_EQ(create("by hand"), -EEXIST);
  EXPECT_THAT(list(sdb.get()), UnorderedElementsAre("t", "b \xc3\xa9"));
  const host_sdb later(zem_sdb_new(root.path().c_str(), log.get()));
  EXPECT_THAT(list(later.get()), UnorderedElementsAre("t", "b \xc3\xa9", "by hand"));
  EXPECT_NE(zem_sdb_table_open(later.get(), "by hand"), 0U);
}

TEST_F(HostTableTest, HandlesAreClosedOneByOneAndKeepOthersOut) {
  host_sdb other(zem_sdb_new(root.path().c_str(), log.get()));
  EXPECT_EQ(zem_sdb_table_open(other.get(), "t"), 0U);
  EXPECT_THAT(log.errors(), ElementsAre(HasSubstr("table t is open in another process")));
  EXPECT_EQ(zem_sdb_table_drop(other.get(), "t"), ZEM_SDB_E_NAME);

  const std::uint64_t second = zem_sdb_table_open(sdb.get(), "t");
  insert(cat, 7);
  EXPECT_EQ(zem_sdb_table_close(sdb.get(), table), 0);
  EXPECT_EQ(zem_sdb_table_close(sdb.get(), table), ZEM_SDB_E_HANDLE);
  table = second;
  sync();
  EXPECT_EQ(drop("t"), ZEM_SDB_E_NAME);  // open
  sdb.swap(other);
  other.reset();  // closes what is open
  open();
  EXPECT_THAT(find(cat), ElementsAre(7));
  close();
  EXPECT_EQ(drop("t"), 0);
  EXPECT_GE(create("t"), 0);
  open();
  EXPECT_EQ(totals().xcount, 0U);
}

TEST_F(HostTableTest, UnknownHandlesAndNullsAreAnsweredByTheirCodes) {
  const std::uint64_t closed = table;
  close();
  const host_list list_of_one = host_longs({7});
  zem_var *const ids = list_of_one.get();
  const host_doc batch = host_batch({{{cat, 7}, 1}}, 1);
  const host_keys keys(zem_sdb_keys_new());
  std::uint64_t a = 1, b = 2, c = 3, d = 4;
  for (const std::uint64_t handle : {std::uint64_t{0}, closed, std::uint64_t{99}}) {
    const std::vector<std::int32_t> results{
        zem_sdb_insert(sdb.get(), handle, 7, 1, 0),
        zem_sdb_inserts(sdb.get(), handle, ids, ids, ids),
        zem_sdb_delete(sdb.get(), handle, 7, 1, 0),
        zem_sdb_deletes(sdb.get(), handle, ids, ids, ids),
        zem_sdb_update(sdb.get(), handle, batch.get(), keys.get()),
        zem_sdb_commit(sdb.get(), handle),
        zem_sdb_merge(sdb.get(), handle),
        zem_sdb_sync(sdb.get(), handle),
        zem_sdb_wait(sdb.get(), handle, 1000),
        zem_sdb_table_clear(sdb.get(), handle),
        zem_sdb_query(sdb.get(), handle, ids, ids, ids),
        zem_sdb_shards(sdb.get(), handle, keys.get()),
        zem_sdb_key_count(sdb.get(), handle, 1, &a, &b),
        zem_sdb_table_close(sdb.get(), handle),
    };
    EXPECT_THAT(results, Each(ZEM_SDB_E_HANDLE)) << handle;
  }
  EXPECT_EQ(a, 1U);  // left alone
  EXPECT_EQ(zem_sdb_table_count(sdb.get(), closed, &a, &b, &c, &d), ZEM_SDB_E_HANDLE);
  EXPECT_EQ(a + b + c + d, 0U);  // zeroed before the look-up

  open();
  const std::vector<std::int32_t> results{
      zem_sdb_table_create(nullptr, "a"),
      create(nullptr),
      zem_sdb_insert(nullptr, table, 7, 1, 0),
      zem_sdb_inserts(sdb.get(), table, nullptr, ids, ids),
      zem_sdb_update(sdb.get(), table, nullptr, nullptr),
      zem_sdb_query(sdb.get(), table, ids, ids, nullptr),
      zem_sdb_shards(sdb.get(), table, nullptr),
      zem_sdb_table_count(sdb.get(), table, &a, nullptr, &a, &a),
  };
  EXPECT_THAT(results, Each(-EINVAL));
  EXPECT_EQ(zem_sdb_new(nullptr, log.get()), nullptr);
  EXPECT_EQ(zem_sdb_table_open(sdb.get(), nullptr), 0U);
  EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(HostTableTest, SettingsApplyFromTheNextFirstOpenOn) {
  write_file("sdb.xml", "<table><commit_num>3</commit_num></table>");
  EXPECT_EQ(zem_sdb_table_close(sdb.get(), zem_sdb_table_open(sdb.get(), "t")), 0);
  insert_all({{cat, 1}, {cat, 2}, {cat, 3}});
  EXPECT_THAT(find(cat), IsEmpty());  // it was open all the while
  reopen();
  insert_all({{cat, 4}, {cat, 5}, {cat, 6}});
  EXPECT_THAT(find(cat), SizeIs(6));
}

TEST_F(HostTableTest, UpdateWithKeysIsRoutedAtOnceAndTellsTheKeyThatGrew) {
  const auto update = [&](const host_changes &changes, std::uint32_t count) {
    const host_doc batch = host_batch(changes, count);
    const host_keys keys(zem_sdb_keys_new());
    EXPECT_EQ(zem_sdb_update(sdb.get(), table, batch.get(), keys.get()), 0);
    return host_rows(keys.get());
  };
  insert(dog, 1);  // pending all the while
  EXPECT_THAT(update({{{cat, 5}, 1}, {{cat, 3}, 1}}, 0), ElementsAre(host_row{{cat, 3}, 1}));
  EXPECT_THAT(find(cat), ElementsAre(3, 5));
  EXPECT_THAT(update({{{cat, 4}, 1}, {{ant, 1}, 1}}, 99), IsEmpty());
  EXPECT_THAT(update({{{dog, 2}, 0}}, 1), IsEmpty());  // deletes what is not there
  EXPECT_THAT(find(dog), IsEmpty());
  EXPECT_THAT(shards(), ElementsAre(host_row{{cat, 3}, 1}));
}

TEST_F(HostTableTest, MergesTellWhatTheyDoAndCountsAddUp) {
  insert_all({{cat, 1}, {cat, 2}, {dog, 1}});
  merge();
  EXPECT_THAT(log.infos(),
              ElementsAre("merge begin [1]!", MatchesRegex("merge end \\[1\\]! [0-9]+ ms")));
  EXPECT_THAT(files(), UnorderedElementsAre("sdb.xml", "sdb.lst", "sdb_1.log", "sdb_1.dat"));
  insert_all({{ant, 1}});
  sync();
  EXPECT_THAT(key_count(), Pair(1, 2));
  EXPECT_EQ(totals().count, 3U);
  EXPECT_EQ(totals().xcount, 4U);
  EXPECT_GE(totals().fsize, read_whole(path("sdb_1.dat")).size());
  EXPECT_GT(totals().msize, 0U);
  std::uint64_t a = 1, b = 2;
  EXPECT_EQ(zem_sdb_key_count(sdb.get(), table, 2, &a, &b), ZEM_SDB_E_SHARD);
  EXPECT_EQ(a + b, 0U);
  EXPECT_THAT(log.errors(), ElementsAre("term count error: -904"));
}

}  // namespace
