#include <stdio.h>
#include <sys/stat.h>

#include "include/zem_sdb.h"

int main(int argc, char **argv) {
  const char *root = argc > 1 ? argv[1] : "data";
  mkdir(root, 0777);
  zem_sdb *sdb = zem_sdb_new(root, NULL); /* with an error log: zem_err_new */
  zem_sdb_table_create(sdb, "words");     /* fails when an earlier run made it: just as well */
  uint64_t table = zem_sdb_table_open(sdb, "words");
  const uint64_t cat = 0x636174; /* words 0 and 1 of a term; its word 2 is 0 */
  zem_sdb_insert(sdb, table, 7, cat, 0);
  zem_sdb_insert(sdb, table, 9, cat, 0);
  int32_t result = zem_sdb_sync(sdb, table); /* visible to queries, and on disk */
  if (result < 0) fprintf(stderr, "cannot save: %s\n", zem_sdb_error(result));
  zem_var *heads = zem_var_new(1, 1), *thirds = zem_var_new(1, 1), *ids = zem_var_new(0, 1);
  zem_var_add_long(heads, cat), zem_var_add_integer(thirds, 0);
  zem_sdb_query(sdb, table, heads, thirds, ids);
  for (int64_t i = 0; i < zem_var_size(ids); ++i)
    printf("cat is in document %d\n", (int)zem_var_get_long(ids, i));
  zem_var_free(heads), zem_var_free(thirds), zem_var_free(ids);
  zem_sdb_free(sdb); /* closes the table */
  return result < 0;
}
