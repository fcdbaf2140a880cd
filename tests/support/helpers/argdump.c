/*
 * argdump: writes its argument vector to the file named by the environment
 * variable ZORV_ARGDUMP_FILE, as "argc=N" and then one "[argument]" line per
 * argument, so a test can see exactly how a command line was split.
 * Exits 3 when the variable is missing or the file cannot be written.
 */
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv) {
  const char* path = getenv("ZORV_ARGDUMP_FILE");
  FILE* out;
  int i;
  if (!path || !*path) return 3;
  out = fopen(path, "w");
  if (!out) return 3;
  fprintf(out, "argc=%d\n", argc);
  for (i = 0; i < argc; ++i) fprintf(out, "[%s]\n", argv[i]);
  if (fclose(out) != 0) return 3;
  return 0;
}
