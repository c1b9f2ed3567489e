// The catalogue: which document of which file a document id stands for. A table knows ids alone, so
// the program keeps this file beside the table's own, in the same directory. It holds no text: that
// is read again from the source, and a hash tells whether it is still what was indexed.
//
// A file is known by its absolute path and the hash of its content. A changed file is entered anew
// with new ids; the newest entry of a path counts, the ids of older ones are retired: the table may
// still find them, the catalogue no longer knows them.
//
// The file only grows. Its first 8 bytes are "sdbdocs1", then records follow. Integers are
// little-endian.
//
//   record                              payload by kind
//   offset  size  field                 1 reserve    8  first id that no run has handed out
//        0     4  bytes of payload      2 documents  8  first id
//        4     4  checksum: low half                 24 each, ids ascending by one:
//                 of the 64-bit XXH3                    8  offset in the file
//                 of kind and payload                   8  XXH3 of the text
//        8     1  kind                                  4  length of the text in bytes
//        9        payload                               4  line, from 1
//                                       3 source     8  first id
//                                                    8  documents
//                                                   16  hash of the content, low half first
//                                                    1  unit: 1 paragraph, 2 line
//                                                       path, to the end
//                                       4 done       8  first id that it covers
//
// A source record follows the documents of its file. It counts once a done record follows that
// covers its ids, which is written when the table has the postings on disk; without one, the file
// is indexed again. A reserve record is on disk before an id below its number reaches the table, so
// no id is given twice, whatever a crash takes. The last reserve record tells where ids go on.
//
// Reading ends at the first record that is short, of unknown kind or of wrong checksum: a torn tail.
// The next run that writes cuts the file there.
//
// One process at a time: whoever has the table open may use its catalogue.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/text.h"
#include "tools/tool.h"

// Not a name that the library gives to a file.
inline constexpr const char *tool_catalog_name = "sdb-tool.docs";

// Where a document lies in its file.
struct tool_document {
  std::uint64_t offset = 0;
  std::uint64_t hash = 0;
  std::uint32_t length = 0;  // bytes
  std::uint32_t line = 0;
};

// One indexed state of one file. Its documents have the ids from `first` on.
struct tool_source {
  std::string path;
  tool_hash hash;
  tool_unit unit = tool_unit::paragraph;
  std::uint64_t first = 0;
  std::uint64_t count = 0;
};

struct tool_catalog {
  tool_catalog() = default;
  ~tool_catalog();
  tool_catalog(const tool_catalog &) = delete;
  tool_catalog &operator=(const tool_catalog &) = delete;

  std::string path;
  int fd = -1;
  std::uint64_t torn_bytes = 0;  // at the end of the file, found and left out when it was opened

  std::vector<tool_source> sources;                     // those that count, ids ascending
  std::unordered_map<std::string, std::size_t> newest;  // path to its place in `sources`

  // A documents record of the file.
  struct block {
    std::uint64_t first = 0;
    std::uint64_t count = 0;
    std::uint64_t at = 0;  // byte of its first document
  };
  std::vector<block> blocks;  // ids ascending

  // For writing.
  std::string pending;              // records not yet written; they go to `end`
  std::uint64_t end = 0;            // bytes of the file that hold whole records
  std::uint64_t next_id = 1;        // the next to hand out
  std::uint64_t reserved = 1;       // ids below it may be handed out
  std::uint64_t covered = 1;        // first id of the next done record
  std::uint64_t source_first = 1;   // first id of the source being entered
  std::string open_documents;       // of that source, as they will lie in the file
  std::vector<tool_source> undone;  // entered since the last done record
};

// Reads the catalogue in the table's directory. A missing one is empty; `writable` creates it and
// cuts a torn tail off.
tool_problem tool_catalog_open(tool_catalog &catalog, const std::string &directory, bool writable);

// The state of `path` that counts, null when it was never indexed.
const tool_source *tool_catalog_source(const tool_catalog &catalog, const std::string &path);

// Enters a document of the source in hand and gives its id.
tool_problem tool_catalog_add(tool_catalog &catalog, const tool_document &document,
                              std::uint64_t &id);

// Ends the source in hand; what was added since the last end are its documents.
tool_problem tool_catalog_end_source(tool_catalog &catalog, tool_source source);

// Forgets the documents of the source in hand. Their ids are used up.
void tool_catalog_drop_source(tool_catalog &catalog);

// Makes every ended source count, durably. The table must have their postings on disk by now.
tool_problem tool_catalog_commit(tool_catalog &catalog);

// Gives the reserved ids that were not used back, after the last commit of a run.
tool_problem tool_catalog_finish(tool_catalog &catalog);

// Where the document `id` lies. `source` becomes null for an id that is retired or unknown.
tool_problem tool_catalog_find(const tool_catalog &catalog, std::uint64_t id,
                               const tool_source *&source, tool_document &document);
