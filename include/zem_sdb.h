/** @file
 * sdb: sharded, log-structured inverted indexes on local disk, embedded in your program.
 *
 * A database (zem_sdb) is a directory; each of its subdirectories is a table. A table maps terms to
 * document ids: a term is three unsigned 32-bit words, a document id is an unsigned 64-bit number,
 * and one (term, document id) pair is a posting. Postings are ordered by term ascending and, within
 * a term, by document id descending. A table is divided by key range into shards; each shard keeps
 * recent changes in a log and older content in a data file, and worker threads of the table commit
 * logs and merge them into data files while the host goes on.
 *
 * What a host must know
 *   - Inserts gather in the table's pending batch and reach the shards' logs when the batch holds
 *     `commit_num` postings, when it was quiet for `flush_time` seconds, at a commit, a merge, a
 *     sync and at the last close. Queries see what has reached the logs.
 *   - Durability: zem_sdb_sync is durable on return. zem_sdb_commit starts the same in the
 *     background. A process crash loses the pending batch and what a log took after its last
 *     written block; a power cut loses nothing that a finished commit covered.
 *   - The first change of a posting wins inside one batch: an insert and then a delete of the same
 *     posting before the batch is routed keeps the insert.
 *   - A delete reaches only postings that the shard's live log holds; a posting that is in the data
 *     file alone has to be inserted again and then deleted to go. Deleted postings show in queries
 *     until a merge has dropped them. An insert that follows a delete in one log is ignored.
 *   - A query item finds the postings of its own term; its spans only say in which shards to look
 *     and what to leave out. The ids come in no particular order.
 *   - Document id 0 is reserved and is never returned by a query; the term (0, 0, 0) is allowed.
 *
 * Results: zero or positive is success, negative a failure: one of the codes below or a negated
 * errno value of the operating system. zem_sdb_error gives words for any of them. Null pointers for
 * outputs, lists, batches or names are refused with -EINVAL (void functions then do nothing).
 *
 * Threads: any number of threads may call functions on one database at once. Value lists, key
 * lists and batches have no lock: each belongs to one thread at a time.
 *
 * Callbacks and the error sink must not call zem_sdb_table_open, _close, _create, _drop, _list or
 * zem_sdb_free on the same database, nor anything on the table that is being split; the error sink
 * calls nothing of the library at all.
 */
#ifndef ZEM_SDB_H
#define ZEM_SDB_H

#include <stdint.h> /* NOLINT(modernize-deprecated-headers): C has no other */

#ifdef __cplusplus
extern "C" {
#endif

/* C has no other way to name a type. NOLINTBEGIN(modernize-use-using) */

/* These declarations are all that the shared library exports. */
#pragma GCC visibility push(default)

/* ---- error codes ---------------------------------------------------------------------------- */
enum {
  ZEM_SDB_E_NAME = -901,     /**< table name in the wrong state: exists, is unknown, or is in use */
  ZEM_SDB_E_HANDLE = -902,   /**< unknown handle: never issued, or closed */
  ZEM_SDB_E_CLOSED = -903,   /**< table not open: it is being cleared or closed */
  ZEM_SDB_E_SHARD = -904,    /**< no such shard, or the table has none */
  ZEM_SDB_E_CHECKSUM = -905, /**< block checksum mismatch: a file is damaged */
  ZEM_SDB_E_KIND = -906      /**< wrong block kind: a file is damaged */
};

/* ---- records, all opaque to the host -------------------------------------------------------- */
typedef struct zem_sdb zem_sdb;               /**< a database */
typedef struct zem_doc zem_doc;               /**< a document batch */
typedef struct zem_keys zem_keys;             /**< a key list */
typedef struct zem_var zem_var;               /**< a value list, or one string value */
typedef struct zem_xvars zem_xvars;           /**< a list of value lists */
typedef struct zem_err zem_err;               /**< an error log */
typedef struct zem_xtree_node zem_xtree_node; /**< a position in a document batch */

/* ---- error log ------------------------------------------------------------------------------ */

/** Receives the library's messages. level: -1 for an information line, else the level given by the
 * caller (the library passes 0). line: NUL-terminated, without a line end, valid during the call.
 * Called from any thread, one call at a time per log. */
typedef void (*zem_err_sink)(void *context, int level, const char *line);

/** A log that hands its lines to `sink` with `context`. Null when memory is short or `sink` is
 * null. The host frees it. */
zem_err *zem_err_new(zem_err_sink sink, void *context);
/** Frees a log, which must outlive every database that uses it. */
void zem_err_free(zem_err *log);
/** Writes one line built from a printf format. A null log takes the line and drops it. */
void zem_err_log(zem_err *log, int level, const char *format, ...);
/** Writes an information line, which has level -1. */
void zem_err_info(zem_err *log, const char *format, ...);

/* ---- value lists ---------------------------------------------------------------------------- */

/* A list of 64-bit numbers, 32-bit numbers or texts; a tagged list carries a 32-bit tag with each
 * item, 0 until set. Besides its items a list has one string value of its own. Index -1 means the
 * last item; for the two string functions it means the list's own string value. Reading past the
 * end gives 0; setting past the end does nothing. */

/** Makes an empty list. capacity: room reserved at once. tagged: 1 when items carry tags. Null when
 * memory is short. The caller frees the list. */
zem_var *zem_var_new(int64_t capacity, int tagged);
/** Frees a list and all texts that it gave out. */
void zem_var_free(zem_var *list);
int64_t zem_var_size(const zem_var *list);        /**< number of items */
void zem_var_shrink(zem_var *list, int64_t size); /**< keeps the first `size` items; 0 empties */
/** Appends a number. 1 when appended, 0 when memory is short. */
int zem_var_add_long(zem_var *list, uint64_t value);
/** Appends a number of 32 bits, with the results of zem_var_add_long. */
int zem_var_add_integer(zem_var *list, uint32_t value);
/** Appends a copy of `length` bytes of text, or of all up to a NUL when that is -1, with the
 * results of zem_var_add_long. */
int zem_var_add_string(zem_var *list, const char *text, int64_t length);
/** An item of a list of numbers. */
uint64_t zem_var_get_long(const zem_var *list, int64_t index);
/** The low 32 bits of an item. */
uint32_t zem_var_get_integer(const zem_var *list, int64_t index);
/** Stores an item's text and its bytes, which belong to the list and are valid until it changes,
 * and returns 1; 0 when there is none. */
int zem_var_get_string(const zem_var *list, int64_t index, const char **text, int64_t *length);
/** Replaces an item by a copy of the text, whose length is given as to zem_var_add_string. 1 set, 0
 * not. */
int zem_var_set_string(zem_var *list, int64_t index, const char *text, int64_t length);
uint32_t zem_var_get_buf(const zem_var *list, int64_t index);    /**< an item's tag */
int zem_var_set_buf(zem_var *list, int64_t index, uint32_t tag); /**< sets it: 1; cannot: 0 */
/** The items of a list of numbers as they lie in memory, for reading whole results at once; tags is
 * null for a list without tags. Valid until the list changes. Returns the number of items. */
int64_t zem_var_longs(const zem_var *list, const uint64_t **values, const uint32_t **tags);

/** Makes an empty list of value lists, which the library fills. Null when memory is short. The
 * caller frees it. */
zem_xvars *zem_xvars_new(void);
void zem_xvars_free(zem_xvars *lists);          /**< frees it with the lists it holds */
int64_t zem_xvars_size(const zem_xvars *lists); /**< number of lists */
/** One of the lists, -1 the last; null past the end. Belongs to `lists`, valid until these
 * change. */
const zem_var *zem_xvars_get(const zem_xvars *lists, int64_t index);
void zem_xvars_shrink(zem_xvars *lists, int64_t size); /**< keeps the first `size`; 0 empties */

/* ---- database and tables -------------------------------------------------------------------- */

/** Opens the database rooted at the directory `root`, registering each subdirectory as a table; no
 * table is opened yet. A root that does not exist is a database without tables. log: receives all
 * messages; may be null; must outlive the database. Null when memory is short or `root` is null. */
zem_sdb *zem_sdb_new(const char *root, zem_err *log);
/** Closes every table handle as zem_sdb_table_close does, then releases the database. No other
 * thread may be inside a call on it, or begin one. */
void zem_sdb_free(zem_sdb *sdb);

/** Creates a table: a directory with a settings file "sdb.xml" of default values, durable on
 * return. Errors: ZEM_SDB_E_NAME when the name is registered; -EINVAL for a name that is empty,
 * ".", "..", or holds "/" or a control character; -ENOENT when the root does not exist; or the file
 * system's. */
int32_t zem_sdb_table_create(zem_sdb *sdb, const char *name);
/** Removes a table with all its files. Errors: ZEM_SDB_E_NAME when the name is unknown, or when the
 * table is open here or in another process; or the file system's. */
int32_t zem_sdb_table_drop(zem_sdb *sdb, const char *name);
/** Empties `names` and fills it with one text per table, in no particular order. */
void zem_sdb_table_list(zem_sdb *sdb, zem_var *names);
/** Opens a table and returns a handle; 0 when the name is unknown, or the table is open elsewhere
 * or memory is short (the log then says which). A table may be opened any number of times; each
 * handle is closed on its own. The first open reads the table's settings, repairs what a crash left
 * and loads every shard; a failure to open a shard is reported in the log, and the table then holds
 * no shard: queries find nothing and updates fail with ZEM_SDB_E_SHARD. */
uint64_t zem_sdb_table_open(zem_sdb *sdb, const char *name);
/** Gives a handle back. The last one waits for calls in progress on the table, routes the pending
 * batch, commits and closes every shard, and returns the first failure of that (logged as "close
 * error"); the table is closed all the same. Errors: ZEM_SDB_E_HANDLE. */
int32_t zem_sdb_table_close(zem_sdb *sdb, uint64_t table);

/* ---- host callbacks ------------------------------------------------------------------------- */

/* Slots by which a host takes part in the splits of its tables. All run on a worker thread of the
 * table, without a lock of the library held; a split uses them as they stood when it began. Without
 * any of them splits are local: the upper half of a shard becomes another shard of the same table.
 *
 * A negative result of peer_load, peer_batch, peer_commit or peer_close gives the split up. A host
 * whose split_open stores a peer fills 3 to 9; while one of them is empty such a split fails with
 * -EINVAL. */

/** The slots, each named after the type of its function. */
enum {
  ZEM_SDB_SPLIT_OPEN = 1,   /**< a zem_sdb_split_open */
  ZEM_SDB_SPLIT_DONE = 2,   /**< a zem_sdb_split_done */
  ZEM_SDB_PEER_CANCEL = 3,  /**< a zem_sdb_peer_cancel */
  ZEM_SDB_SPLIT_NOTIFY = 4, /**< a zem_sdb_split_notify */
  ZEM_SDB_SPLIT_WAIT = 5,   /**< a zem_sdb_split_wait */
  ZEM_SDB_PEER_LOAD = 6,    /**< a zem_sdb_peer_load */
  ZEM_SDB_PEER_CLOSE = 7,   /**< a zem_sdb_peer_close */
  ZEM_SDB_PEER_BATCH = 8,   /**< a zem_sdb_peer_batch */
  ZEM_SDB_PEER_COMMIT = 9   /**< a zem_sdb_peer_commit */
};

typedef void (*zem_sdb_function)(void); /**< cast one of the nine below to this */

/** Asks who takes the upper half of a shard: stores 0 in `peer` for a local split, else a handle of
 * the host's, and a second value, `target`, that is passed along. */
typedef void (*zem_sdb_split_open)(const char *table, uint32_t shard, uint64_t *peer,
                                   uint64_t *target);
/** Tells of a split that is done. Three ranges, each a shard number with its greatest key: what was
 * split, the lower half, the upper half. `ids` holds doc ids with shard numbers as tags, `keys`
 * heads of terms with third words as tags. */
typedef void (*zem_sdb_split_done)(const char *table, uint64_t peer, uint64_t target,
                                   const zem_var *ids, const zem_var *keys);
/** The split is given up, also after a peer_close: the peer drops the half. */
typedef int32_t (*zem_sdb_peer_cancel)(const char *table, uint64_t peer, uint64_t target,
                                       uint64_t load, uint32_t shard);
/** Phase 0: writers will be held back next; phase 1: readers as well. */
typedef void (*zem_sdb_split_notify)(const char *table, uint32_t shard, uint32_t phase);
/** Asked every second, up to 300 times, after either phase: nonzero in `done` goes on. */
typedef void (*zem_sdb_split_wait)(const char *table, uint32_t phase, uint32_t *done);
/** The peer is to prepare; stores `load` and the shard number that the half has there. */
typedef int32_t (*zem_sdb_peer_load)(uint64_t peer, uint64_t target, uint64_t *load,
                                     uint32_t *shard);
/** The half now belongs to the peer; stores its greatest key. A crash after it leaves both
 * copies. */
typedef int32_t (*zem_sdb_peer_close)(uint64_t peer, uint64_t load, uint64_t *id, uint32_t term[3]);
/** Changes for the peer, up to `commit_num` of them: destination 1, the half's data, in key order;
 * destination 0, later inserts and deletes. Within one batch the first change of a posting stays, so an
 * insert and a delete of it that come soon after one another reach the peer as the insert. `batch` is
 * valid during the call. */
typedef int32_t (*zem_sdb_peer_batch)(uint64_t peer, uint64_t load, zem_doc *batch,
                                      int destination);
/** A destination is complete: the peer makes it durable. */
typedef int32_t (*zem_sdb_peer_commit)(uint64_t peer, uint64_t load, int destination);

/** Stores `function` in a slot from 1 to 9 in place of what it held; null empties the slot. Other
 * slot numbers are ignored. */
void zem_sdb_callback(zem_sdb *sdb, uint32_t slot, zem_sdb_function function);

/* ---- writing -------------------------------------------------------------------------------- */

/* `head` holds a term's word 0 in its low and word 1 in its high half, `third` holds word 2.
 *
 * All of these return ZEM_SDB_E_HANDLE for an unknown handle, ZEM_SDB_E_CLOSED while the table is
 * being cleared, and otherwise what routing the pending batch gave when they did so. After a failed
 * routing what no shard took goes back to the pending batch and is tried again, until 16 times
 * `commit_num` changes have gathered there: then a call's own changes are refused as far as no shard
 * takes them. Both show as the same failure, so a host that cannot do without its changes gives them
 * once more when the cause has gone: a change that is given twice is made once. A call whose routing
 * feeds a shard that lags behind with its merges is slowed down in steps of `commit_time`
 * milliseconds; one that meets a split with no room for its changes waits, until 10 s after the first
 * such call it fails with -EBUSY. */

/** Adds the insert of one posting to the pending batch. */
int32_t zem_sdb_insert(zem_sdb *sdb, uint64_t table, uint64_t id, uint64_t head, uint32_t third);
/** Adds inserts to the pending batch: one posting per position, as far as the shortest of the three
 * lists reaches. */
int32_t zem_sdb_inserts(zem_sdb *sdb, uint64_t table, const zem_var *ids, const zem_var *heads,
                        const zem_var *thirds);
/** Adds the delete of one posting to the pending batch. */
int32_t zem_sdb_delete(zem_sdb *sdb, uint64_t table, uint64_t id, uint64_t head, uint32_t third);
/** Adds deletes to the pending batch, from lists as zem_sdb_inserts takes them. */
int32_t zem_sdb_deletes(zem_sdb *sdb, uint64_t table, const zem_var *ids, const zem_var *heads,
                        const zem_var *thirds);
/** Without `keys` (null): adds the batch to the pending batch, whose count rises by the batch's own
 * count. With `keys`: routes the batch at once and appends, for each shard whose high key grew, the
 * new high key and the shard's number; after a failure some shards may have taken their part, and
 * nothing goes to the pending batch. The host keeps its batch in both cases. */
int32_t zem_sdb_update(zem_sdb *sdb, uint64_t table, zem_doc *batch, zem_keys *keys);
/** Routes the pending batch and has the workers make every changed log durable. */
int32_t zem_sdb_commit(zem_sdb *sdb, uint64_t table);
/** Routes the pending batch and has the workers merge every idle shard. */
int32_t zem_sdb_merge(zem_sdb *sdb, uint64_t table);
/** Empties the table: waits for calls and work in progress, removes every shard and starts shard 1
 * anew. The pending batch stays and goes to the new shard. */
int32_t zem_sdb_table_clear(zem_sdb *sdb, uint64_t table);

/* ---- reading -------------------------------------------------------------------------------- */

/** Totals over all shards: an estimate of the distinct terms, postings recorded, bytes of files,
 * bytes of memory in the shards' maps. All four are 0 after a failure. Errors: ZEM_SDB_E_HANDLE,
 * ZEM_SDB_E_CLOSED. */
int32_t zem_sdb_table_count(zem_sdb *sdb, uint64_t table, uint64_t *count, uint64_t *xcount,
                            uint64_t *fsize, uint64_t *msize);
/** Finds the document ids under terms. heads and thirds are parallel: item i is a term; the tags
 * are its spans, which make the range from the term to (word 0 + span, word 1 + span, word 2 +
 * span), in unsigned 32-bit sums, the first tag counting for words 0 and 1. Appends to `ids` each
 * id found, once, tagged (in a tagged list) with the number of items that found it. After a failure
 * `ids` holds what was found before it. Errors: also ZEM_SDB_E_CHECKSUM, ZEM_SDB_E_KIND. */
int32_t zem_sdb_query(zem_sdb *sdb, uint64_t table, const zem_var *heads, const zem_var *thirds,
                      zem_var *ids);
/** Appends one row per shard, in the order of their numbers: high key and number. */
int32_t zem_sdb_shards(zem_sdb *sdb, uint64_t table, zem_keys *keys);
/** Terms in a shard's log and in its data file. Errors: also ZEM_SDB_E_SHARD, both outputs 0. */
int32_t zem_sdb_key_count(zem_sdb *sdb, uint64_t table, uint32_t shard, uint64_t *log_count,
                          uint64_t *dat_count);

/* ---- looking into one shard ----------------------------------------------------------------- */

/* `log` functions see its live log, `dat` functions its data file; what a running merge has set
 * aside is in neither. In each of them, terms are numbered from 0 in key order. For people and
 * tools: a query is the way to a table's answers. */

/** Finds the shard whose range holds a term, and the term's number among those of its log (data
 * file), or that of the first term behind it; all ones where there is neither. Errors:
 * ZEM_SDB_E_HANDLE and ZEM_SDB_E_CLOSED, both with the outputs untouched; ZEM_SDB_E_SHARD; dat:
 * also ZEM_SDB_E_CHECKSUM, ZEM_SDB_E_KIND. */
int32_t zem_sdb_log_find(zem_sdb *sdb, uint64_t table, uint64_t head, uint32_t third,
                         uint32_t *shard, uint64_t *position);
/** Lists terms from number `first` on: at most `limit` of them, or all when that is 0 or less.
 * Appends one item per term to `heads` and `thirds` and, after emptying it, to `ids`. The tag of a
 * third word (in a tagged list) is the number of the term's postings, and its list in `ids` holds
 * the newest of their doc ids, at most 11. A term whose newest posting the log marks as deleted
 * counts towards `limit` but is not listed; deleted postings of other terms are listed and counted.
 * 1: more terms follow; 0: none does. Errors: as above; the last term listed may then lack its
 * ids. */
int32_t zem_sdb_log_keys(zem_sdb *sdb, uint64_t table, uint32_t shard, int64_t first, int64_t limit,
                         zem_var *heads, zem_var *thirds, zem_xvars *ids);
/** Lists the doc ids of a term, newest first, deleted ones of a log included: passes over `offset`
 * of them and takes at most `limit`, or all when that is 0 or less. `ids` is emptied first. 1: the
 * term is there; 0: it is not. Errors: as above. */
int32_t zem_sdb_log_ids(zem_sdb *sdb, uint64_t table, uint32_t shard, uint64_t head, uint32_t third,
                        int64_t offset, int64_t limit, zem_var *ids);
/** Does in the data file what zem_sdb_log_find does in the log. */
int32_t zem_sdb_dat_find(zem_sdb *sdb, uint64_t table, uint64_t head, uint32_t third,
                         uint32_t *shard, uint64_t *position);
/** Does in the data file what zem_sdb_log_keys does in the log; no term is deleted there. */
int32_t zem_sdb_dat_keys(zem_sdb *sdb, uint64_t table, uint32_t shard, int64_t first, int64_t limit,
                         zem_var *heads, zem_var *thirds, zem_xvars *ids);
/** Does in the data file what zem_sdb_log_ids does in the log. */
int32_t zem_sdb_dat_ids(zem_sdb *sdb, uint64_t table, uint32_t shard, uint64_t head, uint32_t third,
                        int64_t offset, int64_t limit, zem_var *ids);

/* ---- waiting, and words for results --------------------------------------------------------- */

/** Routes the pending batch and makes every shard's log durable before it returns. */
int32_t zem_sdb_sync(zem_sdb *sdb, uint64_t table);
/** Waits at most `millis` until no commit, merge or split of the table is queued or running; a
 * merge that sits out the pause after a failure does not count. 1: idle; 0: time is up. */
int32_t zem_sdb_wait(zem_sdb *sdb, uint64_t table, uint32_t millis);
/** Words for any result of the library. A constant text. */
const char *zem_sdb_error(int32_t code);
const char *zem_sdb_version(void); /**< "major.minor.patch" */

/* ---- bulk loading --------------------------------------------------------------------------- */

/* Fills a whole shard past the pending batch and hands it to the table when it is complete: the
 * fastest way for postings that are prepared in key order. The first load of an empty table is lent
 * the table's shard; any other gets a new shard, which nobody sees before the close.
 *
 * A load has two destinations. to_data nonzero: the shard's data file; batches follow one another
 * in key order, and all of their postings are inserts. to_data 0: its log; inserts and deletes in
 * any order, kept in memory as well until a merge. What goes to the log of a lent shard is seen at
 * once.
 *
 * The range from the least to the greatest posting loaded has to be free of postings in other
 * shards, and nothing is to be inserted there before the close: queries look for a posting in one
 * shard only. A close that finds such an overlap says so in the error log.
 *
 * All return ZEM_SDB_E_HANDLE for a load that is unknown or has ended, ZEM_SDB_E_CLOSED while the
 * table is cleared, or the failure of a file. A clear and the last close of the table cancel its
 * loads. A load belongs to one thread at a time. */

/** Begins a load; stores its handle and the number of its shard. Errors: ZEM_SDB_E_HANDLE for the
 * table; ZEM_SDB_E_SHARD when the table did not open a listed shard. */
int32_t zem_sdb_exec_open(zem_sdb *sdb, uint64_t table, uint64_t *load, uint32_t *shard);
/** Adds a batch, which stays the host's. Data: -EINVAL, with nothing added, for a batch that begins
 * before the end of the one before; the posting that that one ended with may come again. After
 * another failure the same batch may be given again. Log: 1 when the last posting raised the load's
 * greatest key, else 0; repeating a batch changes nothing. */
int32_t zem_sdb_exec_load(zem_sdb *sdb, uint64_t load, zem_doc *batch, int to_data);
/** Completes a destination durably. Loading may go on after it. */
int32_t zem_sdb_exec_commit(zem_sdb *sdb, uint64_t load, int to_data);
/** Commits what was not and hands the shard to the table, holding up updates for a moment; stores
 * the shard's greatest key. Durable on return; should the very last sync fail, the table makes it good
 * and zem_sdb_sync tells. After a failure (-EBUSY: updates in progress did not end within 300 s) nothing
 * has changed and the load is still open. */
int32_t zem_sdb_exec_close(zem_sdb *sdb, uint64_t load, uint64_t *id, uint32_t term[3]);
/** Gives a load up and removes what was loaded. A lent shard's log into which others have written
 * meanwhile keeps the loaded postings too. */
int32_t zem_sdb_exec_cancel(zem_sdb *sdb, uint64_t load);

/* ---- document batches ----------------------------------------------------------------------- */

/* A batch is a set of changes of postings, in key order, each posting at most once: the first
 * change given stays. */

zem_doc *zem_sdb_doc_new(void); /**< makes one; null when memory is short; the caller frees it */
void zem_sdb_doc_free(zem_doc *batch); /**< frees a batch; its positions go with it */
/** One of the batch's two numbers. which 1: `count`, postings counted towards `commit_num`; 2:
 * `time`, Unix seconds of the last load; anything else gives 0. */
uint32_t zem_sdb_doc_get_val(const zem_doc *batch, int which);
/** Sets what zem_sdb_doc_get_val gives; another `which` sets nothing. */
void zem_sdb_doc_set_val(zem_doc *batch, int which, uint32_t value);
/** Adds the change of one posting. flag: nonzero inserts, 0 deletes. 1 added, 0 when the posting
 * was there already, negative when memory is short. Leaves count and time alone. */
int zem_sdb_doc_add(zem_doc *batch, uint64_t id, const uint32_t term[3], uint32_t flag);
void zem_sdb_doc_clear(zem_doc *batch); /**< removes all changes; count and time become 0 */
/** The first position of a batch, null when it is empty. Positions are valid until the batch
 * changes. A walk: node = iter(batch); while (node) node = next(batch, node, &id, term, &flag). */
zem_xtree_node *zem_sdb_doc_iter(const zem_doc *batch);
/** Reads the change at `node` and returns the next position, null after the last. An output may be
 * null. */
zem_xtree_node *zem_sdb_doc_next(const zem_doc *batch, zem_xtree_node *node, uint64_t *id,
                                 uint32_t term[3], uint32_t *flag);
/** Makes the batch's stream form the string value of `out`, which keeps its own when memory is
 * short. */
void zem_sdb_doc_dumps(const zem_doc *batch, zem_var *out);
/** Reads the stream form from the string value of `in`: adds its changes to what the batch holds,
 * replaces the count, and stops where the stream ends or makes no sense. */
void zem_sdb_doc_loads(zem_doc *batch, const zem_var *in);

/* ---- key lists ------------------------------------------------------------------------------ */

/* Rows of (document id, term, attribute). In lists that the library fills, the attribute is a shard
 * number; zem_sdb_keys_sid lets the host put a 16-bit number of its own in the upper half. */

zem_keys *zem_sdb_keys_new(void); /**< makes one; null when memory is short; the caller frees it */
void zem_sdb_keys_free(zem_keys *keys); /**< frees a list */
/** Appends a row. 1 appended, 0 for a null argument, negative when memory is short. */
int zem_sdb_keys_add(zem_keys *keys, uint64_t id, const uint32_t term[3], uint32_t attribute);
void zem_sdb_keys_clear(zem_keys *keys);         /**< removes all rows */
int64_t zem_sdb_keys_size(const zem_keys *keys); /**< number of rows */
/** Reads a row and returns its attribute; an index out of range gives 0 and writes nothing. */
uint32_t zem_sdb_keys_fetch(const zem_keys *keys, int64_t index, uint64_t *id, uint32_t term[3],
                            uint32_t *attribute);
/** Makes the attribute (sid << 16) | (attribute & 0xffff). 1 done, 0 for an index out of range. */
int zem_sdb_keys_sid(zem_keys *keys, int64_t index, uint16_t sid);

#pragma GCC visibility pop

/* NOLINTEND(modernize-use-using) */

#ifdef __cplusplus
}
#endif

#endif
