// Feeds arbitrary bytes to the reader of a batch's stream form. Linked with libFuzzer this is a
// fuzzer; linked with GoogleTest's main, a test that runs a fixed corpus and mutations of it.
#include "src/doc.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "include/zem_sdb.h"

namespace {

// Ends the process, as a fuzzer wants it, also where asserts are compiled out.
void require(bool holds, const char *what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

std::string stream_of(const zem_doc &doc) {
  std::string stream(zem_doc_length(doc), '\0');
  zem_doc_to_stream(doc, std::as_writable_bytes(std::span(stream)));
  return stream;
}

void run(std::span<const std::byte> stream) {
  zem_doc doc;
  zem_doc_from_stream(doc, stream);
  require(zem_xtree_valid(doc.tree), "the tree is valid");
  require(static_cast<std::size_t>(doc.tree.count) * zem_doc_format::posting_size <= stream.size(),
          "every posting comes from bytes of its own");
  zem_doc one_posting;  // holds one block of each pool, which is the least
  zem_doc_load_term(one_posting, 1, {}, 1);
  require(zem_xtree_msize(doc.tree) <= zem_xtree_msize(one_posting.tree) + 16 * stream.size(),
          "memory is bounded by the bytes");

  const std::string written = stream_of(doc);
  zem_doc copy;
  zem_doc_from_stream(copy, std::as_bytes(std::span(written)));
  require(copy.count == doc.count && copy.tree.count == doc.tree.count, "a copy holds as much");
  require(stream_of(copy) == written, "a copy reads the same");
}

// Streams of batches of several shapes: `terms` terms of `run` postings each.
std::string stream_of_shape(std::uint32_t terms, std::uint32_t run_length) {
  zem_doc doc;
  for (std::uint32_t term = 0; term < terms; ++term)
    for (std::uint32_t id = 1; id <= run_length; ++id)
      zem_doc_load_term(doc, id, {term, 0, term}, id % 3);
  doc.count = terms * run_length;
  return stream_of(doc);
}

std::vector<std::string> corpus() {
  return {
      "",
      std::string(2, '\0'),
      std::string(64, '\xff'),
      std::string(4, '\xff') + '\1' + std::string(9, '\xff') + '\1' + std::string(300, '\0'),
      stream_of_shape(1, 1),
      stream_of_shape(3, 2),
      stream_of_shape(40, 1),
      stream_of_shape(1, 300),
  };
}

TEST(DocLoadsFuzz, CorpusAndItsMutationsHold) {
  constexpr std::uint32_t seed = 42;
  constexpr int mutations = 400;
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  for (const std::string &original : corpus()) {
    run(std::as_bytes(std::span(original)));
    for (int i = 0; i < mutations && !original.empty(); ++i) {
      std::string mutant = original;
      for (std::uint32_t change = random() % 4; change > 0; --change)
        mutant[random() % mutant.size()] = static_cast<char>(random());
      mutant.resize(random() % (mutant.size() + 1));
      run(std::as_bytes(std::span(mutant)));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  run(std::as_bytes(std::span(data, size)));
  return 0;
}
