/* The floor of start-up: a plain loader of the generated device. It reads the master configuration
 * file, keeps each parameter's path, backing file and mount, reads every backing file once and
 * stores each bound value in a hash table by path. Prints the number of values and the peak
 * resident memory in bytes.   loader CONFIG */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

struct Param {
  char* path;
  char* mount; /* "s<j>}{k<k>" of Standard{s<j>}{k<k>} */
  char* value;
  int file;
};

static struct Param* params;
static size_t nparams, cap;
static char** files;
static size_t nfiles;
static struct Param** table; /* open addressing by mount within a file, then by path */
static size_t table_size;

static size_t hash(const char* a, size_t b) {
  size_t h = 1469598103934665603u ^ b;
  while (*a) h = (h ^ (unsigned char)*a++) * 1099511628211u;
  return h;
}

static void table_put(struct Param* p) {
  size_t i = hash(p->mount, p->file) & (table_size - 1);
  while (table[i]) i = (i + 1) & (table_size - 1);
  table[i] = p;
}

static struct Param* table_find(const char* mount, int file) {
  size_t i = hash(mount, file) & (table_size - 1);
  for (; table[i]; i = (i + 1) & (table_size - 1))
    if (table[i]->file == file && strcmp(table[i]->mount, mount) == 0) return table[i];
  return NULL;
}

static char* quoted(char* line, const char* key) {
  char* at = strstr(line, key);
  if (!at) return NULL;
  char* start = strchr(at, '"') + 1;
  *strchr(start, '"') = 0;
  return start;
}

static void read_config(const char* config) {
  FILE* in = fopen(config, "r");
  char line[4096], group[2][64] = {"", ""}, path[256];
  int depth = 0;
  while (in && fgets(line, sizeof line, in)) {
    char name[64];
    if (sscanf(line, " group %63s", name) == 1) {
      strcpy(group[depth++ ? 1 : 0], name);
    } else if (strstr(line, "file = ")) {
      files = realloc(files, ++nfiles * sizeof *files);
      files[nfiles - 1] = strdup(quoted(line, "file = "));
    } else if (sscanf(line, " param %63s", name) == 1) {
      if (nparams == cap) params = realloc(params, (cap = cap ? cap * 2 : 1024) * sizeof *params);
      snprintf(path, sizeof path, "root.%s.%s.%s", group[0], group[1], name);
      char* mount = quoted(line, "mount = ") + strlen("Standard{");
      mount[strlen(mount) - 1] = 0;
      params[nparams++] = (struct Param){strdup(path), strdup(mount), NULL, (int)nfiles - 1};
    } else if (strchr(line, '}') && !strchr(line, '{')) {
      depth = depth > 0 ? depth - 1 : 0;
    }
  }
  if (in) fclose(in);
}

static void read_file(int file) {
  FILE* in = fopen(files[file], "r");
  char line[8192], section[64] = "Root", mount[256];
  while (in && fgets(line, sizeof line, in)) {
    char key[64], value[4096];
    if (line[0] == '#') continue;
    if (sscanf(line, "[%63[^]]]", section) == 1) continue;
    if (sscanf(line, "%63s %4095s", key, value) != 2) continue;
    snprintf(mount, sizeof mount, "%s}{%s", section, key);
    struct Param* p = table_find(mount, file);
    if (p) p->value = strdup(value);
  }
  if (in) fclose(in);
}

int main(int argc, char** argv) {
  if (argc != 2) return 64;
  read_config(argv[1]);
  for (table_size = 1024; table_size < 2 * nparams; table_size *= 2) {
  }
  table = calloc(table_size, sizeof *table);
  for (size_t i = 0; i < nparams; i++) table_put(&params[i]);
  for (size_t f = 0; f < nfiles; f++) read_file((int)f);
  size_t loaded = 0;
  for (size_t i = 0; i < nparams; i++) loaded += params[i].value != NULL;
  /* The path index a GET would use. */
  memset(table, 0, table_size * sizeof *table);
  for (size_t i = 0; i < nparams; i++) {
    size_t h = hash(params[i].path, 0) & (table_size - 1);
    while (table[h]) h = (h + 1) & (table_size - 1);
    table[h] = &params[i];
  }
  FILE* status = fopen("/proc/self/status", "r");
  char line[256];
  long hwm = 0;
  while (status && fgets(line, sizeof line, status))
    if (sscanf(line, "VmHWM: %ld", &hwm) == 1) break;
  printf("%zu %ld\n", loaded, hwm * 1024);
  return 0;
}
