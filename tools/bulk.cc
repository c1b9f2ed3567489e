#include "tools/bulk.h"

#include <new>

namespace {

constexpr std::uint32_t batch_limit = 8192;  // postings
// Of a data file, about.
constexpr std::uint64_t term_bytes = 14;
constexpr std::uint64_t id_bytes = 8;

tool_problem give_batch(tool_bulk &bulk) {
  if (bulk.batch_postings == 0) return {};
  const std::int32_t result =
      zem_sdb_exec_load(bulk.database.sdb, bulk.loads.back().handle, bulk.batch.get(), 1);
  zem_sdb_doc_clear(bulk.batch.get());
  bulk.batch_postings = 0;
  return tool_library_problem("bulk loading", result);
}

tool_problem begin_shard(tool_bulk &bulk) {
  std::uint64_t load = 0;
  std::uint32_t shard = 0;
  bulk.loads.reserve(bulk.loads.size() + 1);
  const std::int32_t result =
      zem_sdb_exec_open(bulk.database.sdb, bulk.database.table, &load, &shard);
  if (result >= 0) bulk.loads.push_back({.handle = load});
  bulk.filling = result >= 0;
  bulk.filled_bytes = 0;
  return tool_library_problem("beginning a bulk load", result);
}

}  // namespace

tool_doc tool_doc_new() {
  zem_doc *batch = zem_sdb_doc_new();
  if (batch == nullptr) throw std::bad_alloc();
  return tool_doc(batch);
}

tool_bulk::~tool_bulk() {
  for (const load &open : loads)
    zem_sdb_exec_cancel(database.sdb, open.handle);
}

bool tool_bulk_takes(const tool_bulk &bulk, const tool_posting &posting) {
  return !bulk.last || !(posting < *bulk.last);
}

tool_problem tool_bulk_add(tool_bulk &bulk, const tool_posting &posting) {
  if (bulk.last == posting) return {};
  if (bulk.filled_bytes >= bulk.shard_bytes) {
    if (tool_problem problem = tool_bulk_end_shard(bulk)) return problem;
  }
  if (!bulk.filling) {
    if (tool_problem problem = begin_shard(bulk)) return problem;
  }
  if (zem_sdb_doc_add(bulk.batch.get(), posting.id, posting.term.data(), 1) < 0) {
    throw std::bad_alloc();
  }
  const bool new_term = !bulk.last || bulk.last->term != posting.term;
  bulk.filled_bytes += id_bytes + (new_term ? term_bytes : 0);
  bulk.last = posting;
  ++bulk.loads.back().postings;
  return ++bulk.batch_postings < batch_limit ? tool_problem{} : give_batch(bulk);
}

tool_problem tool_bulk_end_shard(tool_bulk &bulk) {
  if (!bulk.filling) return {};
  if (tool_problem problem = give_batch(bulk)) return problem;
  bulk.filling = false;
  return tool_library_problem("completing a data file",
                              zem_sdb_exec_commit(bulk.database.sdb, bulk.loads.back().handle, 1));
}

tool_problem tool_bulk_end(tool_bulk &bulk) {
  if (tool_problem problem = tool_bulk_end_shard(bulk)) return problem;
  while (!bulk.loads.empty()) {
    tool_problem problem = tool_patiently("handing a shard to the table", [&] {
      std::uint64_t id = 0;
      tool_key_term term{};
      return zem_sdb_exec_close(bulk.database.sdb, bulk.loads.front().handle, &id, term.data());
    });
    if (problem) return problem;
    bulk.handed += bulk.loads.front().postings;
    bulk.loads.erase(bulk.loads.begin());
  }
  return {};
}
