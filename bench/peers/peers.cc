// Our library beside the stores that a user would pick instead: the same postings, the same questions, in
// the same run. Each store does its work in a process of its own, so that memory and processor time are
// its own as well. Every answer enters a checksum that all stores must agree on.
//
//   peers [--postings N] [--stores sdb,lmdb,...] [--works zipf,uniform,together] [--tuned] [--synced]
//         [--seconds S] [--directory D]
//
// Prints a line of JSON a store and work, then a table.
#include <CLI/CLI.hpp>
#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "bench/peers/measure.h"
#include "bench/peers/store_kv.h"
#include "bench/peers/store_lmdb.h"
#include "bench/peers/store_sdb.h"
#include "bench/peers/work.h"

namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

struct settings {
  std::size_t postings = 10'000'000;
  std::vector<std::string> stores{"sdb", "rocksdb", "leveldb", "lmdb"};
  std::vector<std::string> works{"zipf", "uniform", "together"};
  bool tuned = false;
  bool synced = false;
  int seconds = 20;
  std::string directory = "peers.data";
};

// Lets the system forget the pages of all files.
void drop_pages(const std::string &directory) {
  for (const auto &entry : fs::recursive_directory_iterator(directory)) {
    const int fd = ::open(entry.path().c_str(), O_RDONLY);
    if (fd < 0) continue;
    ::fsync(fd);
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    ::close(fd);
  }
}

// ---- questions

double percentile(std::vector<float> &micros, double share) {
  if (micros.empty()) return 0;
  const auto at =
      micros.begin() + static_cast<std::ptrdiff_t>(static_cast<double>(micros.size() - 1) * share);
  std::nth_element(micros.begin(), at, micros.end());
  return *at;
}

template <class Store>
json ask(Store &store, const std::vector<std::uint32_t> &terms) {
  std::vector<float> micros;
  micros.reserve(terms.size());
  std::uint64_t sum = 0;
  double ids = 0;
  double asking = 0;
  for (const std::uint32_t term : terms) {
    const double begun = now();
    const std::span<const std::uint64_t> found = store.find(term);
    const double took = now() - begun;
    asking += took;
    micros.push_back(static_cast<float>(took * 1e6));
    ids += static_cast<double>(found.size());
    sum += checksum(term, found);
  }
  const auto count = static_cast<double>(terms.size());
  return {{"queries_per_s", count / asking},
          {"ids_per_s", ids / asking},
          {"ids_each", ids / count},
          {"p50_us", percentile(micros, 0.5)},
          {"p99_us", percentile(micros, 0.99)},
          {"checksum", sum}};
}

// ---- works

template <class Store>
json ingest(const settings &with, spread how, const std::string &directory) {
  const std::vector<posting> postings = make_postings(how, with.postings);
  const double before_mib = memory_mib("VmRSS");
  forget_peak_memory();
  json result;
  const auto millions = static_cast<double>(postings.size()) / 1e6;
  {
    Store store(directory, with.synced, with.tuned);
    const double begun = now();
    const double begun_cpu = processor_seconds();
    double longest = 0;
    for (std::size_t i = 0; i < postings.size(); i += batch_size) {
      const double batch_begun = now();
      store.write(std::span(postings).subspan(i, std::min(batch_size, postings.size() - i)));
      longest = std::max(longest, now() - batch_begun);
    }
    const double written = now();
    store.come_to_rest();
    const double rested = now();
    result["written_million_per_s"] = millions / (written - begun);
    result["rested_million_per_s"] = millions / (rested - begun);
    result["cpu_s_per_million"] = (processor_seconds() - begun_cpu) / millions;
    result["longest_batch_ms"] = longest * 1e3;
    result["peak_mib"] = memory_mib("VmHWM") - before_mib;
    for (const spread asked : {spread::uniform, spread::zipf}) {
      const bool by_zipf = asked == spread::zipf;
      const auto terms = make_questions(asked, by_zipf ? 20'000 : 300'000, 11);
      std::ignore = ask(store, make_questions(asked, terms.size(), 12));
      result[by_zipf ? "warm_zipf" : "warm_uniform"] = ask(store, terms);
    }
  }
  result["bytes_per_posting"] = disk_bytes(directory) / (millions * 1e6);
  const double begun = now();
  { Store store(directory, with.synced, with.tuned); }
  result["reopen_ms"] = (now() - begun) * 1e3;
  drop_pages(directory);
  Store store(directory, with.synced, with.tuned);
  result["cold_zipf"] = ask(store, make_questions(spread::zipf, 2'000, 13));
  return result;
}

// One writer and one reader on a table that holds a fifth of the postings at first.
template <class Store>
json together(const settings &with, const std::string &directory) {
  const std::vector<posting> base = make_postings(spread::zipf, with.postings / 5);
  Store store(directory, with.synced, with.tuned);
  for (std::size_t i = 0; i < base.size(); i += batch_size)
    store.write(std::span(base).subspan(i, std::min(batch_size, base.size() - i)));
  std::atomic<bool> stop = false;
  std::size_t written = 0;
  std::thread writer([&] {
    documents source(17, base.size());
    std::vector<posting> batch;
    while (!stop) {
      batch.clear();
      while (batch.size() < batch_size)
        source.append(batch);
      batch.resize(batch_size);
      std::sort(batch.begin(), batch.end());
      store.write(batch);
      written += batch.size();
    }
  });
  const auto by_zipf = make_questions(spread::zipf, 1 << 16, 18);
  const auto uniform = make_questions(spread::uniform, 1 << 16, 19);
  std::vector<float> zipf_us, uniform_us;
  const double begun = now();
  for (std::size_t i = 0; now() - begun < with.seconds; ++i) {
    const bool odd = i % 2 == 1;
    const double asked = now();
    std::ignore = store.find((odd ? by_zipf : uniform)[i / 2 % by_zipf.size()]);
    (odd ? zipf_us : uniform_us).push_back(static_cast<float>((now() - asked) * 1e6));
  }
  stop = true;
  writer.join();
  const double took = now() - begun;
  return {{"written_million_per_s", static_cast<double>(written) / took / 1e6},
          {"queries_per_s", static_cast<double>(zipf_us.size() + uniform_us.size()) / took},
          {"zipf_p50_us", percentile(zipf_us, 0.5)},
          {"zipf_p99_us", percentile(zipf_us, 0.99)},
          {"uniform_p50_us", percentile(uniform_us, 0.5)},
          {"uniform_p99_us", percentile(uniform_us, 0.99)}};
}

template <class Store>
json run(const settings &with, const std::string &work) {
  const std::string directory = with.directory + "/" + Store::name;
  fs::remove_all(directory);
  json result{{"store", Store::name},
              {"work", work},
              {"postings", with.postings},
              {"settings", with.tuned ? "tuned" : "default"},
              {"durability", with.synced ? "synced at every batch" : "no sync while running"}};
  if (work == "together") {
    result.update(together<Store>(with, directory));
  } else {
    const spread how = work == "zipf" ? spread::zipf : spread::uniform;
    result.update(ingest<Store>(with, how, directory));
  }
  fs::remove_all(directory);
  return result;
}

json run(const settings &with, const std::string &store, const std::string &work) {
  if (store == "sdb") return run<sdb_store>(with, work);
  if (store == "rocksdb") return run<rocksdb_store>(with, work);
  if (store == "leveldb") return run<leveldb_store>(with, work);
  return run<lmdb_store>(with, work);
}

// Runs a work in a process of its own; its line is printed there and read back here.
json run_apart(const settings &with, const std::string &store, const std::string &work) {
  int ends[2] = {-1, -1};
  if (pipe(ends) < 0) throw std::runtime_error("no pipe");
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("no process");
  if (child == 0) {
    std::string line;
    int code = 0;
    try {
      line = run(with, store, work).dump();
    } catch (const std::exception &error) {
      std::cerr << store << ", " << work << ": " << error.what() << '\n';
      code = 1;
    }
    std::ignore = write(ends[1], line.data(), line.size());
    _exit(code);
  }
  close(ends[1]);
  std::string line;
  char part[4096];
  for (ssize_t got = 0; (got = read(ends[0], part, sizeof part)) > 0;)
    line.append(part, static_cast<std::size_t>(got));
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (status != 0 || line.empty()) throw std::runtime_error(store + " failed");
  std::cout << line << std::endl;
  return json::parse(line);
}

// ---- the table

void print_row(const std::string &what, const std::vector<json> &results,
               const json::json_pointer &at, double scale) {
  std::printf("%-34s", what.c_str());
  for (const json &result : results) {
    if (result.contains(at))
      std::printf(" %12.3f", result.at(at).get<double>() * scale);
    else
      std::printf(" %12s", "-");
  }
  std::printf("\n");
}

void print_table(const std::string &work, const std::vector<json> &results) {
  std::printf("\n%-34s", work.c_str());
  for (const json &result : results)
    std::printf(" %12s", result.at("store").get<std::string>().c_str());
  std::printf("\n");
  using at = json::json_pointer;
  const std::vector<std::tuple<const char *, at, double>> rows{
      {"ingest, written, million/s", at("/written_million_per_s"), 1},
      {"ingest, at rest, million/s", at("/rested_million_per_s"), 1},
      {"processor, s/million", at("/cpu_s_per_million"), 1},
      {"longest batch, ms", at("/longest_batch_ms"), 1},
      {"peak memory, MiB", at("/peak_mib"), 1},
      {"bytes on disk a posting", at("/bytes_per_posting"), 1},
      {"reopen, ms", at("/reopen_ms"), 1},
      {"uniform queries, million/s", at("/warm_uniform/queries_per_s"), 1e-6},
      {"  p50, us", at("/warm_uniform/p50_us"), 1},
      {"  p99, us", at("/warm_uniform/p99_us"), 1},
      {"Zipf queries, million ids/s", at("/warm_zipf/ids_per_s"), 1e-6},
      {"  p99, us", at("/warm_zipf/p99_us"), 1},
      {"the same cold, million ids/s", at("/cold_zipf/ids_per_s"), 1e-6},
      {"queries beside the writer, 1000/s", at("/queries_per_s"), 1e-3},
      {"  Zipf p99, us", at("/zipf_p99_us"), 1},
      {"  uniform p99, us", at("/uniform_p99_us"), 1}};
  for (const auto &[what, where, scale] : rows) {
    if (results.front().contains(where)) print_row(what, results, where, scale);
  }
}

// Whether the stores gave the same answers.
bool agree(const std::vector<json> &results) {
  for (const char *asked : {"warm_uniform", "warm_zipf", "cold_zipf"}) {
    for (const json &result : results) {
      if (result.contains(asked) &&
          result[asked]["checksum"] != results.front()[asked]["checksum"]) {
        std::cerr << "the answers differ: " << asked << '\n';
        return false;
      }
    }
  }
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  settings with;
  CLI::App app("Measures our library beside other stores");
  app.add_option("--postings", with.postings, "Postings of each ingest");
  app.add_option("--stores", with.stores)->delimiter(',');
  app.add_option("--works", with.works)->delimiter(',');
  app.add_option("--seconds", with.seconds, "How long writer and reader work together");
  app.add_option("--directory", with.directory, "Where the stores lie meanwhile");
  app.add_flag("--tuned", with.tuned, "Our library with large merges and without pauses");
  app.add_flag("--synced", with.synced, "Every batch is made durable");
  CLI11_PARSE(app, argc, argv);
  try {
    bool good = true;
    for (const std::string &work : with.works) {
      std::vector<json> results;
      for (const std::string &store : with.stores)
        results.push_back(run_apart(with, store, work));
      print_table(work, results);
      good = agree(results) && good;
    }
    return good ? 0 : 1;
  } catch (const std::exception &error) {
    std::cerr << error.what() << '\n';
    return 1;
  }
}
