// Write-side call shim of the campaigns, preloaded (LD_PRELOAD) into a process that calls the plug-in.
// It numbers every call by which the process changes the file system, and can kill the process right
// before one of them, make the disk fill up at one of them, and keep what a power cut would lose.
//
// Environment (read at the first numbered call):
//   WUP_SHIM_MODE      count   only number the calls; at exit the total goes to WUP_SHIM_REPORT (else
//                              to standard error) as one decimal line
//                      kill    SIGKILL the process right before call number WUP_SHIM_AT
//                      enospc  the disk is full from call number WUP_SHIM_AT on: every later call that
//                              would take space fails with ENOSPC (write, pwrite, pwrite64, writev, an
//                              open, creat or fopen that creates a file, mkdir, and fflush or fclose of a
//                              stream with buffered data, whose data is then dropped); the rest still work
//                      other or unset: nothing is numbered, every call passes through
//   WUP_SHIM_AT        the call number (from 1) for kill and enospc
//   WUP_SHIM_REPORT    count mode: the file the total is written to
//   WUP_SHIM_TRACE     optional file that gets one line per numbered call, "N call target", written
//                      before the call (so after a kill its last line names the call that was cut)
//   WUP_SHIM_POWERCUT  optional directory, any mode: before the first change to a regular file since it
//                      was last fsync'ed (or since the process started), the file's content is saved
//                      there as DEV-INO (hexadecimal); fsync and fdatasync drop the copy, and so do
//                      unlink and a rename over the file. After a kill the copies left are what a power
//                      cut loses: writing each back into the file that now has that inode gives the
//                      disk as it would be after the cut (data not synced is lost; creations, renames,
//                      removals and new directories survive).
//
// Numbered: open, open64, openat, openat64, creat, creat64, fopen, fopen64 and fdopen that open for
// writing (O_WRONLY, O_RDWR, O_CREAT or O_TRUNC; a mode with 'w', 'a' or '+'); write, pwrite, pwrite64,
// writev on descriptors above 2; fsync, fdatasync; rename, renameat; unlink, unlinkat, remove; mkdir,
// rmdir; ftruncate, ftruncate64; close, fflush and fclose of what was opened for writing (glibc's stdio
// writes its buffer through internal calls that no shim sees, at fflush and fclose, so a stream is
// numbered there). The platform log, HOST_DLOG_FILE, is never numbered. On 64-bit Linux the 64 variants
// are the same calls, so each goes to the same real function.
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

enum Mode { kOff, kCount, kKill, kEnospc };
static enum Mode mode = kOff;
static long at, calls;
static const char *logPath, *cutDir;
static int traceFd = -1;
enum { kMaxFd = 4096 };
enum Kind { kOther, kWritable, kLog };
static unsigned char kinds[kMaxFd];  // opened for writing (their close is numbered), or the log

static void Init(void) {
  static bool done;
  if (done) return;
  done = true;
  const char* name = getenv("WUP_SHIM_MODE");
  const char* number = getenv("WUP_SHIM_AT");
  const char* trace = getenv("WUP_SHIM_TRACE");
  mode = !name                     ? kOff
         : !strcmp(name, "count")  ? kCount
         : !strcmp(name, "kill")   ? kKill
         : !strcmp(name, "enospc") ? kEnospc
                                   : kOff;
  at = number ? atol(number) : 0;
  logPath = getenv("HOST_DLOG_FILE");
  cutDir = getenv("WUP_SHIM_POWERCUT");
  if (trace && mode != kOff) traceFd = REAL(open)(trace, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

static bool IsLog(const char* path) {
  Init();
  return logPath && path && !strcmp(path, logPath);
}
static bool ForWriting(int flags) { return flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC); }
static bool ModeWrites(const char* m) { return strpbrk(m, "wa+"); }
static void Track(int fd, enum Kind kind) {
  if (fd >= 0 && fd < kMaxFd) kinds[fd] = kind;
}
static bool Tracked(int fd) { return fd > 2 && fd < kMaxFd && kinds[fd] == kWritable; }
static bool Unnumbered(int fd) { return fd <= 2 || (fd < kMaxFd && kinds[fd] == kLog); }
static int StreamFd(FILE* stream) { return stream ? fileno(stream) : -1; }

// Numbers one call (the target is a path, or else the descriptor's path) and says whether it finds the
// disk full. In kill mode the process dies here, before the call.
static bool Numbered(const char* call, const char* path, int fd) {
  Init();
  if (mode == kOff) return false;
  ++calls;
  if (traceFd >= 0) {
    char target[1024] = "", line[1200];
    if (path) {
      snprintf(target, sizeof target, "%s", path);
    } else {
      char proc[64];
      snprintf(proc, sizeof proc, "/proc/self/fd/%d", fd);
      if (readlink(proc, target, sizeof target - 1) < 0) snprintf(target, sizeof target, "fd %d", fd);
    }
    const int n = snprintf(line, sizeof line, "%ld %s %s\n", calls, call, target);
    REAL(write)(traceFd, line, n < (int)sizeof line ? (size_t)n : sizeof line - 1);
  }
  if (mode == kKill && calls == at) kill(getpid(), SIGKILL);
  return mode == kEnospc && calls >= at;
}

static int Refuse(void) {
  errno = ENOSPC;
  return -1;
}
static int RefuseStream(void) {
  errno = ENOSPC;
  return EOF;
}

// --- power-cut copies ---------------------------------------------------------------------------------

static bool CopyName(const struct stat* st, char* name, size_t size) {
  return cutDir && S_ISREG(st->st_mode) &&
         snprintf(name, size, "%s/%lx-%lx", cutDir, (unsigned long)st->st_dev, (unsigned long)st->st_ino) <
             (int)size;
}

// Saves the file's present content as its synced content, unless a copy is kept already.
static void Keep(int dirfd, const char* path) {
  Init();
  struct stat st;
  char name[4096], buffer[65536];
  if (!cutDir || fstatat(dirfd, path, &st, 0) != 0 || !CopyName(&st, name, sizeof name) ||
      access(name, F_OK) == 0) {
    return;
  }
  const int in = REAL(openat)(dirfd, path, O_RDONLY | O_CLOEXEC);
  const int out = REAL(open)(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  for (ssize_t n; in >= 0 && out >= 0 && (n = read(in, buffer, sizeof buffer)) > 0;)
    REAL(write)(out, buffer, n);
  if (in >= 0) REAL(close)(in);
  if (out >= 0) REAL(close)(out);
}

static void KeepFd(int fd) {
  char proc[64];
  snprintf(proc, sizeof proc, "/proc/self/fd/%d", fd);
  if (fd > 2) Keep(AT_FDCWD, proc);
}

// The file is synced (or gone): nothing of it is lost any more.
static void Forget(const struct stat* st) {
  char name[4096];
  if (CopyName(st, name, sizeof name)) REAL(unlink)(name);
}

static bool Stat(int dirfd, const char* path, struct stat* st) {
  return fstatat(dirfd, path, st, AT_SYMLINK_NOFOLLOW) == 0;
}

// --- opening ------------------------------------------------------------------------------------------

static int Open(const char* call, int dirfd, const char* path, int flags, mode_t perm) {
  if (IsLog(path)) {
    const int fd = REAL(openat)(dirfd, path, flags, perm);
    Track(fd, kLog);
    return fd;
  }
  if (!ForWriting(flags)) return REAL(openat)(dirfd, path, flags, perm);
  struct stat st;
  const bool exists = fstatat(dirfd, path, &st, 0) == 0;
  if (Numbered(call, path, -1) && !exists && (flags & O_CREAT)) return Refuse();
  if (exists && (flags & O_TRUNC)) Keep(dirfd, path);
  const int fd = REAL(openat)(dirfd, path, flags, perm);
  Track(fd, kWritable);
  if (fd >= 0 && !exists) KeepFd(fd);  // created now: its synced content is nothing
  return fd;
}

#define OPEN_MODE(flags, last)           \
  mode_t perm = 0;                       \
  if ((flags) & (O_CREAT | O_TMPFILE)) { \
    va_list args;                        \
    va_start(args, last);                \
    perm = va_arg(args, mode_t);         \
    va_end(args);                        \
  }

int open(const char* path, int flags, ...) {
  OPEN_MODE(flags, flags);
  return Open("open", AT_FDCWD, path, flags, perm);
}
int open64(const char* path, int flags, ...) {
  OPEN_MODE(flags, flags);
  return Open("open", AT_FDCWD, path, flags, perm);
}
int openat(int dirfd, const char* path, int flags, ...) {
  OPEN_MODE(flags, flags);
  return Open("openat", dirfd, path, flags, perm);
}
int openat64(int dirfd, const char* path, int flags, ...) {
  OPEN_MODE(flags, flags);
  return Open("openat", dirfd, path, flags, perm);
}
int creat(const char* path, mode_t perm) {
  return Open("creat", AT_FDCWD, path, O_CREAT | O_WRONLY | O_TRUNC, perm);
}
int creat64(const char* path, mode_t perm) { return creat(path, perm); }

static FILE* OpenStream(FILE* (*real)(const char*, const char*), const char* path, const char* how) {
  if (!ModeWrites(how) || IsLog(path)) return real(path, how);
  struct stat st;
  const bool exists = stat(path, &st) == 0;
  if (Numbered("fopen", path, -1) && !exists) {
    errno = ENOSPC;
    return NULL;
  }
  if (exists) Keep(AT_FDCWD, path);  // stdio writes through calls no shim sees: keep it from the start
  FILE* stream = real(path, how);
  Track(StreamFd(stream), kWritable);
  if (stream) KeepFd(fileno(stream));
  return stream;
}

FILE* fopen(const char* path, const char* how) { return OpenStream(REAL(fopen), path, how); }
FILE* fopen64(const char* path, const char* how) { return OpenStream(REAL(fopen64), path, how); }
FILE* fdopen(int fd, const char* how) {
  if (ModeWrites(how)) {
    Numbered("fdopen", NULL, fd);
    Track(fd, kWritable);
    KeepFd(fd);
  }
  return REAL(fdopen)(fd, how);
}

// --- writing ------------------------------------------------------------------------------------------

// True when the write must fail; otherwise the file's synced content is safe before it changes.
static bool WriteRefused(const char* call, int fd) {
  if (Unnumbered(fd)) return false;
  if (Numbered(call, NULL, fd)) {
    errno = ENOSPC;
    return true;
  }
  KeepFd(fd);
  return false;
}

ssize_t write(int fd, const void* data, size_t size) {
  return WriteRefused("write", fd) ? -1 : REAL(write)(fd, data, size);
}
ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
  return WriteRefused("pwrite", fd) ? -1 : REAL(pwrite)(fd, data, size, offset);
}
ssize_t pwrite64(int fd, const void* data, size_t size, off64_t offset) {
  return WriteRefused("pwrite", fd) ? -1 : REAL(pwrite64)(fd, data, size, offset);
}
ssize_t writev(int fd, const struct iovec* parts, int count) {
  return WriteRefused("writev", fd) ? -1 : REAL(writev)(fd, parts, count);
}

static int Truncate(int fd, off64_t size) {
  Numbered("ftruncate", NULL, fd);
  KeepFd(fd);
  return REAL(ftruncate64)(fd, size);
}
int ftruncate(int fd, off_t size) { return Truncate(fd, size); }
int ftruncate64(int fd, off64_t size) { return Truncate(fd, size); }

static int Sync(const char* call, int fd, int (*real)(int)) {
  Numbered(call, NULL, fd);
  const int result = real(fd);
  struct stat st;
  if (result == 0 && fstat(fd, &st) == 0) Forget(&st);
  return result;
}
int fsync(int fd) { return Sync("fsync", fd, REAL(fsync)); }
int fdatasync(int fd) { return Sync("fdatasync", fd, REAL(fdatasync)); }

int close(int fd) {
  const bool numbered = Tracked(fd);
  Track(fd, kOther);
  if (numbered) Numbered("close", NULL, fd);
  return REAL(close)(fd);
}

// --- names --------------------------------------------------------------------------------------------

int renameat(int fromDir, const char* from, int toDir, const char* to) {
  char target[2100];
  snprintf(target, sizeof target, "%s -> %s", from, to);
  Numbered("rename", target, -1);
  struct stat replaced;
  const bool replaces = Stat(toDir, to, &replaced);
  const int result = REAL(renameat)(fromDir, from, toDir, to);
  if (result == 0 && replaces) Forget(&replaced);
  return result;
}
int rename(const char* from, const char* to) { return renameat(AT_FDCWD, from, AT_FDCWD, to); }

int unlinkat(int dirfd, const char* path, int flags) {
  Numbered(flags & AT_REMOVEDIR ? "rmdir" : "unlink", path, -1);
  struct stat st;
  const bool exists = Stat(dirfd, path, &st);
  const int result = REAL(unlinkat)(dirfd, path, flags);
  if (result == 0 && exists) Forget(&st);
  return result;
}
int unlink(const char* path) { return unlinkat(AT_FDCWD, path, 0); }
int rmdir(const char* path) { return unlinkat(AT_FDCWD, path, AT_REMOVEDIR); }
int remove(const char* path) {
  struct stat st;
  return unlinkat(AT_FDCWD, path, Stat(AT_FDCWD, path, &st) && S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0);
}

int mkdir(const char* path, mode_t perm) {
  return Numbered("mkdir", path, -1) ? Refuse() : REAL(mkdir)(path, perm);
}

// --- stdio --------------------------------------------------------------------------------------------

// Numbers the flush or close of a stream opened for writing; true when the disk is full.
static bool StreamCall(const char* call, FILE* stream) {
  const int fd = StreamFd(stream);
  if (!Tracked(fd)) return false;
  const bool full = Numbered(call, NULL, fd);
  KeepFd(fd);
  return full;
}

int fflush(FILE* stream) {
  if (StreamCall("fflush", stream) && __fpending(stream) > 0) {
    __fpurge(stream);
    return RefuseStream();
  }
  return REAL(fflush)(stream);
}

int fclose(FILE* stream) {
  const int fd = StreamFd(stream);
  const bool full = StreamCall("fclose", stream) && __fpending(stream) > 0;
  Track(fd, kOther);
  if (full) __fpurge(stream);
  const int result = REAL(fclose)(stream);
  return full ? RefuseStream() : result;
}

__attribute__((destructor)) static void Report(void) {
  if (mode != kCount) return;
  const char* report = getenv("WUP_SHIM_REPORT");
  FILE* out = report ? REAL(fopen)(report, "w") : stderr;
  if (!out) return;
  REAL(fprintf)(out, "%ld\n", calls);
  if (out != stderr) REAL(fclose)(out);
}
