// A host outside: keeps documents under terms, comes back in a second life, and asks for words when
// something fails. Usage: host DIRECTORY, which must not exist.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <zem_sdb.h>

namespace {

using database = std::unique_ptr<zem_sdb, decltype(&zem_sdb_free)>;
using list = std::unique_ptr<zem_var, decltype(&zem_var_free)>;

constexpr std::uint64_t even = 2;
constexpr std::uint64_t by_three = 3;
constexpr std::uint64_t documents = 30'000;

void check(bool holds, std::string_view what) {
  if (holds) return;
  std::cerr << "host: " << what << '\n';
  std::exit(EXIT_FAILURE);
}

list make_list() { return {zem_var_new(0, 1), &zem_var_free}; }

// Finds how many documents are under any of both terms, and under both.
void expect_documents(zem_sdb *sdb, std::uint64_t table) {
  const list heads = make_list(), thirds = make_list(), ids = make_list();
  for (const std::uint64_t term : {even, by_three}) {
    zem_var_add_long(heads.get(), term);
    zem_var_add_integer(thirds.get(), 0);
  }
  check(zem_sdb_query(sdb, table, heads.get(), thirds.get(), ids.get()) >= 0, "the query fails");
  std::uint64_t both = 0;
  for (std::int64_t i = 0; i < zem_var_size(ids.get()); ++i) {
    const bool by_six = zem_var_get_long(ids.get(), i) % 6 == 0;
    check(zem_var_get_buf(ids.get(), i) == (by_six ? 2U : 1U), "a tag is not the number of terms");
    if (by_six) ++both;
  }
  check(zem_var_size(ids.get()) == documents * 2 / 3, "documents are missing, or too many");
  check(both == documents / 6, "documents under both terms are missing, or too many");
}

}  // namespace

int main(int argc, char **argv) {
  check(argc == 2 && std::filesystem::create_directory(argv[1]), "give a directory to make");
  check(zem_sdb_version() == std::string(VERSION),
        "the library has another version than its package");
  {
    const database sdb(zem_sdb_new(argv[1], nullptr), &zem_sdb_free);
    check(zem_sdb_table_create(sdb.get(), "numbers") == 0, "the table cannot be made");
    const std::int32_t again = zem_sdb_table_create(sdb.get(), "numbers");
    check(again == ZEM_SDB_E_NAME, "a table is made twice");
    check(zem_sdb_error(again) != std::string(zem_sdb_error(ZEM_SDB_E_HANDLE)),
          "two failures have the same words");
    const std::uint64_t table = zem_sdb_table_open(sdb.get(), "numbers");
    for (std::uint64_t id = 1; id <= documents; ++id) {
      if (id % 2 == 0) zem_sdb_insert(sdb.get(), table, id, even, 0);
      if (id % 3 == 0) zem_sdb_insert(sdb.get(), table, id, by_three, 0);
    }
    check(zem_sdb_sync(sdb.get(), table) == 0, "the table cannot be saved");
    expect_documents(sdb.get(), table);
  }
  const database sdb(zem_sdb_new(argv[1], nullptr), &zem_sdb_free);
  expect_documents(sdb.get(), zem_sdb_table_open(sdb.get(), "numbers"));
  std::cout << "host: " << zem_sdb_error(ZEM_SDB_E_NAME) << " and " << documents << " documents\n";
}
