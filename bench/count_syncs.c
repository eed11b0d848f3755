// Counts a process's fsync and fdatasync calls, preloaded with LD_PRELOAD: every call is counted, timed
// and passed on, and the number of calls and the nanoseconds spent in them are written at exit to the
// file named by BENCH_SYNC_COUNT_FILE. SQLite, the
// plug-in and the floor all reach both functions through the dynamic linker, so none escapes the count;
// a process that leaves no file was not counted, and the benchmark stops on that.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static unsigned long g_syncs;
static unsigned long long g_nanoseconds;

static unsigned long long Now(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (unsigned long long)now.tv_sec * 1000000000ull + (unsigned long long)now.tv_nsec;
}

typedef int (*SyncFunction)(int);

static int Forward(const char* name, int fd) {
  ++g_syncs;
  const SyncFunction next = (SyncFunction)dlsym(RTLD_NEXT, name);
  if (next == NULL) abort();  // a sync that does not happen would make the measured install cheaper
  const unsigned long long start = Now();
  const int result = next(fd);
  g_nanoseconds += Now() - start;
  return result;
}

int fsync(int fd) { return Forward("fsync", fd); }
int fdatasync(int fd) { return Forward("fdatasync", fd); }

__attribute__((destructor)) static void Report(void) {
  const char* path = getenv("BENCH_SYNC_COUNT_FILE");
  FILE* out = path != NULL ? fopen(path, "w") : NULL;
  if (out == NULL) return;
  fprintf(out, "%lu %llu\n", g_syncs, g_nanoseconds);
  fclose(out);
}
