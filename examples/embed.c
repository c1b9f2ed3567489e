#include <stdio.h>
#include <sys/stat.h>
#include <zem_sdb.h>

int main(int argc, char **argv) {
  const char *root = argc > 1 ? argv[1] : "data";
  mkdir(root, 0777);
  zem_sdb *sdb = zem_sdb_new(root, NULL); /* or, for messages, a zem_err */
  zem_sdb_table_create(sdb, "words");     /* fails when it is there */
  uint64_t table = zem_sdb_table_open(sdb, "words");
  const uint64_t cat = 0x636174; /* words 0 and 1; word 2 is 0 */
  zem_sdb_insert(sdb, table, 7, cat, 0);
  zem_sdb_insert(sdb, table, 9, cat, 0);
  int32_t result = zem_sdb_sync(sdb, table); /* now visible, and on disk */
  if (result < 0) fprintf(stderr, "%s\n", zem_sdb_error(result));
  zem_var *heads = zem_var_new(1, 1), *thirds = zem_var_new(1, 1);
  zem_var *ids = zem_var_new(0, 1);
  zem_var_add_long(heads, cat), zem_var_add_integer(thirds, 0);
  zem_sdb_query(sdb, table, heads, thirds, ids);
  for (int64_t i = 0; i < zem_var_size(ids); ++i)
    printf("cat is in document %d\n", (int)zem_var_get_long(ids, i));
  zem_var_free(heads), zem_var_free(thirds), zem_var_free(ids);
  zem_sdb_free(sdb); /* closes the table */
  return result < 0;
}
