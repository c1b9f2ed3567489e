// Document batches: filling, merging, and the way through the stream form.
#include "src/doc.h"

#include <benchmark/benchmark.h>
#include <cstddef>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

#include "src/shard_key.h"

namespace {

constexpr std::size_t batch_size = 8192;  // postings, the default at which a table routes its batch

struct posting {
  std::uint64_t id;
  std::uint64_t head;
};

// Postings of one document after the other. A document has 64 different words out of 2^16, so a
// term comes back now and then, as in text; `sorted` gives key order instead of that of arrival.
std::vector<posting> text_postings(bool sorted) {
  std::mt19937 random(42);
  std::vector<posting> postings;
  for (std::size_t i = 0; i < batch_size; ++i)
    postings.push_back({1 + i / 64, random() % 65536});
  if (!sorted) return postings;
  zem_doc doc;
  for (const posting &each : postings)
    zem_doc_load_term(doc, each.id, zem_term_join(each.head, 0), 1);
  postings.clear();
  for (const auto *node = zem_xtree_node_first(doc.tree); node != nullptr; node = node->next)
    postings.push_back({node->id, zem_term_head(node->term)});
  return postings;
}

void fill(zem_doc &doc, const std::vector<posting> &postings) {
  for (const posting &each : postings)
    zem_doc_load(doc, each.id, each.head, 0, 1);
}

std::vector<std::byte> stream_of(const zem_doc &doc) {
  std::vector<std::byte> stream(zem_doc_length(doc));
  zem_doc_to_stream(doc, stream);
  return stream;
}

void count_postings(benchmark::State &state, std::size_t postings) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(postings));
}

// A table's pending batch from one routing to the next, memory taken and given back.
void doc_load(benchmark::State &state) {
  const std::vector<posting> postings = text_postings(state.range(0) != 0);
  for (auto _ : state) {
    zem_doc doc;
    fill(doc, postings);
    benchmark::DoNotOptimize(doc.tree.count);
  }
  count_postings(state, postings.size());
}
BENCHMARK(doc_load)->ArgName("sorted")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

// A host's batch into an empty pending batch.
void doc_update(benchmark::State &state) {
  zem_doc from;
  fill(from, text_postings(false));
  for (auto _ : state) {
    zem_doc doc;
    zem_doc_update(doc, from);
    benchmark::DoNotOptimize(doc.count);
  }
  count_postings(state, batch_size);
}
BENCHMARK(doc_update)->Unit(benchmark::kMicrosecond);

void doc_to_stream(benchmark::State &state) {
  zem_doc doc;
  fill(doc, text_postings(false));
  for (auto _ : state)
    benchmark::DoNotOptimize(stream_of(doc));
  count_postings(state, batch_size);
}
BENCHMARK(doc_to_stream)->Unit(benchmark::kMicrosecond);

void doc_from_stream(benchmark::State &state) {
  zem_doc source;
  fill(source, text_postings(false));
  const std::vector<std::byte> stream = stream_of(source);
  for (auto _ : state) {
    zem_doc doc;
    zem_doc_from_stream(doc, stream);
    benchmark::DoNotOptimize(doc.count);
  }
  count_postings(state, batch_size);
}
BENCHMARK(doc_from_stream)->Unit(benchmark::kMicrosecond);

}  // namespace
