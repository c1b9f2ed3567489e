// Listings of one shard's live log and data file, for people who look into a table.

#include "src/shard.h"

#include <algorithm>
#include <limits>

#include "base/var.h"

#include "src/spm_iter.h"
#include "src/spx_iter.h"

namespace {

constexpr std::size_t ids_shown = 11;  // of each term of a page

}  // namespace

zem_status zem_shard_log_find(const zem_shard &shard, const zem_term &term,
                              std::uint64_t &position) {
  bool past_end = false;
  const auto *found = zem_xtree_node_bfind(shard.log.tree, term, zem_id_first, &past_end);
  if (found == nullptr || past_end) return zem_ok;
  std::uint64_t before = 0;
  for (const auto *node = zem_xtree_node_first(shard.log.tree); node != found; node = node->next)
    before += node->first;
  position = before;
  return zem_ok;
}

zem_status zem_shard_dat_find(const zem_shard &shard, const zem_term &term,
                              std::uint64_t &position) {
  const zem_status st = zem_spx_term_index(shard.dat, term, position);
  return st < 0 ? st : zem_ok;
}

namespace {

// The terms of the live log, as a page sees them.
struct log_terms {
  const zem_spm &spm;
  zem_iter at{};

  zem_status find(std::uint64_t index) {
    zem_spm_iterd_find_x(spm, at, index);
    return zem_ok;
  }
  bool stands() const noexcept { return zem_iter_stands(at); }
  bool live() const noexcept { return at.val->flag >= 0; }
  zem_status next(std::uint64_t &count, zem_var *ids) {
    return zem_spm_iterd_next_x(at, count, ids, ids_shown) ? zem_yes : zem_ok;
  }
};

// Those of the data file.
struct dat_terms {
  const zem_spx &spx;
  zem_xiter at{};

  zem_status find(std::uint64_t index) { return zem_spx_iterd_find_x(spx, at, index); }
  bool stands() const noexcept { return zem_xiter_stands(at); }
  static bool live() noexcept { return true; }
  zem_status next(std::uint64_t &count, zem_var *ids) {
    return zem_spx_iterd_next_x(spx, at, count, ids, ids_shown);
  }
};

// Walks past one term and lists it.
template <class Source>
zem_status list_term(Source &source, zem_shard_terms &terms) {
  const std::uint64_t head = zem_term_head(source.at.term);
  const std::uint64_t third = source.at.term[2];
  zem_var_append_longs(terms.heads, {&head, 1}, 0);
  zem_var_append_longs(terms.thirds, {&third, 1}, 0);
  zem_var ids;
  ids.tagged = true;
  std::uint64_t count = 0;
  const zem_status st = source.next(count, &ids);
  if (st < 0) return st;
  constexpr std::uint64_t most = std::numeric_limits<std::uint32_t>::max();
  zem_var_set_buf(&terms.thirds, -1, static_cast<std::uint32_t>(std::min(count, most)));
  terms.ids.lists.push_back(std::move(ids));
  return st;
}

template <class Source>
zem_status list_terms(Source source, const zem_shard_page &page, zem_shard_terms &terms) {
  const auto start = static_cast<std::uint64_t>(std::max<std::int64_t>(page.skip, 0));
  zem_status st = source.find(start);
  std::int64_t walked = 0;
  while (st >= 0 && source.stands()) {
    std::uint64_t count = 0;
    st = source.live() ? list_term(source, terms) : source.next(count, nullptr);
    ++walked;
    if (page.limit > 0 && walked >= page.limit) break;
  }
  return st;
}

// How many items of a list a page reaches to: past those that it skips.
std::int64_t end_of(const zem_shard_page &page) noexcept {
  constexpr std::int64_t all = std::numeric_limits<std::int64_t>::max();
  std::int64_t end = 0;
  if (page.limit <= 0 || __builtin_add_overflow(page.skip, page.limit, &end)) return all;
  return end;
}

}  // namespace

zem_status zem_shard_log_keys(const zem_shard &shard, const zem_shard_page &page,
                              zem_shard_terms &terms) {
  return list_terms(log_terms{.spm = shard.log}, page, terms);
}

zem_status zem_shard_dat_keys(const zem_shard &shard, const zem_shard_page &page,
                              zem_shard_terms &terms) {
  return list_terms(dat_terms{.spx = shard.dat}, page, terms);
}

zem_status zem_shard_log_ids(const zem_shard &shard, const zem_term &term,
                             const zem_shard_page &page, zem_var &ids) {
  zem_iter it;
  if (!zem_spm_iter_find_x(shard.log, it, term, zem_id_first)) return zem_ok;
  const std::int64_t end = end_of(page);
  for (std::int64_t i = 0; i < end && zem_iter_stands(it); ++i) {
    if (i >= page.skip) zem_var_append_longs(ids, {&it.doc, 1}, 0);
    zem_spm_iter_next(it);
  }
  return zem_yes;
}

zem_status zem_shard_dat_ids(const zem_shard &shard, const zem_term &term,
                             const zem_shard_page &page, zem_var &ids) {
  zem_xiter it;
  zem_status st = zem_spx_iter_find_x(shard.dat, it, term, zem_id_first);
  if (st <= 0) return st;
  const std::int64_t start = std::max<std::int64_t>(page.skip, 0);
  std::int64_t left = std::max<std::int64_t>(end_of(page) - start, 0);
  if (left == 0) return zem_yes;
  st = zem_spx_iter_pass(shard.dat, it, static_cast<std::uint64_t>(start));
  while (st > 0 && left > 0) {
    const std::span<const std::byte> run = zem_xiter_run(it);
    const auto count = std::min<std::int64_t>(
        left, static_cast<std::int64_t>(run.size() / zem_spx_format::id_size));
    const auto taken = static_cast<std::size_t>(count);
    zem_var_append_lwords(ids, run.first(taken * zem_spx_format::id_size), 0);
    left -= count;
    if (left > 0) st = zem_spx_iter_next_group(shard.dat, it);
  }
  return st < 0 ? st : zem_yes;
}
