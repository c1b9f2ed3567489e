// The split task: divides a shard in two, here or with the host, while queries and updates go on.
//
//   step                                 state            updates     queries
//   begin, main pass                     splitting        live log    go on
//   rest pass                            splitting        parked      go on
//   host agrees, writers drain
//   parked pass                          holding_writers  wait        go on
//   host agrees, all drain
//   list written, records exchanged      holding_readers  wait        wait
//
// The rename of the new list is the point of no return. Whatever fails before it gives the split up:
// nothing is lost, the numbers of the new shards are not used again, and a merge is tried next.
#pragma once

#include "base/status.h"

#include "src/shard.h"
#include "src/table.h"

// Splits a shard that was claimed for it; it is idle on return. zem_ok also when the halves could not be
// filled and a merge is queued instead.
zem_status zem_task_split(zem_table &table, zem_shard &shard);
