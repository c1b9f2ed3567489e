// The commands of `sdb` that move and show postings, from their arguments to what they print.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "include/zem_sdb.h"
#include "tests/support/temp_dir.h"
#include "tests/support/tool_host.h"
#include "tools/database.h"
#include "tools/posting.h"

namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using postings = std::set<tool_posting>;

std::string line_of(const tool_posting &posting) {
  return tool_key_text(posting.term) + ' ' + std::to_string(posting.id) + '\n';
}

// Too long to be printed where they differ.
testing::AssertionResult same(const std::string &a, const std::string &b) {
  const auto differ = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  if (a == b) return testing::AssertionSuccess();
  return testing::AssertionFailure()
         << a.size() << " and " << b.size() << " bytes, alike up to " << differ.first - a.begin();
}

template <class Postings>
std::string text_of(const Postings &some) {
  std::string text;
  for (const tool_posting &posting : some)
    text += line_of(posting);
  return text;
}

class ToolDataTest : public ::testing::Test, protected tool_host {
 protected:
  std::string write(const std::string &name, const std::string &bytes) const {
    std::ofstream(dir.path(name), std::ios::binary | std::ios::trunc) << bytes;
    return dir.path(name);
  }
  static std::string read(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  std::string load(const std::string &table, const std::string &bytes, const words &options = {}) {
    words arguments{"load", root, table, write("stream", bytes), "--create"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    EXPECT_EQ(sdb(arguments), done) << err;
    return out;
  }
  std::string dump(const std::string &table, const words &options = {}) {
    words arguments{"dump", root, table};
    arguments.insert(arguments.end(), options.begin(), options.end());
    EXPECT_EQ(sdb(arguments), done) << err;
    return out;
  }
  nlohmann::json json(const words &arguments) {
    EXPECT_EQ(sdb(arguments), done) << err;
    return nlohmann::json::parse(out);
  }
  nlohmann::json shards(const std::string &table) {
    return json({"shards", root, table, "--json"})["shards"];
  }

  // A table whose shards divide at 1 MiB.
  void create_divided(const std::string &table) {
    ASSERT_EQ(sdb({"create", root, table}), done) << err;
    write("db/" + table + "/sdb.xml",
          "<table><merge_num>1</merge_num><split_num>1</split_num><merge_time>0</merge_time>"
          "<commit_time>0</commit_time></table>");
  }

  temp_dir dir;
  const std::string root = dir.path("db");
  std::mt19937 random{7};
};

tool_posting random_posting(std::mt19937 &random) {
  const auto word = static_cast<std::uint32_t>(random());
  // Terms of one id and of dozens, all over the range and on its edges.
  const std::uint32_t edge = word % 64 == 0 ? 0xffffffffU : 0;
  if (word % 3 == 0) return {{edge, word % 500, edge}, std::uint64_t{random()} + 1};
  return {{word, edge, word % 5}, ~std::uint64_t{random()}};
}

TEST_F(ToolDataTest, TableOfManyShardsGoesThroughEveryFormAndRoadUnchanged) {
  create_divided("first");
  postings held;
  std::vector<tool_posting> some;
  for (int i = 0; i < 120'000; ++i)
    some.push_back(random_posting(random));
  // A term that fills more than one frame of a binary stream.
  for (std::uint64_t id = 1; id <= 140'000; ++id)
    some.push_back({{0x80000000U, 0, 0}, id});
  std::shuffle(some.begin(), some.end(), random);
  held.insert(some.begin(), some.end());
  // Half of them in bulk, all of them into what that made.
  load("first", text_of(postings(some.begin(), some.begin() + 130'000)), {"--shard-mib", "1"});
  EXPECT_EQ(load("first", text_of(some)), "loaded 260000 postings\n");
  EXPECT_TRUE(same(dump("first"), text_of(held)));

  // Some of what lies in data files goes, is put back, or was never there.
  std::string changes;
  for (std::size_t i = 0; i < some.size(); i += 10) {
    changes += "- " + line_of(some[i]);
    held.erase(some[i]);
    const tool_posting fresh = random_posting(random);
    changes += (i % 20 == 0 ? line_of(fresh) : "- " + line_of(fresh));
    i % 20 == 0 ? void(held.insert(fresh)) : void(held.erase(fresh));
    if (i % 50 != 0) continue;
    changes += line_of(some[i]);
    held.insert(some[i]);
  }
  EXPECT_THAT(load("first", changes), HasSubstr("; deleted "));
  const std::string text = text_of(held);
  ASSERT_TRUE(same(dump("first"), text));
  const nlohmann::json divided = shards("first");
  ASSERT_GE(divided.size(), 2U);

  const std::string binary = dump("first", {"--binary"});
  EXPECT_LT(binary.size(), text.size());
  for (const std::string &stream : {text, binary}) {
    EXPECT_THAT(load("bulk", stream), HasSubstr(std::to_string(held.size()) + " of them in bulk"));
    EXPECT_TRUE(same(dump("bulk"), text));
    EXPECT_TRUE(same(dump("bulk", {"--binary"}), binary));
    EXPECT_THAT(load("bulk", stream), Not(HasSubstr("in bulk")));  // over itself
    EXPECT_TRUE(same(dump("bulk"), text));
    ASSERT_EQ(sdb({"clear", root, "bulk", "--yes"}), done) << err;
  }

  // Shards of a bulk appear together at its end.
  const words cut{"load",        root, "bulk",
                  "--shard-mib", "1",  write("stream", binary.substr(0, binary.size() - 1))};
  EXPECT_EQ(sdb(cut), failed);
  EXPECT_EQ(dump("bulk"), "");
  // A whole frame that is missing shows at the end alone. Byte 16 tells the first one's size.
  std::uint32_t size = 0;
  std::memcpy(&size, binary.data() + 16, sizeof size);
  write("stream", std::string(binary).erase(12, 16 + size));
  EXPECT_EQ(sdb(cut), failed);
  EXPECT_THAT(err, HasSubstr("another number"));
  EXPECT_EQ(dump("bulk"), "");
  write("stream", binary);
  ASSERT_EQ(sdb(cut), done) << err;
  EXPECT_GE(shards("bulk").size(), 2U);
  EXPECT_TRUE(same(dump("bulk"), text));

  const std::string other = dir.path("other");
  ASSERT_EQ(sdb({"copy", root, "first", "copied", "--to-root", other}), done) << err;
  ASSERT_EQ(sdb({"dump", other, "copied", "--binary", "-o", dir.path("file")}), done) << err;
  EXPECT_TRUE(same(read(dir.path("file")), binary));
  EXPECT_EQ(json({"shards", other, "copied", "--json"})["shards"].size(), divided.size());
  EXPECT_EQ(read(other + "/copied/sdb.xml"), read(root + "/first/sdb.xml"));

  std::string joined;
  for (const auto &shard : divided)
    joined += dump("first", {"--shard", to_string(shard["number"])});
  EXPECT_TRUE(same(joined, text));
  const std::vector<tool_posting> ordered(held.begin(), held.end());
  for (int i = 0; i < 20; ++i) {
    const tool_key_term a = ordered[random() % ordered.size()].term;
    const tool_key_term b = i < 10 ? random_posting(random).term : a;
    const tool_key_term from = std::min(a, b);
    const tool_key_term to = std::max(a, b);
    const auto comma = [](const tool_key_term &term) {
      std::string bound = tool_key_text(term);
      std::replace(bound.begin(), bound.end(), ' ', ',');
      return bound;
    };
    std::vector<tool_posting> within;
    std::copy_if(ordered.begin(), ordered.end(), std::back_inserter(within),
                 [&](const tool_posting &p) { return p.term >= from && p.term <= to; });
    EXPECT_TRUE(same(dump("first", {"--from", comma(from), "--to", comma(to)}), text_of(within)));
  }
}

TEST_F(ToolDataTest, StreamThatLeavesKeyOrderGoesOnWithInserts) {
  postings held;
  std::string ordered, rest;
  for (std::uint32_t word = 1; word <= 20'000; ++word)
    held.insert({{word, 0, 0}, 9});
  ordered = text_of(held) + "- 7 0 0 9\n" + "20000 0 0 9\n";  // a delete and a repetition keep it
  held.erase({{7, 0, 0}, 9});
  for (std::uint32_t word = 0; word < 40'000; word += 3) {
    held.insert({{word, 0, 0}, 10});
    rest += line_of({{word, 0, 0}, 10});
  }
  EXPECT_THAT(load("t", ordered + rest),
              AllOf(HasSubstr("20000 of them in bulk"), HasSubstr("; deleted 1\n")));
  EXPECT_TRUE(same(dump("t"), text_of(held)));
  EXPECT_EQ(json({"get", root, "t", "6", "0", "0", "--json"})["ids"], nlohmann::json({9, 10}));
}

TEST_F(ToolDataTest, StreamThatIsCutOrChangedAnywhereLoadsNothing) {
  load("t", "1 2 3 5\n1 2 3 4\n4294967295 0 0 18446744073709551615\n");
  const std::string whole = dump("t", {"--binary"});
  ASSERT_LT(whole.size(), 200U);
  const auto refused = [&](const std::string &bytes) {
    const end result = sdb({"load", root, "new", write("stream", bytes), "--create"});
    return result == failed && err.find("nothing was loaded") != std::string::npos &&
           !fs::exists(root + "/new");
  };
  for (std::size_t size = 1; size < whole.size(); ++size)
    EXPECT_TRUE(refused(whole.substr(0, size))) << "cut at " << size << ": " << err << out;
  for (std::size_t at = 0; at < whole.size(); ++at) {
    std::string changed = whole;
    changed[at] = static_cast<char>(changed[at] ^ (1 << at % 8));
    EXPECT_TRUE(refused(changed)) << "changed at " << at << ": " << err << out;
  }
  EXPECT_TRUE(refused(whole + "x"));
  EXPECT_TRUE(refused(whole + whole));
}

TEST_F(ToolDataTest, LoadBringsBackWhatWasDeletedWithoutAMerge) {
  load("t", "1 2 3 5\n1 2 3 4\n");
  {
    tool_database database;
    ASSERT_FALSE(tool_database_open(database, root));
    ASSERT_FALSE(tool_table_open(database, "t"));
    for (const auto change : {&zem_sdb_insert, &zem_sdb_delete}) {
      ASSERT_EQ(change(database.sdb, database.table, 5, tool_key_head({1, 2, 3}), 3), 0);
      ASSERT_EQ(zem_sdb_commit(database.sdb, database.table), 0);
    }
  }
  load("t", "1 2 3 5\n");
  EXPECT_EQ(dump("t"), "1 2 3 5\n1 2 3 4\n");
}

TEST_F(ToolDataTest, BadLineIsRefusedByItsNumber) {
  const std::string good = "# two\n\n 1 2\t3 4 # a posting\r\n";
  for (const std::string line :
       {"1 2 3", "1 2 3 4 5", "1 2 3 0", "1 2 3 -4", "-1 2 3 4", "-", "- ", "1 2 3 4x", "1,2,3,4",
        "4294967296 0 0 1", "0 0 0 18446744073709551616", "+1 2 3 4", "1 2 3 0x4", "1.0 2 3 4",
        "sdbposts"}) {
    EXPECT_EQ(sdb({"load", root, "t", write("stream", good + line), "--create"}), failed) << line;
    EXPECT_THAT(err, AllOf(HasSubstr("line 4 of the postings: "), HasSubstr("nothing was loaded")));
    EXPECT_FALSE(fs::exists(root + "/t"));
  }
  EXPECT_EQ(sdb({"load", root, "t", write("stream", std::string(5000, '#')), "--create"}), failed);
  EXPECT_THAT(err, HasSubstr("line 1 of the postings"));
  EXPECT_EQ(sdb({"load", root, "t", write("stream", std::string(1, '\0')), "--create"}), failed);

  // What an update brought before the bad line stays, and the words say so.
  EXPECT_EQ(load("t", good), "loaded 1 postings, 1 of them in bulk\n");
  EXPECT_EQ(sdb({"load", root, "t", write("stream", "9 9 9 9\n- 1 2 3 4\nx")}), failed);
  EXPECT_THAT(err, AllOf(HasSubstr("line 3"), HasSubstr("1 postings from before that are in")));
  EXPECT_EQ(dump("t"), "1 2 3 4\n9 9 9 9\n");
  EXPECT_EQ(load("t", ""), "loaded 0 postings\n");
}

TEST_F(ToolDataTest, StopLeavesNothingHalfWritten) {
  ASSERT_EQ(load("t", "1 2 3 4\n"), "loaded 1 postings, 1 of them in bulk\n");
  // The stream's writer sits there and says no more.
  const std::string pipe = dir.path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  std::thread writer([&] {
    std::ofstream to(pipe);
    to << text_of(postings{{{1, 1, 1}, 1}, {{2, 2, 2}, 2}}) << std::flush;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    stop = true;
    std::this_thread::sleep_for(std::chrono::seconds(2));
  });
  EXPECT_EQ(sdb({"load", root, "new", pipe, "--create"}), failed);
  EXPECT_THAT(err, AllOf(HasSubstr("stopped"), HasSubstr("nothing was loaded")));
  EXPECT_FALSE(fs::exists(root + "/new"));

  const std::string file = write("file", "precious");
  const auto files = std::distance(fs::directory_iterator(dir.path("")), {});
  EXPECT_EQ(sdb({"dump", root, "t", "-o", file}), failed);
  EXPECT_EQ(read(file), "precious");
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path("")), {}), files);
  EXPECT_EQ(sdb({"copy", root, "t", "u"}), failed);
  EXPECT_EQ(sdb({"bench", "--postings", "1000", "--dir", root}), failed);
  writer.join();
  stop = false;
  EXPECT_EQ(sdb({"list", root}), done);
  EXPECT_EQ(out, "t\n");
  EXPECT_EQ(std::distance(fs::directory_iterator(root), {}), 1);
  EXPECT_EQ(dump("t"), "1 2 3 4\n");
}

TEST_F(ToolDataTest, ListingsSayWhatTheLibrarySays) {
  postings held;
  for (int i = 0; i < 150'000; ++i)
    held.insert(random_posting(random));
  load("t", text_of(held), {"--shard-mib", "1"});
  load("t", "5 5 5 1\n5 5 5 2\n5 6 5 3\n");  // stays in a log

  const nlohmann::json rows = shards("t");
  ASSERT_GT(rows.size(), 1U);
  std::vector<nlohmann::json> terms;
  for (const char *source : {"--data", "--log"}) {
    for (const auto &row : rows) {
      const end result = sdb({"terms", root, "t", "--shard", to_string(row["number"]), source,
                              "--first", "1", "--limit", "3", "--json"});
      terms.push_back(nlohmann::json::parse(out));
      EXPECT_EQ(result, terms.back()["terms"].empty() ? nothing : done);
    }
  }
  const nlohmann::json ids = json({"ids", root, "t", "5", "5", "5", "--shard",
                                   to_string(rows[0]["number"]), "--log", "--skip", "1", "--json"});
  EXPECT_EQ(ids["ids"], nlohmann::json({1}));
  const nlohmann::json wide =
      json({"get", root, "t", "5", "5", "5", "--span01", "0", "--span2", "7", "--json"});
  EXPECT_EQ(wide["ids"], nlohmann::json({1, 2}));

  zem_sdb *sdb_direct = zem_sdb_new(root.c_str(), nullptr);
  const std::uint64_t table = zem_sdb_table_open(sdb_direct, "t");
  ASSERT_NE(table, 0U);
  auto expected = terms.begin();
  for (const auto list : {zem_sdb_dat_keys, zem_sdb_log_keys}) {
    for (const auto &row : rows) {
      std::uint64_t log_terms = 0, data_terms = 0;
      zem_sdb_key_count(sdb_direct, table, row["number"], &log_terms, &data_terms);
      EXPECT_EQ(row["log_terms"], log_terms);
      EXPECT_EQ(row["data_terms"], data_terms);
      EXPECT_GE(row["data_bytes"], 65536U);
      const tool_list heads = tool_list_new(), thirds = tool_list_new(1);
      const tool_lists lists = tool_lists_new();
      const std::int32_t more =
          list(sdb_direct, table, row["number"], 1, 3, heads.get(), thirds.get(), lists.get());
      const nlohmann::json &shown = *expected++;
      EXPECT_EQ(shown["more"], more == 1);
      ASSERT_EQ(shown["terms"].size(), static_cast<std::size_t>(zem_var_size(heads.get())));
      for (std::int64_t i = 0; i < zem_var_size(heads.get()); ++i) {
        const auto &term = shown["terms"][static_cast<std::size_t>(i)];
        EXPECT_EQ(term["term"], tool_key_from(zem_var_get_long(heads.get(), i),
                                              zem_var_get_integer(thirds.get(), i)));
        EXPECT_EQ(term["postings"], zem_var_get_buf(thirds.get(), i));
        const zem_var *newest = zem_xvars_get(lists.get(), i);
        ASSERT_EQ(term["newest"].size(), static_cast<std::size_t>(zem_var_size(newest)));
        for (std::int64_t k = 0; k < zem_var_size(newest); ++k)
          EXPECT_EQ(term["newest"][static_cast<std::size_t>(k)], zem_var_get_long(newest, k));
      }
    }
  }
  zem_sdb_free(sdb_direct);
  EXPECT_EQ(std::count_if(terms.begin(), terms.end(), [](const auto &t) { return t["more"]; }),
            static_cast<std::ptrdiff_t>(rows.size()));
}

TEST_F(ToolDataTest, MistakesAreNamedAndIndexedTablesCopiedAndCleared) {
  const std::string notes = write("a.txt", "a cat\n");
  ASSERT_EQ(sdb({"create", root, "notes"}), done) << err;
  ASSERT_EQ(sdb({"index", root, "notes", notes}), done) << err;
  ASSERT_EQ(sdb({"copy", root, "notes", "again"}), done) << err;
  EXPECT_EQ(sdb({"clear", root, "notes"}), usage);
  ASSERT_EQ(sdb({"clear", root, "notes", "--yes"}), done) << err;
  EXPECT_EQ(sdb({"search", root, "notes", "cat"}), nothing);
  EXPECT_EQ(sdb({"search", root, "again", "cat"}), done);
  EXPECT_THAT(out, HasSubstr("a cat"));
  ASSERT_EQ(sdb({"index", root, "notes", notes}), done) << err;
  EXPECT_EQ(sdb({"search", root, "notes", "cat"}), done);

  const std::vector<std::tuple<end, words, std::string>> cases{
      {failed, {"load", root, "other", write("p", "1 2 3 4")}, "sdb create " + root + " other"},
      {failed, {"load", root, "notes", root}, "it is a directory"},
      {failed, {"load", root, "notes", notes + "x"}, "No such file"},
      {failed, {"dump", root, "notes", "-o", root + "/none/file"}, "No such file"},
      {failed, {"dump", root, "notes", "--shard", "9"}, "has no shard 9"},
      {failed, {"terms", root, "notes", "--shard", "9"}, "sdb shards " + root},
      {failed, {"copy", root, "notes", "again"}, "exists already"},
      {nothing, {"get", root, "notes", "1", "2", "3"}, ""},
      {nothing, {"ids", root, "notes", "1", "2", "3", "--shard", "1"}, ""},
      {usage, {"get", root, "notes", "1", "2", "4294967296"}, "4294967296"},
      {usage, {"dump", root, "notes", "--from", "1,2"}, "W0,W1,W2"},
      {usage, {"dump", root, "notes", "--from", "1,2,3", "--to", "1,2,2"}, "no term between"},
      {usage, {"ids", root, "notes", "1", "2", "3", "--shard", "1", "--skip", "-1"}, "is negative"},
      {usage, {"terms", root, "notes"}, "--shard"},
      {usage, {"terms", root, "notes", "--shard", "1", "--log", "--data"}, "--log"}};
  for (const auto &[code, arguments, why] : cases) {
    EXPECT_EQ(sdb(arguments), code) << ::testing::PrintToString(arguments) << out;
    EXPECT_THAT(err, HasSubstr(why));
  }
  std::ofstream full("/dev/full");
  std::ostringstream why;
  const char *const list[] = {"sdb", "list", root.c_str()};
  EXPECT_EQ(tool_run(3, list, {.out = full, .err = why, .terminal = false, .stop = stop}), failed);
  EXPECT_THAT(why.str(), HasSubstr("cannot write the output"));
  EXPECT_GT(json({"bench", "--postings", "1000", "--dir", root, "--json"})["measured"].size(), 8U);
  EXPECT_EQ(std::distance(fs::directory_iterator(root), {}), 2);
}

}  // namespace
