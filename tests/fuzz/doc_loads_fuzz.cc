// Feeds arbitrary bytes to the reader of a batch's stream form. Linked with libFuzzer this is a
// fuzzer; linked with GoogleTest's main, a test that runs a fixed corpus and mutations of it.
#include "src/doc.h"

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

TEST(DocLoadsFuzz, CorpusAndItsMutationsHold) {
  std::mt19937 random(42);
  std::vector<std::string> corpus{
      std::string(64, '\xff'),
      std::string(4, '\xff') + '\1' + std::string(9, '\xff') + '\1' + std::string(300, '\0')};
  for (const std::uint32_t terms : {1U, 3U, 40U}) {
    zem_doc doc;
    for (std::uint32_t id = 1; id <= 120; ++id)
      zem_doc_load_term(doc, id, {id % terms, 0, id % terms}, id % 3);
    corpus.push_back(stream_of(doc));
  }
  for (const std::string &original : corpus) {
    for (int i = 0; i < 400; ++i) {
      std::string mutant = original;
      for (std::uint32_t change = random() % 4; change > 0; --change)
        mutant[random() % mutant.size()] = static_cast<char>(random());
      if (i > 0) mutant.resize(random() % (mutant.size() + 1));
      run(std::as_bytes(std::span(mutant)));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  run(std::as_bytes(std::span(data, size)));
  return 0;
}
