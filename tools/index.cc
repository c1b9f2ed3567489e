#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <ostream>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "tools/catalog.h"
#include "tools/commands.h"
#include "tools/database.h"
#include "tools/progress.h"
#include "tools/words.h"

namespace {

namespace fs = std::filesystem;

constexpr std::int64_t insert_count = 8192;                         // postings handed over at once
constexpr std::uint64_t sync_bytes = std::uint64_t{64} << 20;       // of text, between two syncs
constexpr std::uint64_t progress_bytes = std::uint64_t{256} << 10;  // of text, between two looks

struct text_file {
  std::string path;
  std::uint64_t size = 0;
};

struct index_run {
  index_run(const tool_io &where, tool_unit documents_are)
      : io(where), unit(documents_are), progress{.io = where, .total = 1} {}

  const tool_io &io;
  tool_unit unit;
  tool_database database;
  tool_catalog catalog;
  tool_progress progress;

  // Postings on their way to the table: position i of the three is one posting.
  tool_list ids = tool_list_new();
  tool_list heads = tool_list_new();
  tool_list thirds = tool_list_new();
  std::vector<tool_term> terms;     // of the document in hand
  std::uint64_t file_postings = 0;  // of the file in hand
  std::uint64_t unsynced_bytes = 0;

  std::uint64_t indexed = 0;  // files
  std::uint64_t replaced = 0;
  std::uint64_t unchanged = 0;
  std::uint64_t no_text = 0;
  std::uint64_t unreadable = 0;
  std::uint64_t documents = 0;
  std::uint64_t postings = 0;
};

// An open file, closed at the end of its scope.
struct open_file {
  explicit open_file(const std::string &path) : fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~open_file() {
    if (fd >= 0) ::close(fd);
  }
  open_file(const open_file &) = delete;
  open_file &operator=(const open_file &) = delete;
  int fd;
};

void note_unreadable(index_run &run, const std::string &path, std::string_view why) {
  tool_progress_clear(run.progress);
  run.io.err << "sdb: cannot read " << tool_printable(path) << ": " << why << '\n';
  ++run.unreadable;
}

// ---- finding the files ----

bool lies_below(const fs::path &path, const fs::path &directory) {
  const auto [mine, other] =
      std::mismatch(directory.begin(), directory.end(), path.begin(), path.end());
  return mine == directory.end();
}

void add_file(index_run &run, const fs::path &path, std::vector<text_file> &files) {
  std::error_code error;
  const std::uintmax_t size = fs::file_size(path, error);
  if (error) return note_unreadable(run, path.string(), error.message());
  files.push_back({.path = path.string(), .size = size});
}

void walk(index_run &run, const fs::path &top, const fs::path &skipped,
          std::vector<text_file> &files) {
  std::error_code error;
  std::vector<fs::path> open{top};
  while (!open.empty() && !run.io.stop) {
    const fs::path directory = std::move(open.back());
    open.pop_back();
    if (lies_below(directory, skipped)) continue;
    fs::directory_iterator entry(directory, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
      std::error_code unknown;  // an entry that went away meanwhile is no entry
      const fs::file_status status = entry->symlink_status(unknown);
      if (fs::is_directory(status)) open.push_back(entry->path());
      if (fs::is_regular_file(status)) add_file(run, entry->path(), files);
    }
    if (error) note_unreadable(run, directory.string(), error.message());
  }
}

// Every file to look at, once, by its absolute path.
tool_problem find_files(index_run &run, const tool_index_options &options,
                        std::vector<text_file> &files) {
  std::error_code error;
  const fs::path skipped = fs::canonical(options.root, error);
  for (const std::string &given : options.paths) {
    const fs::path path = fs::canonical(given, error);
    if (error) return {"cannot index " + given + ": " + error.message()};
    const fs::file_status status = fs::status(path, error);
    if (fs::is_directory(status)) {
      walk(run, path, skipped, files);
    } else if (fs::is_regular_file(status)) {
      add_file(run, path, files);
    } else {
      return {"cannot index " + given + ": it is neither a file nor a directory"};
    }
  }
  std::sort(files.begin(), files.end(),
            [](const text_file &a, const text_file &b) { return a.path < b.path; });
  const auto twice = [](const text_file &a, const text_file &b) { return a.path == b.path; };
  files.erase(std::unique(files.begin(), files.end(), twice), files.end());
  return {};
}

// ---- one file ----

tool_problem insert(index_run &run) {
  if (zem_var_size(run.ids.get()) == 0) return {};
  tool_problem problem = tool_patiently("inserting", [&] {
    return zem_sdb_inserts(run.database.sdb, run.database.table, run.ids.get(), run.heads.get(),
                           run.thirds.get());
  });
  for (const tool_list *list : {&run.ids, &run.heads, &run.thirds})
    zem_var_shrink(list->get(), 0);
  return problem;
}

// From here on the files ended so far are found, also after a crash.
tool_problem make_durable(index_run &run) {
  if (tool_problem problem = insert(run)) return problem;
  tool_problem problem =
      tool_patiently("syncing", [&] { return zem_sdb_sync(run.database.sdb, run.database.table); });
  if (problem) return problem;
  run.unsynced_bytes = 0;
  return tool_catalog_commit(run.catalog);
}

void collect_terms(index_run &run, std::string_view text) {
  run.terms.clear();
  tool_words words{.rest = text, .word = {}};
  while (tool_words_next(words))
    run.terms.push_back(tool_word_term(words.word));
  std::sort(run.terms.begin(), run.terms.end());
  run.terms.erase(std::unique(run.terms.begin(), run.terms.end()), run.terms.end());
}

tool_problem index_document(index_run &run, const tool_piece &piece) {
  collect_terms(run, piece.text);
  if (run.terms.empty()) return {};  // rulers and the like: nothing to find them by
  std::uint64_t id = 0;
  const tool_document document{.offset = piece.offset,
                               .hash = tool_text_hash(piece.text),
                               .length = static_cast<std::uint32_t>(piece.text.size()),
                               .line = piece.line};
  if (tool_problem problem = tool_catalog_add(run.catalog, document, id)) return problem;
  for (const tool_term &term : run.terms) {
    const bool added = zem_var_add_long(run.ids.get(), id) == 1 &&
                       zem_var_add_long(run.heads.get(), term.head) == 1 &&
                       zem_var_add_integer(run.thirds.get(), term.third) == 1;
    if (!added) return tool_library_problem("inserting", -ENOMEM);
  }
  run.file_postings += run.terms.size();
  return zem_var_size(run.ids.get()) < insert_count ? tool_problem{} : insert(run);
}

// Indexes the documents of an open file; a raised `stop` leaves the file unfinished.
tool_problem index_text(index_run &run, const text_file &file, int fd, const tool_hash &hash) {
  tool_reader reader;
  reader.fd = fd;
  reader.unit = run.unit;
  tool_piece piece;
  run.file_postings = 0;
  std::uint64_t shown = 0;
  while (!run.io.stop && tool_reader_next(reader, piece)) {
    if (tool_problem problem = index_document(run, piece)) return problem;
    const std::uint64_t at = piece.offset + piece.text.size();
    if (at - shown < progress_bytes) continue;
    tool_progress_step(run.progress, at - shown, file.path);
    shown = at;
  }
  tool_progress_step(run.progress, file.size - std::min(shown, file.size), file.path);
  run.unsynced_bytes += file.size;

  if (run.io.stop || reader.error != 0) {
    tool_catalog_drop_source(run.catalog);
    if (reader.error != 0) {
      note_unreadable(run, file.path, std::generic_category().message(reader.error));
    }
    return {};
  }
  const bool known = tool_catalog_source(run.catalog, file.path) != nullptr;
  ++run.indexed;
  run.replaced += known ? 1 : 0;
  tool_source source;
  source.path = file.path;
  source.hash = hash;
  source.unit = run.unit;
  if (tool_problem problem = tool_catalog_end_source(run.catalog, std::move(source))) {
    return problem;
  }
  run.documents += run.catalog.undone.back().count;
  run.postings += run.file_postings;
  return {};
}

tool_problem index_file(index_run &run, const text_file &file) {
  const open_file opened(file.path);
  tool_identity identity;
  const int error = opened.fd < 0 ? errno : tool_identify(opened.fd, identity);
  if (error != 0) {
    note_unreadable(run, file.path, std::generic_category().message(error));
    return {};
  }
  const tool_source *known = tool_catalog_source(run.catalog, file.path);
  const bool same = known != nullptr && known->hash == identity.hash && known->unit == run.unit;
  if (!identity.binary && !same) return index_text(run, file, opened.fd, identity.hash);
  ++(identity.binary ? run.no_text : run.unchanged);
  tool_progress_step(run.progress, file.size, file.path);
  return {};
}

// ---- the whole run ----

tool_problem index_files(index_run &run, const std::vector<text_file> &files) {
  for (const text_file &file : files) {
    if (run.io.stop) break;
    if (tool_problem problem = index_file(run, file)) return problem;
    if (run.unsynced_bytes < sync_bytes) continue;
    if (tool_problem problem = make_durable(run)) return problem;
  }
  if (tool_problem problem = make_durable(run)) return problem;
  if (tool_problem problem = tool_catalog_finish(run.catalog)) return problem;
  return tool_table_close(run.database);
}

tool_problem index_paths(index_run &run, const tool_index_options &options) {
  if (tool_problem problem = tool_database_open(run.database, options.root)) return problem;
  std::vector<text_file> files;
  if (tool_problem problem = find_files(run, options, files)) return problem;
  for (const text_file &file : files)
    run.progress.total += file.size;
  if (tool_problem problem = tool_table_open(run.database, options.table)) return problem;
  const std::string directory = tool_table_directory(run.database);
  if (tool_problem problem = tool_catalog_open(run.catalog, directory, true)) return problem;
  if (run.catalog.torn_bytes > 0) {
    run.io.err << "sdb: an earlier run was cut off in the middle; the files it had in hand are "
                  "indexed again\n";
  }
  return index_files(run, files);
}

void print_summary(const index_run &run) {
  run.io.out << "indexed " << run.indexed << " files: " << run.documents << " documents, "
             << run.postings << " postings\n";
  if (run.replaced > 0) run.io.out << run.replaced << " of them had changed and were replaced\n";
  if (run.unchanged > 0) run.io.out << run.unchanged << " files were indexed before, unchanged\n";
  if (run.no_text > 0) run.io.out << run.no_text << " files are no text\n";
}

}  // namespace

tool_exit tool_index(const tool_io &io, const tool_index_options &options) {
  index_run run(io, options.unit);
  tool_problem problem = index_paths(run, options);
  tool_progress_clear(run.progress);
  tool_database_report(run.database, io);
  if (problem) return tool_fail(io, problem);
  print_summary(run);
  if (io.stop) {
    return tool_fail(io, {"stopped; what was finished is indexed, and the same command does the "
                          "rest"});
  }
  if (run.unreadable > 0) {
    return tool_fail(io, {std::to_string(run.unreadable) +
                          " files or directories could not be read; everything else is indexed"});
  }
  return tool_exit::done;
}
