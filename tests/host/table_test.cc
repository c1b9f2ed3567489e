// What a host sees of tables: names, handles, settings and the shard list.

#include <cerrno>
#include <filesystem>
#include <gmock/gmock.h>
#include <limits>
#include <set>

#include "tests/support/file_reader.h"
#include "tests/support/host.h"

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

// ---- names and handles

class HostNamesTest : public HostTest {
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

TEST_F(HostNamesTest, TablesAreCreatedListedAndDropped) {
  EXPECT_GE(create("a"), 0);
  EXPECT_GE(create("b \xc3\xa9"), 0);
  EXPECT_EQ(create("a"), ZEM_SDB_E_NAME);
  EXPECT_THAT(list(sdb.get()), UnorderedElementsAre("t", "a", "b \xc3\xa9"));

  EXPECT_EQ(drop("a"), 0);
  EXPECT_EQ(drop("a"), ZEM_SDB_E_NAME);
  EXPECT_FALSE(fs::exists(root.path("a")));
  EXPECT_THAT(list(sdb.get()), UnorderedElementsAre("t", "b \xc3\xa9"));
  EXPECT_EQ(zem_sdb_table_open(sdb.get(), "a"), 0U);
  EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(HostNamesTest, NamesThatAreNoDirectoryOfTheRootAreRefused) {
  for (const char *name : {"", ".", "..", "a/b", "/", "a\nb", "a\x7f", "\x01"})
    EXPECT_EQ(create(name), -EINVAL) << name;
  EXPECT_THAT(host_names_in(root.path()), ElementsAre("t"));
  EXPECT_LT(create(std::string(300, 'x').c_str()), 0);  // what the file system refuses
  EXPECT_THAT(list(sdb.get()), ElementsAre("t"));
}

TEST_F(HostNamesTest, SubdirectoriesOfTheRootAreTablesFromTheNextDatabaseOn) {
  fs::create_directory(root.path("by hand"));
  fs::create_directory_symlink(root.path("t"), root.path("link"));
  write_file("../file", "no table");

  EXPECT_EQ(zem_sdb_table_open(sdb.get(), "by hand"), 0U);
  EXPECT_EQ(create("by hand"), -EEXIST);
  const host_sdb later(zem_sdb_new(root.path().c_str(), log.get()));
  EXPECT_THAT(list(later.get()), UnorderedElementsAre("t", "by hand"));
  const std::uint64_t handle = zem_sdb_table_open(later.get(), "by hand");
  EXPECT_NE(handle, 0U);  // it works on default settings
  EXPECT_EQ(zem_sdb_table_close(later.get(), handle), 0);
}

TEST_F(HostNamesTest, RootThatDoesNotExistIsADatabaseWithoutTables) {
  const std::string nowhere = root.path("nowhere");
  const host_sdb empty(zem_sdb_new(nowhere.c_str(), log.get()));
  ASSERT_NE(empty, nullptr);
  EXPECT_THAT(list(empty.get()), IsEmpty());
  EXPECT_EQ(zem_sdb_table_create(empty.get(), "a"), -ENOENT);
  EXPECT_FALSE(fs::exists(nowhere));
}

TEST_F(HostNamesTest, DroppedTableComesBackEmptyAndWithDefaultSettings) {
  configure({{"commit_num", 1}});
  insert(cat, 7);
  EXPECT_EQ(drop("t"), ZEM_SDB_E_NAME);  // open
  close();
  EXPECT_EQ(drop("t"), 0);

  EXPECT_GE(create("t"), 0);
  EXPECT_THAT(files(), ElementsAre("sdb.xml"));
  open();
  insert(cat, 7);
  EXPECT_THAT(find(cat), IsEmpty());  // `commit_num` is 8192 again
  EXPECT_EQ(totals().xcount, 0U);
}

TEST_F(HostNamesTest, EveryHandleIsClosedOnItsOwn) {
  const std::uint64_t second = zem_sdb_table_open(sdb.get(), "t");
  EXPECT_NE(second, table);
  insert(cat, 7);
  EXPECT_EQ(zem_sdb_table_close(sdb.get(), table), 0);
  EXPECT_EQ(zem_sdb_table_close(sdb.get(), table), ZEM_SDB_E_HANDLE);
  EXPECT_EQ(drop("t"), ZEM_SDB_E_NAME);
  EXPECT_EQ(zem_sdb_sync(sdb.get(), second), 0);
  table = second;
  EXPECT_THAT(find(cat), ElementsAre(7));
  close();
  EXPECT_EQ(drop("t"), 0);
}

TEST_F(HostNamesTest, SecondDatabaseOnTheRootIsKeptOutOfOpenTables) {
  host_sdb other(zem_sdb_new(root.path().c_str(), log.get()));
  EXPECT_EQ(zem_sdb_table_open(other.get(), "t"), 0U);
  EXPECT_THAT(log.errors(), ElementsAre(HasSubstr("table t is open in another process")));
  EXPECT_EQ(zem_sdb_table_drop(other.get(), "t"), ZEM_SDB_E_NAME);

  insert(cat, 7);
  close();
  sdb.swap(other);
  open();
  EXPECT_THAT(find(cat), ElementsAre(7));
}

TEST_F(HostNamesTest, FreeClosesWhatIsOpen) {
  insert(cat, 7);
  zem_sdb_table_open(sdb.get(), "t");
  sdb.reset(zem_sdb_new(root.path().c_str(), log.get()));
  open();
  EXPECT_THAT(find(cat), ElementsAre(7));
  EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(HostNamesTest, UnknownHandleIsAnsweredByItsCodeAlone) {
  const std::uint64_t closed = table;
  close();
  const host_postings lists({{cat, 7}});
  const host_list found = host_longs({42});
  const host_doc batch = host_batch({{{cat, 7}, 1}}, 1);
  const host_keys keys(zem_sdb_keys_new());
  std::uint64_t a = 1, b = 2, c = 3, d = 4;
  for (const std::uint64_t handle : {std::uint64_t{0}, closed, std::uint64_t{99}}) {
    const std::vector<std::int32_t> results{
        zem_sdb_insert(sdb.get(), handle, 7, 1, 0),
        zem_sdb_inserts(sdb.get(), handle, lists.ids.get(), lists.heads.get(), lists.thirds.get()),
        zem_sdb_delete(sdb.get(), handle, 7, 1, 0),
        zem_sdb_deletes(sdb.get(), handle, lists.ids.get(), lists.heads.get(), lists.thirds.get()),
        zem_sdb_update(sdb.get(), handle, batch.get(), nullptr),
        zem_sdb_update(sdb.get(), handle, batch.get(), keys.get()),
        zem_sdb_commit(sdb.get(), handle),
        zem_sdb_merge(sdb.get(), handle),
        zem_sdb_sync(sdb.get(), handle),
        zem_sdb_wait(sdb.get(), handle, 1000),
        zem_sdb_table_clear(sdb.get(), handle),
        zem_sdb_query(sdb.get(), handle, lists.heads.get(), lists.thirds.get(), found.get()),
        zem_sdb_shards(sdb.get(), handle, keys.get()),
        zem_sdb_key_count(sdb.get(), handle, 1, &a, &b),
        zem_sdb_table_close(sdb.get(), handle),
    };
    EXPECT_THAT(results, ::testing::Each(ZEM_SDB_E_HANDLE)) << handle;
  }
  EXPECT_EQ(a, 1U);  // left alone, as are the lists
  EXPECT_EQ(b, 2U);
  EXPECT_EQ(zem_var_size(found.get()), 1);
  EXPECT_EQ(zem_sdb_keys_size(keys.get()), 0);
  EXPECT_EQ(zem_sdb_table_count(sdb.get(), closed, &a, &b, &c, &d), ZEM_SDB_E_HANDLE);
  EXPECT_THAT((std::vector{a, b, c, d}), ::testing::Each(0U));  // zeroed before the look-up
  EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(HostNamesTest, NullArgumentsAreRefused) {
  const host_postings lists({{cat, 7}});
  const zem_var *ids = lists.ids.get();
  std::uint64_t out = 0;
  const std::vector<std::int32_t> results{
      zem_sdb_table_create(nullptr, "a"),
      create(nullptr),
      drop(nullptr),
      zem_sdb_table_close(nullptr, table),
      zem_sdb_insert(nullptr, table, 7, 1, 0),
      zem_sdb_inserts(sdb.get(), table, nullptr, ids, ids),
      zem_sdb_inserts(sdb.get(), table, ids, nullptr, ids),
      zem_sdb_deletes(sdb.get(), table, ids, ids, nullptr),
      zem_sdb_update(sdb.get(), table, nullptr, nullptr),
      zem_sdb_query(sdb.get(), table, nullptr, ids, lists.ids.get()),
      zem_sdb_query(sdb.get(), table, ids, nullptr, lists.ids.get()),
      zem_sdb_query(sdb.get(), table, ids, ids, nullptr),
      zem_sdb_shards(sdb.get(), table, nullptr),
      zem_sdb_key_count(sdb.get(), table, 1, nullptr, &out),
      zem_sdb_table_count(sdb.get(), table, &out, nullptr, &out, &out),
  };
  EXPECT_THAT(results, ::testing::Each(-EINVAL));
  EXPECT_EQ(zem_sdb_new(nullptr, log.get()), nullptr);
  EXPECT_EQ(zem_sdb_table_open(sdb.get(), nullptr), 0U);
  EXPECT_EQ(zem_sdb_table_open(nullptr, "t"), 0U);
  zem_sdb_table_list(sdb.get(), nullptr);
  zem_sdb_callback(nullptr, 1, nullptr);
  zem_sdb_free(nullptr);
}

TEST_F(HostNamesTest, DatabaseWithoutALogWorks) {
  close();
  sdb.reset(zem_sdb_new(root.path().c_str(), nullptr));
  open();
  EXPECT_EQ(zem_sdb_key_count(sdb.get(), table, 2, &table, &table), ZEM_SDB_E_SHARD);
}

TEST(HostWordsTest, EveryResultHasWordsOfItsOwn) {
  std::set<std::string> words{zem_sdb_error(0)};
  EXPECT_EQ(zem_sdb_error(0), std::string(zem_sdb_error(1)));
  for (const std::int32_t code : {-901, -902, -903, -904, -905, -906, -ENOENT, -ENOSPC})
    EXPECT_TRUE(words.insert(zem_sdb_error(code)).second) << code;
  for (const std::int32_t code : {-900, -100'000, std::numeric_limits<std::int32_t>::min()})
    EXPECT_THAT(zem_sdb_error(code), HasSubstr("unknown"));
  EXPECT_THAT(zem_sdb_version(), MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+"));
}

// ---- settings

class HostSettingsTest : public HostTest {
 protected:
  void open_with(const std::string &settings) {
    close();
    write_file("sdb.xml", settings);
    log.forget();
    open();
  }
  // How many single inserts it takes until a routing shows in a query.
  std::uint64_t inserts_to_a_routing() {
    for (std::uint64_t id = 1; id <= 10'000; ++id) {
      insert(cat, id);
      if ((id < 20 || id > 8190) && !find(cat).empty()) return id;
    }
    return 0;
  }
};

TEST_F(HostSettingsTest, CreateWritesTheTenDefaultsInOrder) {
  EXPECT_GE(zem_sdb_table_create(sdb.get(), "fresh"), 0);
  const std::string text = read_whole(root.path("fresh/sdb.xml"));
  std::size_t at = 0;
  for (const char *element :
       {"<table>", "<thread_num>2<", "<cache_log>8<", "<cache_key>16<", "<cache_val>16<",
        "<commit_num>8192<", "<merge_num>8<", "<split_num>512<", "<flush_time>60<",
        "<commit_time>50<", "<merge_time>20<", "</table>"}) {
    const std::size_t found = text.find(element, at);
    ASSERT_NE(found, std::string::npos) << element << " is not where it should be in " << text;
    at = found + 1;
  }
  std::size_t ends = 0;
  for (at = text.find("</"); at != std::string::npos; at = text.find("</", at + 1))
    ++ends;
  EXPECT_EQ(ends, 11U);  // ten settings and their root
}

TEST_F(HostSettingsTest, DefaultBatchIsRoutedByThe8192ndPosting) {
  EXPECT_EQ(inserts_to_a_routing(), 8192U);
}

TEST_F(HostSettingsTest, SettingsApplyFromTheNextFirstOpenOn) {
  write_file("sdb.xml", "<table><commit_num>3</commit_num></table>");
  EXPECT_EQ(zem_sdb_table_close(sdb.get(), zem_sdb_table_open(sdb.get(), "t")), 0);
  insert(cat, 1), insert(cat, 2), insert(cat, 3);
  EXPECT_THAT(find(cat), IsEmpty());  // it was open all the while
  reopen();
  EXPECT_THAT(find(cat), ElementsAre(1, 2, 3));
  insert(cat, 4), insert(cat, 5);
  EXPECT_THAT(find(cat), SizeIs(3));
  insert(cat, 6);
  EXPECT_THAT(find(cat), SizeIs(6));
}

TEST_F(HostSettingsTest, SettingsAreReadInAnyOrderAndOthersIgnored) {
  open_with(
      "<?xml version=\"1.0\"?>\n<table name='x'><other>1</other><merge_num>1</merge_num>"
      "<commit_num> 4 postings</commit_num></table>");
  EXPECT_EQ(inserts_to_a_routing(), 4U);
  EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(HostSettingsTest, SettingsThatMakeNoSenseAreBroughtIntoRange) {
  open_with(
      "<table><thread_num>0</thread_num><commit_num>0</commit_num><merge_num>0</merge_num>"
      "<split_num>-1</split_num></table>");
  EXPECT_EQ(inserts_to_a_routing(), 1U);
  merge();  // there is a worker
  EXPECT_THAT(key_count(), Pair(0, 1));
}

TEST_F(HostSettingsTest, UnreadableSettingsMeanDefaultsAndALine) {
  open_with("<table><commit_num>3</comm");
  EXPECT_THAT(log.errors(), ElementsAre(HasSubstr("sdb.xml")));
  EXPECT_EQ(inserts_to_a_routing(), 8192U);
}

TEST_F(HostSettingsTest, MissingSettingsMeanDefaults) {
  close();
  fs::remove(path("sdb.xml"));
  open();
  EXPECT_THAT(log.errors(), IsEmpty());
  insert(cat, 1);
  EXPECT_THAT(find(cat), IsEmpty());
}

// ---- the shard list

class HostListTest : public HostTest {
 protected:
  void open_with(const std::string &list) {
    close();
    write_file("sdb.lst", list);
    log.forget();
    open();
  }
  std::vector<std::uint32_t> numbers() const {
    std::vector<std::uint32_t> found;
    for (const host_row &row : shards())
      found.push_back(row.attribute);
    return found;
  }
};

TEST_F(HostListTest, FirstOpenMakesShardOne) {
  EXPECT_EQ(read_whole(path("sdb.lst")), "1");
  EXPECT_THAT(shards(), ElementsAre(host_row{{}, 1}));
  EXPECT_THAT(files(), UnorderedElementsAre("sdb.xml", "sdb.lst", "sdb_1.log", "sdb_1.dat"));
}

TEST_F(HostListTest, ListedShardsAreOpenedAndTheLastTakesWhatLiesBeyondAllKeys) {
  open_with("3\n7\n12");
  EXPECT_THAT(numbers(), ElementsAre(3, 7, 12));
  insert(cat, 5);
  sync();
  EXPECT_THAT(shards(), ElementsAre(host_row{{}, 3}, host_row{{}, 7}, host_row{{cat, 5}, 12}));
  std::uint64_t in_log = 0, in_dat = 0;
  EXPECT_EQ(zem_sdb_key_count(sdb.get(), table, 12, &in_log, &in_dat), 0);
  EXPECT_EQ(in_log, 1U);
  EXPECT_EQ(zem_sdb_key_count(sdb.get(), table, 1, &in_log, &in_dat), ZEM_SDB_E_SHARD);
  reopen();
  EXPECT_THAT(find(cat), ElementsAre(5));
  merge();
  EXPECT_THAT(find(cat), ElementsAre(5));
  EXPECT_THAT(query({{cat}, {ant, 5, 5}}).ids, ElementsAre(Pair(5, 1)));
  EXPECT_EQ(read_whole(path("sdb.lst")), "3\n7\n12");
}

TEST_F(HostListTest, BlankLinesAndLineEndsOfAnyKindAreTaken) {
  open_with("\r\n 2\r\n\n\n10\n");
  EXPECT_THAT(numbers(), ElementsAre(2, 10));
  EXPECT_THAT(log.errors(), ElementsAre(HasSubstr("shard 2 has no data file"),
                                        HasSubstr("shard 10 has no data file")));
}

TEST_F(HostListTest, LinesThatAreNoShardNumbersAreSkippedAndTold) {
  insert(cat, 5);
  open_with("1\nx\n0\n1\n-4\n99999999999\n");
  EXPECT_THAT(numbers(), ElementsAre(1));
  EXPECT_THAT(find(cat), ElementsAre(5));
  EXPECT_THAT(log.errors(), SizeIs(5));
  EXPECT_THAT(log.errors(), ::testing::Each(HasSubstr("sdb.lst")));
}

TEST_F(HostListTest, ShardFilesThatNoListNamesAreKeptAside) {
  insert(cat, 5);
  sync();
  close();
  fs::remove(path("sdb.lst"));
  open();
  EXPECT_THAT(find(cat), IsEmpty());
  EXPECT_THAT(files(), ::testing::Contains("sdb_1.log.old"));
  EXPECT_THAT(log.errors(), ElementsAre(HasSubstr("sdb_1.log.old")));
  close();
  fs::rename(path("sdb_1.log.old"), path("sdb_1.log"));  // the way back
  open();
  EXPECT_THAT(find(cat), ElementsAre(5));
}

TEST_F(HostListTest, ShardThatDoesNotOpenLeavesTheTableWithoutAny) {
  insert(cat, 5);
  close();
  fs::rename(path("sdb_1.dat"), path("aside"));
  fs::create_directory(path("sdb_1.dat"));
  open();
  EXPECT_THAT(log.errors(), ElementsAre(HasSubstr("shard 1 does not open"),
                                        HasSubstr("table t opened without shards")));
  log.forget();
  EXPECT_THAT(find(cat), IsEmpty());
  EXPECT_THAT(shards(), IsEmpty());
  EXPECT_EQ(totals().xcount, 0U);
  insert(dog, 6);
  EXPECT_EQ(zem_sdb_sync(sdb.get(), table), ZEM_SDB_E_SHARD);
  EXPECT_EQ(zem_sdb_commit(sdb.get(), table), ZEM_SDB_E_SHARD);
  EXPECT_EQ(zem_sdb_merge(sdb.get(), table), ZEM_SDB_E_SHARD);
  const host_keys keys(zem_sdb_keys_new());
  const host_doc batch = host_batch({{{dog, 6}, 1}}, 1);
  EXPECT_EQ(zem_sdb_update(sdb.get(), table, batch.get(), keys.get()), ZEM_SDB_E_SHARD);
  EXPECT_EQ(zem_sdb_table_close(sdb.get(), table), ZEM_SDB_E_SHARD);
  EXPECT_THAT(log.errors(),
              ElementsAre("sync error: -904", "commit error: -904", "merge error: -904",
                          "update error: -904", "close error: -904"));
  fs::remove(path("sdb_1.dat"));
  fs::rename(path("aside"), path("sdb_1.dat"));
  open();
  EXPECT_THAT(find(cat), ElementsAre(5));
}

TEST_F(HostListTest, PostingsThatNoShardTookAreTriedAgain) {
  configure({{"commit_num", 4}});
  close();
  fs::remove(path("sdb_1.dat"));
  fs::create_directory(path("sdb_1.dat"));
  open();
  log.forget();
  const host_postings lists({{cat, 1}, {cat, 2}, {cat, 3}, {cat, 4}});
  EXPECT_EQ(
      zem_sdb_inserts(sdb.get(), table, lists.ids.get(), lists.heads.get(), lists.thirds.get()),
      ZEM_SDB_E_SHARD);
  EXPECT_THAT(log.errors(), ElementsAre("insert error: -904"));
  fs::remove(path("sdb_1.dat"));
  EXPECT_EQ(zem_sdb_table_clear(sdb.get(), table), 0);  // makes a shard
  insert(dog, 1);
  sync();
  EXPECT_THAT(find(cat), ElementsAre(1, 2, 3, 4));
  EXPECT_THAT(find(dog), ElementsAre(1));
}

// ---- lists of the host

TEST(HostKeysTest, RowsCarryAnAttributeInTwoHalves) {
  const host_keys keys(zem_sdb_keys_new());
  const host_term term{1, 2, 3};
  EXPECT_EQ(zem_sdb_keys_add(keys.get(), 42, term.data(), 5), 1);
  EXPECT_EQ(zem_sdb_keys_sid(keys.get(), 0, 7), 1);
  EXPECT_THAT(host_rows(keys.get()), ElementsAre(host_row{{term, 42}, (7U << 16) + 5}));
  EXPECT_EQ(zem_sdb_keys_sid(keys.get(), 1, 7), 0);
  std::uint64_t id = 99;
  EXPECT_EQ(zem_sdb_keys_fetch(keys.get(), 1, &id, nullptr, nullptr), 0U);
  EXPECT_EQ(id, 99U);
  zem_sdb_keys_clear(keys.get());
  EXPECT_EQ(zem_sdb_keys_size(keys.get()), 0);
}

}  // namespace
