// SPDX-License-Identifier: Apache-2.0
/*
 * A fault injector for the tool's reliability tests, loaded with LD_PRELOAD. It counts the bytes
 * that write() and pwrite() put into files whose path begins with one of the prefixes in
 * TEAR_PATHS (colon-separated). With TEAR_AFTER=K the write that reaches K bytes lands only up to
 * byte K and the process is then killed with SIGKILL, as a power cut or a crash at that byte
 * would leave it; with TEAR_WRITES=N the process is killed right after its Nth whole write to
 * such a file. With TEAR_REPORT=FILE the process writes, when it exits normally, the bytes it
 * counted and its core-dump settings: "counted=N dumpable=D core=C\n".
 *
 * With TEAR_READ_FAIL set, pread() of a watched file fails with EIO once a write to a watched
 * file has landed, as a device that fails after a store would.
 *
 * It also fails one system call on request: FAIL_CALL names the kind (write, pwrite, fsync,
 * pread, read, open, rename or link), FAIL_NTH=N picks the Nth such call on a path that begins
 * with one of the FAIL_PATHS prefixes (the descriptor's file, or either path argument; 0 picks
 * every one), and FAIL_ERRNO is the errno it fails with (EIO when unset); with FAIL_SIGNAL=S the
 * process sends itself signal S instead and the call goes on if it is still alive. With FAIL_LOSE=1
 * a failed fsync also models what a kernel may do after one: the writes to that file since its last
 * good fsync are partly lost (every other 512-byte sector goes back to its old bytes when the
 * process exits, where it still holds what was written), as a power cut right after the command
 * would show.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

static unsigned long long g_counted;

static int PathMatches(const char* path, const char* variable) {
  const char* prefixes = getenv(variable);
  if (!prefixes || !*prefixes || !path) return 0;
  const char* p = prefixes;
  while (*p) {
    const char* end = strchr(p, ':');
    size_t len = end ? (size_t)(end - p) : strlen(p);
    if (len > 0 && strncmp(path, p, len) == 0) return 1;
    if (!end) break;
    p = end + 1;
  }
  return 0;
}

/* The file behind `fd` in `path` (PATH_MAX bytes); 0 when it has none. */
static int FdPath(int fd, char* path) {
  char link[64];
  snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, path, PATH_MAX - 1);
  if (n <= 0) return 0;
  path[n] = 0;
  return 1;
}

static int FdMatches(int fd, const char* variable) {
  const char* prefixes = getenv(variable);
  if (!prefixes || !*prefixes) return 0;
  char path[PATH_MAX];
  return FdPath(fd, path) && PathMatches(path, variable);
}

static int Watched(int fd) { return FdMatches(fd, "TEAR_PATHS"); }

/* Whether this call of `kind` on `path` (or on `path2`) is the one to fail; sets errno if so. */
static int g_fail_count;
static int ShouldFail(const char* kind, const char* path, const char* path2) {
  const char* call = getenv("FAIL_CALL");
  if (!call || strcmp(call, kind) != 0) return 0;
  if (!PathMatches(path, "FAIL_PATHS") && !PathMatches(path2, "FAIL_PATHS")) return 0;
  const char* nth = getenv("FAIL_NTH");
  int wanted = nth && *nth ? atoi(nth) : 1;
  if (++g_fail_count != wanted && wanted != 0) return 0;
  const char* sig = getenv("FAIL_SIGNAL");
  if (sig && *sig) {
    kill(getpid(), atoi(sig));
    return 0;
  }
  const char* code = getenv("FAIL_ERRNO");
  errno = code && *code ? atoi(code) : EIO;
  return 1;
}

static int FdShouldFail(const char* kind, int fd) {
  const char* call = getenv("FAIL_CALL");
  if (!call || strcmp(call, kind) != 0) return 0;
  char path[PATH_MAX];
  return FdPath(fd, path) && ShouldFail(kind, path, NULL);
}

/* FAIL_LOSE: writes not yet known durable, and those a failed fsync lost. */
struct Pending {
  char path[PATH_MAX];
  off_t offset;
  size_t size;
  unsigned char before[16384];
  unsigned char after[16384];
  int lost;
};
/* Static, so that a leak checker in the process sees nothing of it. */
enum { kMaxPending = 16 };
static struct Pending g_pending[kMaxPending];
static int g_pendings;

static int Losing(void) {
  const char* lose = getenv("FAIL_LOSE");
  return lose && strcmp(lose, "1") == 0;
}

static ssize_t RealPread(int fd, void* buf, size_t count, off_t offset) {
  static ssize_t (*real)(int, void*, size_t, off_t);
  if (!real) real = (ssize_t(*)(int, void*, size_t, off_t))dlsym(RTLD_NEXT, "pread");
  return real(fd, buf, count, offset);
}

static ssize_t RealPwrite(int fd, const void* buf, size_t count, off_t offset) {
  static ssize_t (*real)(int, const void*, size_t, off_t);
  if (!real) real = (ssize_t(*)(int, const void*, size_t, off_t))dlsym(RTLD_NEXT, "pwrite");
  return real(fd, buf, count, offset);
}

/* Before a write of `count` bytes at `offset` (-1: the current position) lands in a watched
 * file: keeps the bytes it replaces. Returns the slot, or -1. */
static int KeepBefore(int fd, size_t count, off_t offset) {
  if (!Losing() || count == 0 || count > sizeof(g_pending[0].before) || g_pendings == kMaxPending) {
    return -1;
  }
  struct Pending* p = &g_pending[g_pendings];
  if (!FdPath(fd, p->path) || !PathMatches(p->path, "FAIL_PATHS")) return -1;
  if (offset < 0) offset = lseek(fd, 0, SEEK_CUR);
  if (offset < 0) return -1;
  p->offset = offset;
  p->size = count;
  p->lost = 0;
  memset(p->before, 0, count);
  RealPread(fd, p->before, count, offset);  // past the end reads as zeros
  return g_pendings++;
}

static void KeepAfter(int slot, const void* buf, ssize_t written) {
  if (slot < 0) return;
  if (written <= 0) {
    g_pendings--;
    return;
  }
  g_pending[slot].size = (size_t)written;
  memcpy(g_pending[slot].after, buf, (size_t)written);
}

/* An fsync of `fd`: a good one makes its file's writes durable, a failed one loses them. */
static void Synced(int fd, int failed) {
  if (!Losing()) return;
  char path[PATH_MAX];
  if (!FdPath(fd, path)) return;
  for (int i = 0; i < g_pendings; ++i) {
    if (strcmp(g_pending[i].path, path) != 0 || g_pending[i].lost) continue;
    if (failed) {
      g_pending[i].lost = 1;
    } else {
      g_pending[i].size = 0;
    }
  }
}

static void LoseWrites(void) {
  for (int i = 0; i < g_pendings; ++i) {
    struct Pending* p = &g_pending[i];
    if (!p->lost) continue;
    int fd = ((int (*)(const char*, int, ...))dlsym(RTLD_NEXT, "open"))(p->path, O_RDWR);
    if (fd < 0) continue;
    for (off_t sector = p->offset / 512; sector * 512 < p->offset + (off_t)p->size; ++sector) {
      if (sector % 2 == 0) continue;
      off_t from = sector * 512 > p->offset ? sector * 512 : p->offset;
      off_t to = (sector + 1) * 512 < p->offset + (off_t)p->size ? (sector + 1) * 512
                                                                 : p->offset + (off_t)p->size;
      unsigned char now[512];
      size_t size = (size_t)(to - from);
      if (RealPread(fd, now, size, from) != (ssize_t)size) continue;
      if (memcmp(now, p->after + (from - p->offset), size) != 0) continue;
      RealPwrite(fd, p->before + (from - p->offset), size, from);
    }
    close(fd);
  }
}

/* How many of `count` bytes may land; sets *kill when the budget ends inside this write. */
static unsigned long long g_writes;
static int g_wrote;
static size_t Allowed(int fd, size_t count, int* kill_after) {
  *kill_after = 0;
  if (!Watched(fd)) return count;
  g_wrote = 1;
  const char* writes = getenv("TEAR_WRITES");
  if (writes && *writes && ++g_writes == strtoull(writes, NULL, 10)) *kill_after = 1;
  const char* after = getenv("TEAR_AFTER");
  if (after && *after) {
    unsigned long long budget = strtoull(after, NULL, 10);
    if (g_counted + count >= budget && !*kill_after) {
      *kill_after = 1;
      count = (size_t)(budget - g_counted);
    }
  }
  g_counted += count;
  return count;
}

ssize_t write(int fd, const void* buf, size_t count) {
  static ssize_t (*real)(int, const void*, size_t);
  if (!real) real = (ssize_t(*)(int, const void*, size_t))dlsym(RTLD_NEXT, "write");
  if (FdShouldFail("write", fd)) return -1;
  int kill_after;
  size_t allowed = Allowed(fd, count, &kill_after);
  int slot = KeepBefore(fd, allowed, -1);
  ssize_t n = allowed > 0 || !kill_after ? real(fd, buf, allowed) : 0;
  KeepAfter(slot, buf, n);
  if (kill_after) kill(getpid(), SIGKILL);
  return n;
}

static ssize_t Pwrite(const char* name, int fd, const void* buf, size_t count, off_t offset) {
  ssize_t (*real)(int, const void*, size_t, off_t) =
      (ssize_t(*)(int, const void*, size_t, off_t))dlsym(RTLD_NEXT, name);
  if (FdShouldFail("pwrite", fd)) return -1;
  int kill_after;
  size_t allowed = Allowed(fd, count, &kill_after);
  int slot = KeepBefore(fd, allowed, offset);
  ssize_t n = allowed > 0 || !kill_after ? real(fd, buf, allowed, offset) : 0;
  KeepAfter(slot, buf, n);
  if (kill_after) kill(getpid(), SIGKILL);
  return n;
}

ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset) {
  return Pwrite("pwrite", fd, buf, count, offset);
}

ssize_t pwrite64(int fd, const void* buf, size_t count, off_t offset) {
  return Pwrite("pwrite64", fd, buf, count, offset);
}

static int Fsync(const char* name, int fd) {
  int (*real)(int) = (int (*)(int))dlsym(RTLD_NEXT, name);
  if (FdShouldFail("fsync", fd)) {
    int err = errno;
    Synced(fd, 1);
    errno = err;
    return -1;
  }
  int rc = real(fd);
  if (rc == 0) Synced(fd, 0);
  return rc;
}

int fsync(int fd) { return Fsync("fsync", fd); }
int fdatasync(int fd) { return Fsync("fdatasync", fd); }

static ssize_t Pread(const char* name, int fd, void* buf, size_t count, off_t offset) {
  ssize_t (*real)(int, void*, size_t, off_t) =
      (ssize_t(*)(int, void*, size_t, off_t))dlsym(RTLD_NEXT, name);
  if (FdShouldFail("pread", fd)) return -1;
  const char* fail = getenv("TEAR_READ_FAIL");
  if (fail && *fail && g_wrote && Watched(fd)) {
    errno = EIO;
    return -1;
  }
  return real(fd, buf, count, offset);
}

ssize_t pread(int fd, void* buf, size_t count, off_t offset) {
  return Pread("pread", fd, buf, count, offset);
}

ssize_t pread64(int fd, void* buf, size_t count, off_t offset) {
  return Pread("pread64", fd, buf, count, offset);
}

ssize_t read(int fd, void* buf, size_t count) {
  static ssize_t (*real)(int, void*, size_t);
  if (!real) real = (ssize_t(*)(int, void*, size_t))dlsym(RTLD_NEXT, "read");
  if (FdShouldFail("read", fd)) return -1;
  return real(fd, buf, count);
}

static int Open(const char* name, const char* path, int flags, va_list args) {
  int (*real)(const char*, int, ...) = (int (*)(const char*, int, ...))dlsym(RTLD_NEXT, name);
  mode_t mode = (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(args, mode_t) : 0;
  if (ShouldFail("open", path, NULL)) return -1;
  return real(path, flags, mode);
}

int open(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  int fd = Open("open", path, flags, args);
  va_end(args);
  return fd;
}

int open64(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  int fd = Open("open64", path, flags, args);
  va_end(args);
  return fd;
}

int rename(const char* from, const char* to) {
  int (*real)(const char*, const char*) =
      (int (*)(const char*, const char*))dlsym(RTLD_NEXT, "rename");
  if (ShouldFail("rename", from, to)) return -1;
  return real(from, to);
}

int link(const char* from, const char* to) {
  int (*real)(const char*, const char*) =
      (int (*)(const char*, const char*))dlsym(RTLD_NEXT, "link");
  if (ShouldFail("link", from, to)) return -1;
  return real(from, to);
}

__attribute__((destructor)) static void Report(void) {
  LoseWrites();
  const char* path = getenv("TEAR_REPORT");
  if (!path || !*path) return;
  struct rlimit core;
  getrlimit(RLIMIT_CORE, &core);
  FILE* out = fopen(path, "w");
  if (!out) return;
  fprintf(out, "counted=%llu dumpable=%d core=%lld\n", g_counted, prctl(PR_GET_DUMPABLE),
          (long long)core.rlim_cur);
  fclose(out);
}
