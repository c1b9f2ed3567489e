// What the table's sources share and nobody else needs.
#pragma once

#include <cstdint>
#include <vector>

#include "base/scope.h"

#include "src/table.h"

// The shards in high-key order. Whoever uses them after this is counted as a holder.
std::vector<zem_shard *> zem_table_shard_list(const zem_table &table);

// Queues commits for the shards that were written to since their last one: all of them, or those that
// have been quiet for more than `flush_time` seconds.
enum class zem_table_which : std::uint8_t { written, quiet };
void zem_table_request_commits(zem_table &table, zem_table_which which);

// Sleeps; false, at once, when the table is cleared or closed.
bool zem_table_nap(zem_table &table, std::uint64_t micros);
