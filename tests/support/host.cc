#include "tests/support/host.h"

#include <filesystem>
#include <fstream>
#include <string_view>

namespace {

constexpr std::uint32_t wait_ms = 120'000;

}  // namespace

std::uint64_t host_head(const host_term &term) noexcept {
  return std::uint64_t{term[1]} << 32 | term[0];
}

host_list host_longs(const std::vector<std::uint64_t> &values) {
  host_list list(zem_var_new(static_cast<std::int64_t>(values.size()), 0));
  for (const std::uint64_t value : values)
    EXPECT_EQ(zem_var_add_long(list.get(), value), 1);
  return list;
}

host_postings::host_postings(const std::vector<host_posting> &postings)
    : ids(zem_var_new(0, 0)), heads(zem_var_new(0, 0)), thirds(zem_var_new(0, 0)) {
  for (const host_posting &posting : postings) {
    EXPECT_EQ(zem_var_add_long(ids.get(), posting.id), 1);
    EXPECT_EQ(zem_var_add_long(heads.get(), host_head(posting.term)), 1);
    EXPECT_EQ(zem_var_add_integer(thirds.get(), posting.term[2]), 1);
  }
}

host_doc host_batch(const std::vector<std::pair<host_posting, std::uint32_t>> &changes,
                    std::uint32_t count) {
  host_doc batch(zem_sdb_doc_new());
  for (const auto &[posting, flag] : changes)
    EXPECT_GE(zem_sdb_doc_add(batch.get(), posting.id, posting.term.data(), flag), 0);
  zem_sdb_doc_set_val(batch.get(), 1, count);
  return batch;
}

host_log::host_log() : log_(zem_err_new(take, this)) {}

std::vector<std::string> host_log::errors() const {
  const std::lock_guard held(mutex_);
  return errors_;
}

std::vector<std::string> host_log::infos() const {
  const std::lock_guard held(mutex_);
  return infos_;
}

void host_log::forget() {
  const std::lock_guard held(mutex_);
  errors_.clear();
  infos_.clear();
}

void host_log::take(void *self, int level, const char *line) {
  auto &log = *static_cast<host_log *>(self);
  std::unique_lock held(log.mutex_);
  log.released_.wait(
      held, [&] { return log.held_.empty() || !std::string_view(line).starts_with(log.held_); });
  (level < 0 ? log.infos_ : log.errors_).emplace_back(line);
}

host_hold::host_hold(host_log &log, std::string text) : log_(log) {
  const std::lock_guard held(log_.mutex_);
  log_.held_ = std::move(text);
}

host_hold::~host_hold() {
  {
    const std::lock_guard held(log_.mutex_);
    log_.held_.clear();
  }
  log_.released_.notify_all();
}

std::set<std::string> host_names_in(const std::string &directory) {
  std::set<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(directory))
    names.insert(entry.path().filename());
  return names;
}

std::vector<host_row> host_rows(const zem_keys *keys) {
  std::vector<host_row> rows;
  for (std::int64_t i = 0; i < zem_sdb_keys_size(keys); ++i) {
    host_row row;
    zem_sdb_keys_fetch(keys, i, &row.key.id, row.key.term.data(), &row.attribute);
    rows.push_back(row);
  }
  return rows;
}

HostTest::HostTest() {
  EXPECT_GE(zem_sdb_table_create(sdb.get(), "t"), 0);
  configure({});
}

void HostTest::configure(std::map<std::string, std::uint32_t> settings) {
  settings.try_emplace("flush_time", 100'000);
  std::string text = "<table>";
  for (const auto &[key, value] : settings)
    text += "<" + key + ">" + std::to_string(value) + "</" + key + ">";
  if (table != 0) close();
  write_file("sdb.xml", text + "</table>");
  open();
}

void HostTest::write_file(const std::string &file, const std::string &text) const {
  std::ofstream stream(path(file), std::ios::trunc | std::ios::binary);
  stream << text;
  ASSERT_TRUE(stream.flush());
}

void HostTest::open() {
  table = zem_sdb_table_open(sdb.get(), "t");
  ASSERT_NE(table, 0U);
}

void HostTest::close() {
  EXPECT_EQ(zem_sdb_table_close(sdb.get(), table), 0);
  table = 0;
}

void HostTest::insert(const host_term &term, std::uint64_t id) const {
  EXPECT_EQ(zem_sdb_insert(sdb.get(), table, id, host_head(term), term[2]), 0);
}

void HostTest::remove(const host_term &term, std::uint64_t id) const {
  EXPECT_EQ(zem_sdb_delete(sdb.get(), table, id, host_head(term), term[2]), 0);
}

void HostTest::insert_all(const std::vector<host_posting> &postings) const {
  const host_postings lists(postings);
  EXPECT_EQ(
      zem_sdb_inserts(sdb.get(), table, lists.ids.get(), lists.heads.get(), lists.thirds.get()), 0);
}

void HostTest::remove_all(const std::vector<host_posting> &postings) const {
  const host_postings lists(postings);
  EXPECT_EQ(
      zem_sdb_deletes(sdb.get(), table, lists.ids.get(), lists.heads.get(), lists.thirds.get()), 0);
}

void HostTest::sync() const { EXPECT_EQ(zem_sdb_sync(sdb.get(), table), 0); }

void HostTest::wait_idle() const { EXPECT_EQ(zem_sdb_wait(sdb.get(), table, wait_ms), 1); }

void HostTest::merge() const {
  EXPECT_EQ(zem_sdb_merge(sdb.get(), table), 0);
  wait_idle();
}

std::vector<std::uint64_t> HostTest::find(const host_term &term) const {
  const host_answer answer = query({{term}});
  EXPECT_EQ(answer.status, 0);
  std::vector<std::uint64_t> ids;
  for (const auto &[id, tag] : answer.ids)
    ids.push_back(id);
  return ids;
}

host_totals HostTest::totals() const {
  host_totals found;
  EXPECT_EQ(zem_sdb_table_count(sdb.get(), table, &found.count, &found.xcount, &found.fsize,
                                &found.msize),
            0);
  return found;
}

std::pair<std::uint64_t, std::uint64_t> HostTest::key_count() const {
  std::pair<std::uint64_t, std::uint64_t> counts;
  EXPECT_EQ(zem_sdb_key_count(sdb.get(), table, 1, &counts.first, &counts.second), 0);
  return counts;
}

std::vector<host_row> HostTest::shards() const {
  const host_keys keys(zem_sdb_keys_new());
  EXPECT_EQ(zem_sdb_shards(sdb.get(), table, keys.get()), 0);
  return host_rows(keys.get());
}

host_answer HostTest::query(const std::vector<host_item> &items) const {
  const auto count = static_cast<std::int64_t>(items.size());
  const host_list heads(zem_var_new(count, 1));
  const host_list thirds(zem_var_new(count, 1));
  for (const host_item &item : items) {
    zem_var_add_long(heads.get(), host_head(item.term));
    zem_var_set_buf(heads.get(), -1, item.span01);
    zem_var_add_integer(thirds.get(), item.term[2]);
    zem_var_set_buf(thirds.get(), -1, item.span2);
  }
  const host_list ids(zem_var_new(0, 1));
  host_answer answer;
  answer.status = zem_sdb_query(sdb.get(), table, heads.get(), thirds.get(), ids.get());
  const std::uint64_t *values = nullptr;
  const std::uint32_t *tags = nullptr;
  const std::int64_t found = zem_var_longs(ids.get(), &values, &tags);
  for (std::int64_t i = 0; i < found; ++i) {
    const bool first = answer.ids.try_emplace(values[i], tags[i]).second;
    EXPECT_TRUE(first) << "id " << values[i] << " twice";
  }
  return answer;
}
