#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <ostream>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tools/catalog.h"
#include "tools/commands.h"
#include "tools/database.h"
#include "tools/words.h"

namespace {

// A document that the table found.
struct hit {
  std::uint64_t id = 0;
  std::uint32_t words = 0;  // how many of the words it holds
};

std::vector<tool_term> terms_of(const std::vector<std::string> &arguments) {
  std::vector<tool_term> terms;
  for (const std::string &argument : arguments) {
    tool_words words{.rest = argument, .word = {}};
    while (tool_words_next(words))
      terms.push_back(tool_word_term(words.word));
  }
  std::sort(terms.begin(), terms.end());
  terms.erase(std::unique(terms.begin(), terms.end()), terms.end());
  return terms;
}

tool_problem query(const tool_database &database, const std::vector<tool_term> &terms,
                   std::vector<hit> &hits) {
  const tool_list heads = tool_list_new(1);
  const tool_list thirds = tool_list_new(1);
  const tool_list ids = tool_list_new(1);
  for (const tool_term &term : terms) {
    const bool added = zem_var_add_long(heads.get(), term.head) == 1 &&
                       zem_var_add_integer(thirds.get(), term.third) == 1;
    if (!added) return tool_library_problem("the search", -ENOMEM);
  }
  const std::int32_t result =
      zem_sdb_query(database.sdb, database.table, heads.get(), thirds.get(), ids.get());
  const std::uint64_t *values = nullptr;
  const std::uint32_t *tags = nullptr;
  const std::int64_t count = zem_var_longs(ids.get(), &values, &tags);
  for (std::int64_t i = 0; i < count; ++i)
    hits.push_back({.id = values[i], .words = tags[i]});
  return tool_library_problem("the search", result);
}

// The text of a document as its file holds it now, or why it cannot be shown.
struct text_now {
  std::string text;
  std::string note;
};

std::string read_range(int fd, const tool_document &document, int &error) {
  std::string text(document.length, '\0');
  std::size_t held = 0;
  while (held < text.size()) {
    const ssize_t got = ::pread(fd, text.data() + held, text.size() - held,
                                static_cast<off_t>(document.offset + held));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      error = got < 0 ? errno : 0;
      break;
    }
    held += static_cast<std::size_t>(got);
  }
  text.resize(held);
  return text;
}

text_now read_text(const tool_source &source, const tool_document &document) {
  const int fd = ::open(source.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0 && (errno == ENOENT || errno == ENOTDIR)) return {.text = {}, .note = "file is gone"};
  int error = fd < 0 ? errno : 0;
  text_now now;
  if (fd >= 0) {
    now.text = read_range(fd, document, error);
    ::close(fd);
  }
  if (error != 0) {
    return {.text = {}, .note = "file cannot be read: " + std::generic_category().message(error)};
  }
  if (now.text.size() == document.length && tool_text_hash(now.text) == document.hash) return now;
  return {.text = {}, .note = "file has changed since it was indexed; index it again"};
}

void print_hit(const tool_io &io, const tool_source &source, const tool_document &document) {
  const text_now now = read_text(source, document);
  io.out << tool_printable(source.path) << ':' << document.line << ':';
  if (!now.note.empty()) {
    io.out << " (" << now.note << ")\n";
    return;
  }
  if (source.unit == tool_unit::line) {
    io.out << ' ' << tool_printable(now.text) << '\n';
    return;
  }
  io.out << '\n';
  for (std::string_view rest = now.text; !rest.empty();) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    std::string_view line = rest.substr(0, end);
    if (line.ends_with('\r')) line.remove_suffix(1);
    io.out << "    " << tool_printable(line) << '\n';
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
}

// Prints the hits that still count; `shown` and `found` say how many.
tool_problem print_hits(const tool_io &io, const tool_catalog &catalog,
                        const std::vector<hit> &hits, std::uint64_t limit, std::uint64_t &shown,
                        std::uint64_t &found) {
  for (const hit &hit : hits) {
    if (io.stop) return {"stopped"};
    const tool_source *source = nullptr;
    tool_document document;
    if (tool_problem problem = tool_catalog_find(catalog, hit.id, source, document)) return problem;
    if (source == nullptr) continue;
    ++found;
    if (limit != 0 && shown == limit) continue;
    print_hit(io, *source, document);
    ++shown;
  }
  return {};
}

tool_problem search(const tool_io &io, tool_database &database, const tool_search_options &options,
                    const std::vector<tool_term> &terms, std::uint64_t &found) {
  if (tool_problem problem = tool_database_open(database, options.root)) return problem;
  if (tool_problem problem = tool_table_open(database, options.table)) return problem;
  tool_catalog catalog;
  const std::string directory = tool_table_directory(database);
  if (tool_problem problem = tool_catalog_open(catalog, directory, false)) return problem;

  std::vector<hit> hits;
  if (tool_problem problem = query(database, terms, hits)) return problem;
  if (!options.any) std::erase_if(hits, [&](const hit &each) { return each.words < terms.size(); });
  // Documents with more of the words first, then in the order in which they were indexed.
  std::sort(hits.begin(), hits.end(), [](const hit &a, const hit &b) {
    return a.words != b.words ? a.words > b.words : a.id < b.id;
  });
  std::uint64_t shown = 0;
  if (tool_problem problem = print_hits(io, catalog, hits, options.limit, shown, found)) {
    return problem;
  }
  io.out.flush();
  io.err << "sdb: ";
  if (shown < found) io.err << shown << " of ";
  io.err << found << (found == 1 ? " document\n" : " documents\n");
  return tool_table_close(database);
}

}  // namespace

tool_exit tool_search(const tool_io &io, const tool_search_options &options) {
  const std::vector<tool_term> terms = terms_of(options.words);
  if (terms.empty()) {
    io.err << "sdb: there is no letter or digit to search for\n";
    return tool_exit::usage;
  }
  tool_database database;
  std::uint64_t found = 0;
  tool_problem problem = search(io, database, options, terms, found);
  tool_database_report(database, io);
  if (problem) return tool_fail(io, problem);
  return found > 0 ? tool_exit::done : tool_exit::nothing;
}
