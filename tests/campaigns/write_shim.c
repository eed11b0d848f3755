// Write-side call shim of the crash campaign, preloaded (LD_PRELOAD) into the process that calls the
// plug-in. It numbers every call by which the process changes the file system: open, openat, creat and
// fopen for writing; write, pwrite, writev; fsync, fdatasync; rename; unlink, remove, mkdir, rmdir;
// ftruncate; close of a regular file open for writing, fflush and fclose of a stream (stdio writes its
// buffer there, through calls no shim sees). Never the standard streams or the platform log
// (HOST_DLOG_FILE). Asked by the environment, it also:
//   WUP_SHIM_TRACE=FILE  appends "N call target" before call N: after a kill the last line names the call
//                        cut, after a whole run there is one line per call
//   WUP_SHIM_KILL_AT=N   kills the process (SIGKILL) right before call N
//   WUP_SHIM_FULL_AT=N   the disk is full from call N on: every call that takes space fails with ENOSPC
//                        (writes, opens that create, mkdir; fflush and fclose drop the buffered data)
//   WUP_SHIM_POWERCUT=1  the kill (or the exit, for an N past the last call) comes with a power cut: each
//                        file goes back to its content when last fsync'ed, or when the process started;
//                        each creation, rename, removal and new directory not followed by a sync of its
//                        directory is undone, the last first
//   WUP_SHIM_STASH=DIR   with a power cut: where removed and replaced files wait to be put back (an empty
//                        directory on the same file system as the files written)
// When it cannot keep its full strength (a file it cannot read back whole, no memory, no stash) it stops the
// process with a message on standard error and the exit status WUP_SHIM_FAILED, which no plug-in call
// returns.
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

static long calls, killAt, fullAt;
static const char *logPath, *stash;
static bool powerCut;
static int traceFd = -1;

__attribute__((constructor)) static void Init(void) {
  const char* trace = getenv("WUP_SHIM_TRACE");
  killAt = atol(getenv("WUP_SHIM_KILL_AT") ?: "0");
  fullAt = atol(getenv("WUP_SHIM_FULL_AT") ?: "0");
  logPath = getenv("HOST_DLOG_FILE");
  powerCut = atoi(getenv("WUP_SHIM_POWERCUT") ?: "0") != 0;
  stash = getenv("WUP_SHIM_STASH");
  if (trace) traceFd = REAL(open)(trace, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

// The shim cannot model the disk in full: the run stops here, before it measures less than it claims.
static void Fail(const char* what, const char* path) {
  dprintf(STDERR_FILENO, "write shim: %s: %s (%s)\n", what, path ? path : "?", strerror(errno));
  _exit(WUP_SHIM_FAILED);
}
static void* Grow(void* array, int count, size_t size) {
  if (count % 64 != 0) return array;
  void* grown = realloc(array, (count + 64) * size);
  if (!grown) Fail("out of memory", NULL);
  return grown;
}

#define REFUSE(result) (errno = ENOSPC, (result))  // a full disk's answer
static bool IsLog(const char* path) { return logPath && path && !strcmp(path, logPath); }
static char* ProcPath(int fd, char proc[64]) {
  snprintf(proc, 64, "/proc/self/fd/%d", fd);
  return proc;
}
static const char* PathOf(int fd, char path[PATH_MAX]) {
  char proc[64];
  memset(path, 0, PATH_MAX);
  return readlink(ProcPath(fd, proc), path, PATH_MAX - 1) > 0 ? path : NULL;
}
// Whether calls on the descriptor are numbered: not the standard streams nor the log.
static bool Numbers(int fd) {
  char path[PATH_MAX];
  return fd > 2 && !IsLog(PathOf(fd, path));
}
// A regular file open for writing, whose close is numbered.
static bool Writable(int fd) {
  struct stat st;
  return Numbers(fd) && (fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDONLY && fstat(fd, &st) == 0 &&
         S_ISREG(st.st_mode);
}

// Each regular file changed since the process started, with, while it is not synced, the content it had
// when last synced (or when the process started) and a descriptor to write that back through at the cut,
// whatever the file's name by then; an unlinked file's goes to the orphan, harmlessly. The descriptors stay
// open to the end: closing one would drop SQLite's locks on the file, and an open one keeps its inode's
// number from going to another file.
struct Kept {
  struct stat st;
  int fd;
  char* data;  // null while the file is synced
};
static struct Kept* kept;
static int keptCount;

static struct Kept* Find(const struct stat* st) {
  for (struct Kept* k = kept; k < kept + keptCount; ++k) {
    if (k->st.st_dev == st->st_dev && k->st.st_ino == st->st_ino) return k;
  }
  return NULL;
}

// Saves the file's present content as its synced content, unless it is kept already.
static void Keep(int dirfd, const char* path) {
  struct stat st;
  if (!powerCut || fstatat(dirfd, path, &st, 0) != 0 || !S_ISREG(st.st_mode)) return;
  struct Kept* k = Find(&st);
  if (k && k->data) return;
  if (!k) {
    kept = Grow(kept, keptCount, sizeof *kept);
    k = &kept[keptCount];
    k->fd = REAL(openat)(dirfd, path, O_RDWR | O_CLOEXEC);
    if (k->fd < 0) Fail("cannot open a file to keep its content", path);
    ++keptCount;
  }
  k->st = st;
  k->data = malloc(st.st_size + 1);
  if (!k->data) Fail("out of memory", path);
  if (pread(k->fd, k->data, st.st_size, 0) != st.st_size) Fail("short read of a file to keep", path);
}

// Each directory entry changed (created, removed, renamed over) since its directory was last synced, in
// order. A removed or replaced file stays reachable through a link in the stash directory
// (WUP_SHIM_STASH, on the same file system), from which the cut puts it back.
struct Change {
  enum { kCreated, kMadeDir, kRemoved, kRemovedDir, kRenamed } kind;
  char *path, *from, *stashed;  // from: of a rename; stashed: the file removed or replaced at path
  char* dirs[2];                // the directories whose sync makes the change last (null once synced)
};
static struct Change* changes;
static int changeCount;

static char* Absolute(int dirfd, const char* path) {
  char base[PATH_MAX], *text = NULL;
  if (path[0] == '/') return strdup(path);
  if (dirfd == AT_FDCWD ? !getcwd(base, sizeof base) : !PathOf(dirfd, base)) Fail("no directory", path);
  if (asprintf(&text, "%s/%s", base, path) < 0) Fail("out of memory", path);
  return text;
}
// The directory holding `path`'s entry, resolved as a directory descriptor's path reads.
static char* DirOf(const char* path) {
  char dir[PATH_MAX], *resolved;
  snprintf(dir, sizeof dir, "%s", path);
  char* slash = strrchr(dir, '/');
  if (slash) *(slash == dir ? slash + 1 : slash) = '\0';  // the root keeps its slash
  if (!(resolved = realpath(dir, NULL))) Fail("cannot resolve a directory", dir);
  return resolved;
}

// A link to the file at `path` in the stash, or null when nothing is there (a directory is never stashed).
static char* Stash(int dirfd, const char* path) {
  static long stashed;
  struct stat st;
  char* link = NULL;
  if (!powerCut || fstatat(dirfd, path, &st, AT_SYMLINK_NOFOLLOW) != 0 || S_ISDIR(st.st_mode)) return NULL;
  if (!stash) Fail("WUP_SHIM_STASH is not set", path);
  if (asprintf(&link, "%s/%ld", stash, ++stashed) < 0) Fail("out of memory", path);
  if (linkat(dirfd, path, AT_FDCWD, link, 0) != 0) Fail("cannot stash a file", path);
  return link;
}

static void Forget(struct Change* c) {
  if (c->stashed) REAL(unlink)(c->stashed);
  free(c->path), free(c->from), free(c->stashed), free(c->dirs[0]), free(c->dirs[1]);
}

// Notes a change that succeeded (`done`); otherwise only lets go of its stash.
static void Changed(int kind, int dirfd, const char* path, int fromDir, const char* from, char* stashed,
                    bool done) {
  struct Change c = {kind, NULL, NULL, stashed, {NULL, NULL}};
  if (!done || !powerCut) return Forget(&c);
  c.path = Absolute(dirfd, path);
  c.dirs[0] = DirOf(c.path);
  if (from) c.from = Absolute(fromDir, from), c.dirs[1] = DirOf(c.from);
  changes = Grow(changes, changeCount, sizeof *changes);
  changes[changeCount++] = c;
}

// A directory synced: the changes of its entries last.
static void DirSynced(int fd) {
  char path[PATH_MAX];
  if (!PathOf(fd, path)) return;
  int left = 0;
  for (struct Change* c = changes; c < changes + changeCount; ++c) {
    for (int i = 0; i < 2; ++i) {
      if (c->dirs[i] && !strcmp(c->dirs[i], path)) free(c->dirs[i]), c->dirs[i] = NULL;
    }
    if (c->dirs[0] || c->dirs[1]) {
      changes[left++] = *c;
    } else {
      Forget(c);
    }
  }
  changeCount = left;
}

static void RemoveTree(const char* path) {
  DIR* dir = opendir(path);
  for (struct dirent* entry; dir && (entry = readdir(dir));) {
    char* inner = NULL;
    if (!strcmp(entry->d_name, ".") || !strcmp(entry->d_name, "..")) continue;
    if (asprintf(&inner, "%s/%s", path, entry->d_name) < 0) Fail("out of memory", path);
    if (entry->d_type == DT_DIR) {
      RemoveTree(inner);
    } else {
      REAL(unlink)(inner);
    }
    free(inner);
  }
  if (dir) closedir(dir);
  REAL(rmdir)(path);
}

// What the disk holds after the cut: the entry changes not synced are undone, last first; every file kept
// goes back to its synced content.
static void PowerCut(void) {
  while (changeCount > 0) {
    struct Change* c = &changes[--changeCount];
    if (c->kind == kCreated) REAL(unlink)(c->path);
    if (c->kind == kMadeDir) RemoveTree(c->path);
    if (c->kind == kRemovedDir) REAL(mkdir)(c->path, 0755);
    if (c->kind == kRenamed) REAL(rename)(c->path, c->from);
    if (c->stashed && REAL(rename)(c->stashed, c->path) == 0) free(c->stashed), c->stashed = NULL;
    Forget(c);
  }
  for (struct Kept* k = kept; k < kept + keptCount; ++k) {
    if (k->data && REAL(pwrite)(k->fd, k->data, k->st.st_size, 0) == k->st.st_size)
      REAL(ftruncate)(k->fd, k->st.st_size);
  }
}
__attribute__((destructor)) static void End(void) {
  if (killAt > calls) PowerCut();  // the cut came after the last call
  while (changeCount > 0) Forget(&changes[--changeCount]);
  for (struct Kept* k = kept; k < kept + keptCount; ++k) free(k->data), REAL(close)(k->fd);
  free(kept), free(changes);
  kept = NULL, changes = NULL, keptCount = 0;
}

// Numbers one call on `path`, or on the descriptor `fd` (whose file is kept first), and says whether it
// finds the disk full. Killed here, the process dies before the call.
static bool Numbered(const char* call, const char* path, int fd) {
  char target[PATH_MAX], proc[64];
  ++calls;
  if (fd >= 0) Keep(AT_FDCWD, ProcPath(fd, proc));
  if (traceFd >= 0) dprintf(traceFd, "%ld %s %s\n", calls, call, path ? path : PathOf(fd, target) ?: "?");
  if (calls == killAt) {
    PowerCut();
    kill(getpid(), SIGKILL);
  }
  return fullAt && calls >= fullAt;
}

static int Open(const char* call, int dirfd, const char* path, int flags, mode_t perm) {
  if (IsLog(path) || !(flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)))
    return REAL(openat)(dirfd, path, flags, perm);
  struct stat st;
  const bool exists = fstatat(dirfd, path, &st, 0) == 0;
  if (Numbered(call, path, -1) && !exists && (flags & O_CREAT)) return REFUSE(-1);
  if (exists && (flags & O_TRUNC)) Keep(dirfd, path);
  const int fd = REAL(openat)(dirfd, path, flags, perm);
  if (fd >= 0 && !exists) Keep(dirfd, path);  // created now: its synced content is nothing
  Changed(kCreated, dirfd, path, 0, NULL, NULL, fd >= 0 && !exists);
  return fd;
}

// The permission argument is there when the call may create a file.
#define OPEN(name, call, dirfd, ...)                                              \
  int name(__VA_ARGS__ const char* path, int flags, ...) {                        \
    va_list args;                                                                 \
    va_start(args, flags);                                                        \
    const mode_t perm = flags & (O_CREAT | O_TMPFILE) ? va_arg(args, mode_t) : 0; \
    va_end(args);                                                                 \
    return Open(call, dirfd, path, flags, perm);                                  \
  }
OPEN(open, "open", AT_FDCWD)
OPEN(open64, "open", AT_FDCWD)
OPEN(openat, "openat", at, int at, )
OPEN(openat64, "openat", at, int at, )
int creat(const char* path, mode_t perm) {
  return Open("creat", AT_FDCWD, path, O_CREAT | O_WRONLY | O_TRUNC, perm);
}
int creat64(const char* path, mode_t perm) { return creat(path, perm); }

static FILE* OpenStream(FILE* (*real)(const char*, const char*), const char* path, const char* how) {
  if (!strpbrk(how, "wa+") || IsLog(path)) return real(path, how);
  struct stat st;
  const bool exists = stat(path, &st) == 0;
  if (Numbered("fopen", path, -1) && !exists) return REFUSE(NULL);
  Keep(AT_FDCWD, path);  // stdio writes through calls no shim sees: keep the file from the start
  FILE* stream = real(path, how);
  Keep(AT_FDCWD, path);  // created now: its synced content is nothing
  Changed(kCreated, AT_FDCWD, path, 0, NULL, NULL, stream && !exists);
  return stream;
}
FILE* fopen(const char* path, const char* how) { return OpenStream(REAL(fopen), path, how); }
FILE* fopen64(const char* path, const char* how) { return OpenStream(REAL(fopen64), path, how); }

// True when the write must fail (errno set).
static bool WriteRefused(const char* call, int fd) {
  return Numbers(fd) && Numbered(call, NULL, fd) && REFUSE(true);
}
#define WRITE(name, call, params, ...) \
  ssize_t name params { return WriteRefused(call, fd) ? -1 : REAL(name)(__VA_ARGS__); }
WRITE(write, "write", (int fd, const void* data, size_t size), fd, data, size)
WRITE(pwrite, "pwrite", (int fd, const void* data, size_t size, off_t at), fd, data, size, at)
WRITE(pwrite64, "pwrite", (int fd, const void* data, size_t size, off64_t at), fd, data, size, at)
WRITE(writev, "writev", (int fd, const struct iovec* parts, int count), fd, parts, count)

static int Truncate(int fd, off64_t size) {
  return Numbered("ftruncate", NULL, fd), REAL(ftruncate64)(fd, size);
}
int ftruncate(int fd, off_t size) { return Truncate(fd, size); }
int ftruncate64(int fd, off64_t size) { return Truncate(fd, size); }

static int Sync(const char* call, int fd, int (*real)(int)) {
  Numbered(call, NULL, fd);
  const int result = real(fd);
  struct stat st;
  if (result != 0 || fstat(fd, &st) != 0) return result;
  if (S_ISDIR(st.st_mode)) DirSynced(fd);
  struct Kept* k = Find(&st);
  if (k) free(k->data), k->data = NULL;  // synced: nothing of it is lost any more
  return result;
}
int fsync(int fd) { return Sync("fsync", fd, REAL(fsync)); }
int fdatasync(int fd) { return Sync("fdatasync", fd, REAL(fdatasync)); }

int close(int fd) {
  if (Writable(fd)) Numbered("close", NULL, fd);
  return REAL(close)(fd);
}

int renameat(int fromDir, const char* from, int toDir, const char* to) {
  char target[2 * PATH_MAX + 8];
  snprintf(target, sizeof target, "%s -> %s", from, to);
  Numbered("rename", target, -1);
  char* replaced = Stash(toDir, to);
  const int result = REAL(renameat)(fromDir, from, toDir, to);
  Changed(kRenamed, toDir, to, fromDir, from, replaced, result == 0);
  return result;
}
int rename(const char* from, const char* to) { return renameat(AT_FDCWD, from, AT_FDCWD, to); }
static int Remove(const char* call, int dirfd, const char* path, int flags) {
  Numbered(call, path, -1);
  char* removed = flags & AT_REMOVEDIR ? NULL : Stash(dirfd, path);
  const int result = REAL(unlinkat)(dirfd, path, flags);
  Changed(flags & AT_REMOVEDIR ? kRemovedDir : kRemoved, dirfd, path, 0, NULL, removed, result == 0);
  return result;
}
int unlinkat(int dirfd, const char* path, int flags) {
  return Remove(flags & AT_REMOVEDIR ? "rmdir" : "unlink", dirfd, path, flags);
}
int unlink(const char* path) { return unlinkat(AT_FDCWD, path, 0); }
int rmdir(const char* path) { return unlinkat(AT_FDCWD, path, AT_REMOVEDIR); }
int remove(const char* path) {
  struct stat st;
  const bool dir = lstat(path, &st) == 0 && S_ISDIR(st.st_mode);
  return Remove("remove", AT_FDCWD, path, dir ? AT_REMOVEDIR : 0);
}
int mkdir(const char* path, mode_t perm) {
  if (Numbered("mkdir", path, -1)) return REFUSE(-1);
  const int result = REAL(mkdir)(path, perm);
  Changed(kMadeDir, AT_FDCWD, path, 0, NULL, NULL, result == 0);
  return result;
}

// Numbers the flush or close of a stream open for writing; true when the disk is full and the stream holds
// data, which is then dropped.
static bool StreamRefused(const char* call, FILE* stream) {
  if (!stream || !Writable(fileno(stream))) return false;
  const bool full = Numbered(call, NULL, fileno(stream)) && __fpending(stream) > 0;
  if (full) __fpurge(stream);
  return full;
}
int fflush(FILE* stream) { return StreamRefused("fflush", stream) ? REFUSE(EOF) : REAL(fflush)(stream); }
int fclose(FILE* stream) {
  const bool full = StreamRefused("fclose", stream);
  const int result = REAL(fclose)(stream);
  return full ? REFUSE(EOF) : result;
}
