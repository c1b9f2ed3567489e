// Log-structured key-value stores: one key a posting, term and id big-endian, no value.
#pragma once

#include <array>
#include <filesystem>
#include <leveldb/cache.h>
#include <leveldb/db.h>
#include <leveldb/filter_policy.h>
#include <leveldb/write_batch.h>
#include <memory>
#include <rocksdb/cache.h>
#include <rocksdb/db.h>
#include <rocksdb/filter_policy.h>
#include <rocksdb/slice_transform.h>
#include <rocksdb/table.h>
#include <rocksdb/write_batch.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/peers/work.h"

inline constexpr std::size_t kv_term_size = 12;
inline constexpr std::size_t kv_key_size = 20;
inline constexpr std::size_t kv_buffer_bytes = 64 << 20;
inline constexpr std::size_t kv_cache_bytes = 64 << 20;

using kv_key = std::array<char, kv_key_size>;

inline kv_key make_key(std::uint32_t term, std::uint64_t id) {
  kv_key key{};
  const auto put = [&](std::size_t at, std::uint64_t value, std::size_t bytes) {
    for (std::size_t i = 0; i < bytes; ++i)
      key[at + i] = static_cast<char>(value >> (8 * (bytes - 1 - i)));
  };
  put(0, 1, 4);
  put(4, term, 4);
  put(8, 7, 4);
  put(kv_term_size, id, 8);
  return key;
}

inline std::uint64_t id_in(const char *key) {
  std::uint64_t id = 0;
  for (std::size_t i = kv_term_size; i < kv_key_size; ++i)
    id = id << 8 | static_cast<unsigned char>(key[i]);
  return id;
}

// Walks the keys that begin with the term's.
template <class Iterator, class Slice>
void collect(Iterator &at, std::uint32_t term, std::vector<std::uint64_t> &ids) {
  const kv_key from = make_key(term, 0);
  const Slice prefix(from.data(), kv_term_size);
  ids.clear();
  for (at.Seek(prefix); at.Valid() && at.key().starts_with(prefix); at.Next())
    ids.push_back(id_in(at.key().data()));
}

template <class Status>
void check(const Status &status) {
  if (!status.ok()) throw std::runtime_error(status.ToString());
}

class rocksdb_store {
 public:
  static constexpr const char *name = "rocksdb";

  rocksdb_store(const std::string &directory, bool synced, bool) {
    rocksdb::Options options;
    options.create_if_missing = true;
    options.IncreaseParallelism(2);
    options.write_buffer_size = kv_buffer_bytes;
    options.compression = rocksdb::kNoCompression;
    options.prefix_extractor.reset(rocksdb::NewFixedPrefixTransform(kv_term_size));
    rocksdb::BlockBasedTableOptions table;
    table.block_cache = rocksdb::NewLRUCache(kv_cache_bytes);
    table.filter_policy.reset(rocksdb::NewBloomFilterPolicy(10));
    table.whole_key_filtering = false;
    options.table_factory.reset(rocksdb::NewBlockBasedTableFactory(table));
    rocksdb::DB *db = nullptr;
    check(rocksdb::DB::Open(options, directory, &db));
    db_.reset(db);
    write_options_.sync = synced;
    read_options_.prefix_same_as_start = true;
  }
  void write(std::span<const posting> postings) {
    rocksdb::WriteBatch batch;
    for (const posting &each : postings) {
      const kv_key key = make_key(each.term, each.id);
      check(batch.Put(rocksdb::Slice(key.data(), key.size()), {}));
    }
    check(db_->Write(write_options_, &batch));
  }
  std::span<const std::uint64_t> find(std::uint32_t term) {
    const std::unique_ptr<rocksdb::Iterator> at(db_->NewIterator(read_options_));
    collect<rocksdb::Iterator, rocksdb::Slice>(*at, term, ids_);
    return ids_;
  }
  void come_to_rest() {
    check(db_->Flush({}));
    check(db_->CompactRange({}, nullptr, nullptr));
  }

 private:
  std::unique_ptr<rocksdb::DB> db_;
  rocksdb::WriteOptions write_options_;
  rocksdb::ReadOptions read_options_;
  std::vector<std::uint64_t> ids_;
};

class leveldb_store {
 public:
  static constexpr const char *name = "leveldb";

  leveldb_store(const std::string &directory, bool synced, bool)
      : cache_(leveldb::NewLRUCache(kv_cache_bytes)) {
    leveldb::Options options;
    options.create_if_missing = true;
    options.write_buffer_size = kv_buffer_bytes;
    options.block_cache = cache_.get();
    options.compression = leveldb::kNoCompression;
    leveldb::DB *db = nullptr;
    std::filesystem::create_directories(directory);
    check(leveldb::DB::Open(options, directory, &db));
    db_.reset(db);
    write_options_.sync = synced;
  }
  void write(std::span<const posting> postings) {
    leveldb::WriteBatch batch;
    for (const posting &each : postings) {
      const kv_key key = make_key(each.term, each.id);
      batch.Put(leveldb::Slice(key.data(), key.size()), {});
    }
    check(db_->Write(write_options_, &batch));
  }
  std::span<const std::uint64_t> find(std::uint32_t term) {
    const std::unique_ptr<leveldb::Iterator> at(db_->NewIterator({}));
    collect<leveldb::Iterator, leveldb::Slice>(*at, term, ids_);
    return ids_;
  }
  void come_to_rest() { db_->CompactRange(nullptr, nullptr); }

 private:
  std::unique_ptr<leveldb::Cache> cache_;
  std::unique_ptr<leveldb::DB> db_;
  leveldb::WriteOptions write_options_;
  std::vector<std::uint64_t> ids_;
};
