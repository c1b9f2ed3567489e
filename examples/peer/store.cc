// The second store: takes the upper half of a table and answers for it.
#include "examples/peer/store.h"

#include <cstring>
#include <sys/stat.h>

#include "examples/peer/lists.h"
#include "examples/peer/wire.h"

namespace {

class store {
 public:
  explicit store(const std::string &root) {
    mkdir(root.c_str(), 0777);
    sdb_.reset(zem_sdb_new(root.c_str(), nullptr));
    zem_sdb_table_create(sdb_.get(), "upper");
    table_ = zem_sdb_table_open(sdb_.get(), "upper");
  }

  message answer(const message &asked, std::string &text) {
    message reply{.what = asked.what};
    switch (asked.what) {
      case op::load:  // what an earlier attempt left goes
      case op::cancel:
        reply.status = zem_sdb_table_clear(sdb_.get(), table_);
        break;
      case op::batch:
        reply.status = take(text);
        break;
      case op::commit:
        reply.status = zem_sdb_sync(sdb_.get(), table_);
        break;
      case op::close:
        greatest(reply);
        break;
      case op::query:
        reply.status = ids_of(asked.term[0], text);
        return reply;
      case op::count:
        reply.id = postings(sdb_.get(), table_);
        break;
    }
    text.clear();
    return reply;
  }

 private:
  // A batch travels in its stream form.
  std::int32_t take(const std::string &text) {
    const owner<zem_var> in(zem_var_new(0, 0));
    zem_var_set_string(in.get(), -1, text.data(), static_cast<std::int64_t>(text.size()));
    const owner<zem_doc> batch(zem_sdb_doc_new());
    zem_sdb_doc_loads(batch.get(), in.get());
    return zem_sdb_update(sdb_.get(), table_, batch.get(), nullptr);
  }
  // The key of the last shard.
  void greatest(message &reply) {
    const owner<zem_keys> keys(zem_sdb_keys_new());
    reply.status = zem_sdb_shards(sdb_.get(), table_, keys.get());
    for (std::int64_t i = 0; i < zem_sdb_keys_size(keys.get()); ++i) {
      std::uint64_t id = 0;
      std::uint32_t term[3] = {0, 0, 0};
      std::uint32_t number = 0;
      zem_sdb_keys_fetch(keys.get(), i, &id, term, &number);
      if (term[0] < reply.term[0]) continue;
      reply.id = id;
      std::memcpy(reply.term, term, sizeof term);
    }
  }
  std::int32_t ids_of(std::uint32_t word, std::string &text) {
    std::set<std::uint64_t> found;
    const std::int32_t st = find(sdb_.get(), table_, word, found);
    text.clear();
    for (const std::uint64_t id : found)
      text.append(reinterpret_cast<const char *>(&id), sizeof id);
    return st;
  }

  owner<zem_sdb> sdb_;
  std::uint64_t table_ = 0;
};

}  // namespace

void serve(const std::string &root, int socket) {
  store here(root);
  std::string text;
  for (;;) {
    const message asked = get(socket, text);
    const message reply = here.answer(asked, text);
    put(socket, reply, text);
  }
}
