// Postings in key order on their way into a table past its logs, cut into shards of a sensible size.
//
// Nobody sees the postings before the end, when all shards are handed over, in the order of their
// ranges. Whatever ends a bulk before that leaves the table as it was.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "tools/database.h"
#include "tools/posting.h"

struct tool_doc_free {
  void operator()(zem_doc *batch) const noexcept { zem_sdb_doc_free(batch); }
};
using tool_doc = std::unique_ptr<zem_doc, tool_doc_free>;

// An empty batch; ends the program when memory is short, as `new` does.
tool_doc tool_doc_new();

struct tool_bulk {
  explicit tool_bulk(tool_database &into) : database(into) {}
  ~tool_bulk();
  tool_bulk(const tool_bulk &) = delete;
  tool_bulk &operator=(const tool_bulk &) = delete;

  tool_database &database;                               // outlives the bulk, its table stays open
  std::uint64_t shard_bytes = std::uint64_t{256} << 20;  // of a data file, about

  struct load {
    std::uint64_t handle = 0;
    std::uint64_t postings = 0;
  };
  std::vector<load> loads;         // by range; the last is being filled
  bool filling = false;            // the last load takes more postings
  std::uint64_t filled_bytes = 0;  // of the data file being filled
  tool_doc batch = tool_doc_new();
  std::uint32_t batch_postings = 0;
  std::optional<tool_posting> last;
  std::uint64_t handed = 0;  // postings that the table has
};

// Whether nothing was given to the bulk that comes behind `posting`, or is that posting.
bool tool_bulk_takes(const tool_bulk &bulk, const tool_posting &posting);

// Adds a posting that the bulk takes. The same one again changes nothing.
tool_problem tool_bulk_add(tool_bulk &bulk, const tool_posting &posting);

// Completes the shard in hand, durably; the next posting opens another.
tool_problem tool_bulk_end_shard(tool_bulk &bulk);

// Hands everything over to the table. A failure halfway leaves the shards there that were handed over.
tool_problem tool_bulk_end(tool_bulk &bulk);
