// What a posting costs as a table grows: Zipf documents in pieces, each brought to rest.
//
//   growth [--postings N] [--piece N] [--split-mib M] [--tuned] [--directory D]
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "bench/peers/measure.h"
#include "bench/peers/store_sdb.h"
#include "bench/peers/work.h"

namespace {

struct settings {
  std::size_t postings = 100'000'000;
  std::size_t piece = 10'000'000;
  std::uint32_t split_mib = 512;
  bool tuned = false;
  std::string directory = "growth.data";
};

void write_piece(sdb_store &store, documents &source, std::size_t postings) {
  std::vector<posting> piece;
  while (piece.size() < postings)
    source.append(piece);
  const auto millions = static_cast<double>(piece.size()) / 1e6;
  sort_batches(piece);
  const double begun = now();
  const double begun_cpu = processor_seconds();
  for (std::size_t i = 0; i < piece.size(); i += batch_size)
    store.write(std::span(piece).subspan(i, std::min(batch_size, piece.size() - i)));
  store.come_to_rest();
  std::printf(" %12.3f %12.3f", millions / (now() - begun),
              (processor_seconds() - begun_cpu) / millions);
}

// Queries a second, in millions; warm.
double ask(sdb_store &store) {
  const auto terms = make_questions(spread::uniform, 200'000, 11);
  for (const std::uint32_t term : terms)
    store.find(term);
  const double begun = now();
  for (const std::uint32_t term : terms)
    store.find(term);
  return static_cast<double>(terms.size()) / (now() - begun) / 1e6;
}

void grow(const settings &with) {
  std::filesystem::remove_all(with.directory);
  std::printf("%12s %12s %12s %12s %12s %12s\n", "postings, M", "million/s", "cpu s/M",
              "queries, M/s", "bytes each", "memory, MiB");
  documents source(7, 1);
  sdb_store store(with.directory, false, with.tuned, with.split_mib);
  for (std::size_t held = with.piece; held <= with.postings; held += with.piece) {
    std::printf("%12.1f", static_cast<double>(held) / 1e6);
    write_piece(store, source, with.piece);
    std::printf(" %12.3f", ask(store));
    std::printf(" %12.3f", disk_bytes(with.directory) / static_cast<double>(held));
    std::printf(" %12.1f\n", memory_mib("VmRSS"));
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char **argv) {
  settings with;
  CLI::App app("Measures how the cost of a posting grows with its table");
  app.add_option("--postings", with.postings, "How far the table grows");
  app.add_option("--piece", with.piece, "Postings between two lines");
  app.add_option("--split-mib", with.split_mib, "MiB at which a shard divides, to 4095");
  app.add_option("--directory", with.directory, "Where the table lies meanwhile");
  app.add_flag("--tuned", with.tuned, "Large merges, no pauses");
  CLI11_PARSE(app, argc, argv);
  try {
    grow(with);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  std::filesystem::remove_all(with.directory);
  return 0;
}
