// The second store: takes the upper half of a table as a bulk load and answers for it.
#include "examples/peer/store.h"

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
      case op::load:
        reply.status = zem_sdb_exec_open(sdb_.get(), table_, &load_, &reply.shard);
        break;
      case op::batch:
        reply.status = zem_sdb_exec_load(sdb_.get(), load_, received(text).get(), asked.to);
        break;
      case op::commit:
        reply.status = zem_sdb_exec_commit(sdb_.get(), load_, asked.to);
        break;
      case op::close:
        reply.status = zem_sdb_exec_close(sdb_.get(), load_, &reply.id, reply.term);
        break;
      case op::cancel:
        reply.status = zem_sdb_exec_cancel(sdb_.get(), load_);
        // Closed already: the half is all that this table holds.
        if (reply.status < 0) reply.status = zem_sdb_table_clear(sdb_.get(), table_);
        break;
      case op::update:
        reply.status = zem_sdb_update(sdb_.get(), table_, received(text).get(), nullptr);
        break;
      case op::sync:
        reply.status = zem_sdb_sync(sdb_.get(), table_);
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
  static owner<zem_doc> received(const std::string &text) {
    const owner<zem_var> in(zem_var_new(0, 0));
    zem_var_set_string(in.get(), -1, text.data(), static_cast<std::int64_t>(text.size()));
    owner<zem_doc> batch(zem_sdb_doc_new());
    zem_sdb_doc_loads(batch.get(), in.get());
    return batch;
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
  std::uint64_t load_ = 0;  // the half that is on its way here
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
