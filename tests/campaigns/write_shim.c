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
//                        creations, renames, removals and new directories stay
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
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
static const char* logPath;
static bool powerCut;
static int traceFd = -1;

__attribute__((constructor)) static void Init(void) {
  const char* trace = getenv("WUP_SHIM_TRACE");
  killAt = atol(getenv("WUP_SHIM_KILL_AT") ?: "0");
  fullAt = atol(getenv("WUP_SHIM_FULL_AT") ?: "0");
  logPath = getenv("HOST_DLOG_FILE");
  powerCut = atoi(getenv("WUP_SHIM_POWERCUT") ?: "0") != 0;
  if (trace) traceFd = REAL(open)(trace, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

#define REFUSE(result) (errno = ENOSPC, (result))  // a full disk's answer
static bool IsLog(const char* path) { return logPath && path && !strcmp(path, logPath); }
static char* ProcPath(int fd, char proc[64]) {
  snprintf(proc, 64, "/proc/self/fd/%d", fd);
  return proc;
}
static const char* PathOf(int fd, char path[1024]) {
  char proc[64];
  memset(path, 0, 1024);
  return readlink(ProcPath(fd, proc), path, 1023) > 0 ? path : NULL;
}
// Whether calls on the descriptor are numbered: not the standard streams nor the log.
static bool Numbers(int fd) {
  char path[1024];
  return fd > 2 && !IsLog(PathOf(fd, path));
}
// A regular file open for writing, whose close is numbered.
static bool Writable(int fd) {
  struct stat st;
  return Numbers(fd) && (fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDONLY && fstat(fd, &st) == 0 &&
         S_ISREG(st.st_mode);
}

// Each regular file changed since it was last synced (or since the process started), with the content it
// had then and a descriptor to write that back through at the cut, whatever the file's name by then; an
// unlinked file's goes to the orphan, harmlessly. The descriptors stay open: closing one would drop
// SQLite's locks on the file (and an open one keeps its inode's number from going to another file).
static struct Kept {
  struct stat st;
  int fd;
  char* data;
} kept[256];
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
  if (!powerCut || fstatat(dirfd, path, &st, 0) != 0 || !S_ISREG(st.st_mode) || Find(&st) || keptCount == 256)
    return;
  struct Kept k = {st, REAL(openat)(dirfd, path, O_RDWR | O_CLOEXEC), malloc(st.st_size + 1)};
  if (k.fd >= 0 && pread(k.fd, k.data, st.st_size, 0) == st.st_size) kept[keptCount++] = k;
}

// What the disk holds after the cut: every file kept goes back to its synced content.
static void PowerCut(void) {
  for (struct Kept* k = kept; k < kept + keptCount; ++k) {
    if (REAL(pwrite)(k->fd, k->data, k->st.st_size, 0) == k->st.st_size)
      REAL(ftruncate)(k->fd, k->st.st_size);
  }
  keptCount = 0;
}
__attribute__((destructor)) static void End(void) {
  if (killAt > calls) PowerCut();  // the cut came after the last call
}

// Numbers one call on `path`, or on the descriptor `fd` (whose file is kept first), and says whether it
// finds the disk full. Killed here, the process dies before the call.
static bool Numbered(const char* call, const char* path, int fd) {
  char target[1024], proc[64];
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
  struct Kept* k = result == 0 && fstat(fd, &st) == 0 ? Find(&st) : NULL;
  if (k) *k = kept[--keptCount];  // synced: nothing of it is lost any more
  return result;
}
int fsync(int fd) { return Sync("fsync", fd, REAL(fsync)); }
int fdatasync(int fd) { return Sync("fdatasync", fd, REAL(fdatasync)); }

int close(int fd) {
  if (Writable(fd)) Numbered("close", NULL, fd);
  return REAL(close)(fd);
}

int renameat(int fromDir, const char* from, int toDir, const char* to) {
  char target[2100];
  snprintf(target, sizeof target, "%s -> %s", from, to);
  Numbered("rename", target, -1);
  return REAL(renameat)(fromDir, from, toDir, to);
}
int rename(const char* from, const char* to) { return renameat(AT_FDCWD, from, AT_FDCWD, to); }
int unlinkat(int dirfd, const char* path, int flags) {
  Numbered(flags & AT_REMOVEDIR ? "rmdir" : "unlink", path, -1);
  return REAL(unlinkat)(dirfd, path, flags);
}
int unlink(const char* path) { return unlinkat(AT_FDCWD, path, 0); }
int rmdir(const char* path) { return unlinkat(AT_FDCWD, path, AT_REMOVEDIR); }
int remove(const char* path) { return Numbered("remove", path, -1), REAL(remove)(path); }
int mkdir(const char* path, mode_t perm) {
  return Numbered("mkdir", path, -1) ? REFUSE(-1) : REAL(mkdir)(path, perm);
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
