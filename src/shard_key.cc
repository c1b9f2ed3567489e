#include "src/shard_key.h"

#include "src/data_keys.h"

void zem_mkey_add(const zem_mkey &mkey, std::uint32_t shard_number, zem_keys &keys) {
  zem_keys_add(keys, mkey.id, mkey.term, shard_number);
}
