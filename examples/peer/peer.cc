// Two stores, one table: a host whose table grows until its upper half moves to a second process.
//
//   peer DIRECTORY
//
// The host inserts documents; the first split of its table is taken over by the store process. From then
// on the host sends what lies above the boundary there, and asks both for a term.
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sys/wait.h>

#include "examples/peer/lists.h"
#include "examples/peer/store.h"
#include "examples/peer/wire.h"

namespace {

constexpr std::uint32_t words = 1000;
constexpr std::uint64_t documents = 600'000;  // a word each
constexpr std::uint32_t batch_postings = 8192;

std::uint32_t word_of(std::uint64_t id) { return static_cast<std::uint32_t>(id * 7919 % words); }

// The socket to the store. Worker threads and the host's own use it in turns.
int store_socket = -1;
std::mutex store_mutex;

message ask(const message &head, std::string &text) {
  const std::lock_guard held(store_mutex);
  put(store_socket, head, text);
  return get(store_socket, text);
}
std::int32_t ask(op what) {
  std::string none;
  return ask({.what = what}, none).status;
}

// What the host knows of its table. A real one keeps both on disk, written in split_done.
std::atomic<bool> moved = false;
std::uint32_t boundary_word = 0;  // the lower half's greatest key
std::uint64_t boundary_id = 0;

// ---- the callbacks, which run on a worker thread of the library

void split_open(const char *, std::uint32_t, std::uint64_t *peer, std::uint64_t *target) {
  *peer = moved ? 0 : 1;  // the first half moves, later splits stay here
  *target = 0;
}

std::int32_t peer_load(std::uint64_t, std::uint64_t, std::uint64_t *load, std::uint32_t *shard) {
  std::string none;
  const message reply = ask({.what = op::load}, none);
  *load = 1;  // the store has one at a time
  *shard = reply.shard;
  return reply.status;
}

// Sends a batch in its stream form.
std::int32_t send(message head, const zem_doc *batch) {
  const owner<zem_var> out(zem_var_new(0, 0));
  zem_sdb_doc_dumps(batch, out.get());
  const char *bytes = nullptr;
  std::int64_t length = 0;
  if (zem_var_get_string(out.get(), -1, &bytes, &length) == 0) return -1;
  std::string text(bytes, static_cast<std::size_t>(length));
  return ask(head, text).status;
}

std::int32_t peer_batch(std::uint64_t, std::uint64_t, zem_doc *batch, int destination) {
  return send({.what = op::batch, .to = destination}, batch);
}

std::int32_t peer_commit(std::uint64_t, std::uint64_t, int destination) {
  std::string none;
  return ask({.what = op::commit, .to = destination}, none).status;
}

std::int32_t peer_close(std::uint64_t, std::uint64_t, std::uint64_t *id, std::uint32_t term[3]) {
  std::string none;
  const message reply = ask({.what = op::close}, none);
  *id = reply.id;
  std::memcpy(term, reply.term, sizeof reply.term);
  return reply.status;
}

std::int32_t peer_cancel(const char *, std::uint64_t, std::uint64_t, std::uint64_t, std::uint32_t) {
  return ask(op::cancel);
}

void split_notify(const char *, std::uint32_t, std::uint32_t) {}

void split_wait(const char *, std::uint32_t, std::uint32_t *done) { *done = 1; }

void split_done(const char *, std::uint64_t peer, std::uint64_t, const zem_var *ids,
                const zem_var *keys) {
  if (peer == 0) return;
  boundary_word = static_cast<std::uint32_t>(zem_var_get_long(keys, 1));
  boundary_id = zem_var_get_long(ids, 1);
  moved = true;
}

template <class Function>
void set(zem_sdb *sdb, std::uint32_t slot, Function function) {
  zem_sdb_callback(sdb, slot, reinterpret_cast<zem_sdb_function>(function));
}

void take_part_in_splits(zem_sdb *sdb) {
  set(sdb, ZEM_SDB_SPLIT_OPEN, split_open);
  set(sdb, ZEM_SDB_SPLIT_DONE, split_done);
  set(sdb, ZEM_SDB_PEER_CANCEL, peer_cancel);
  set(sdb, ZEM_SDB_SPLIT_NOTIFY, split_notify);
  set(sdb, ZEM_SDB_SPLIT_WAIT, split_wait);
  set(sdb, ZEM_SDB_PEER_LOAD, peer_load);
  set(sdb, ZEM_SDB_PEER_CLOSE, peer_close);
  set(sdb, ZEM_SDB_PEER_BATCH, peer_batch);
  set(sdb, ZEM_SDB_PEER_COMMIT, peer_commit);
}

// ---- routing

// Keys rise with the word and, within a word, fall with the id.
bool lies_there(std::uint32_t word, std::uint64_t id) {
  return moved && (word > boundary_word || (word == boundary_word && id < boundary_id));
}

// Documents for the store, gathered and sent as the stream form of a batch.
std::int32_t send_batch(zem_doc *batch) {
  const std::int32_t st = send({.what = op::update}, batch);
  zem_sdb_doc_clear(batch);
  return st;
}

std::int32_t insert_all(zem_sdb *sdb, std::uint64_t table) {
  const owner<zem_doc> there(zem_sdb_doc_new());
  std::uint64_t added = 0;
  std::int32_t st = 0;
  for (std::uint64_t id = 1; st >= 0 && id <= documents; ++id) {
    const std::uint32_t term[3] = {word_of(id), 0, 0};
    if (!lies_there(term[0], id)) {
      st = zem_sdb_insert(sdb, table, id, term[0], 0);
    } else {
      st = zem_sdb_doc_add(there.get(), id, term, 1);
      if (st >= 0 && ++added % batch_postings == 0) st = send_batch(there.get());
    }
  }
  if (st >= 0) st = send_batch(there.get());
  if (st >= 0) st = ask(op::sync);
  return st < 0 ? st : zem_sdb_sync(sdb, table);
}

// What was pending while a half moved may lie here still, so both are asked.
std::set<std::uint64_t> find_in_both(zem_sdb *sdb, std::uint64_t table, std::uint32_t word) {
  std::set<std::uint64_t> found;
  if (find(sdb, table, word, found) < 0) return {};
  std::string text;
  message head{.what = op::query};
  head.term[0] = word;
  ask(head, text);
  for (std::size_t at = 0; at + sizeof(std::uint64_t) <= text.size(); at += sizeof(std::uint64_t)) {
    std::uint64_t id = 0;
    std::memcpy(&id, text.data() + at, sizeof id);
    found.insert(id);
  }
  return found;
}

int run(const std::string &root) {
  std::filesystem::create_directories(root + "/words");
  std::ofstream(root + "/words/sdb.xml")
      << "<table><merge_num>1</merge_num><split_num>1</split_num></table>";
  const owner<zem_sdb> sdb(zem_sdb_new(root.c_str(), nullptr));
  take_part_in_splits(sdb.get());
  const std::uint64_t table = zem_sdb_table_open(sdb.get(), "words");
  if (insert_all(sdb.get(), table) < 0) return 1;
  zem_sdb_wait(sdb.get(), table, 60'000);

  const std::uint64_t here = postings(sdb.get(), table);
  std::string none;
  const std::uint64_t there = ask({.what = op::count}, none).id;
  std::uint64_t found = 0;
  for (std::uint32_t word = 0; word < words; ++word)
    found += find_in_both(sdb.get(), table, word).size();
  std::printf("boundary at word %u: %llu postings here, %llu there\n", boundary_word,
              static_cast<unsigned long long>(here), static_cast<unsigned long long>(there));
  std::printf("%llu of %llu documents found\n", static_cast<unsigned long long>(found),
              static_cast<unsigned long long>(documents));
  return found == documents && moved ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  const std::string root = argc > 1 ? argv[1] : "peer.data";
  std::filesystem::remove_all(root);
  std::filesystem::create_directories(root);
  int ends[2] = {-1, -1};
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) < 0) return 1;
  const pid_t child = fork();
  if (child < 0) return 1;
  if (child == 0) {
    close(ends[0]);
    serve(root + "/store", ends[1]);
  }
  close(ends[1]);
  store_socket = ends[0];
  const int result = run(root + "/host");
  close(ends[0]);
  waitpid(child, nullptr, 0);
  return result;
}
