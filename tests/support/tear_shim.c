// SPDX-License-Identifier: Apache-2.0
/*
 * A fault injector for the tool's reliability tests, loaded with LD_PRELOAD. It counts the bytes
 * that write() and pwrite() put into files whose path begins with one of the prefixes in
 * TEAR_PATHS (colon-separated). With TEAR_AFTER=K the write that reaches K bytes lands only up to
 * byte K and the process is then killed with SIGKILL, as a power cut or a crash at that byte
 * would leave it. With TEAR_REPORT=FILE the process writes, when it exits normally, the bytes it
 * counted and its core-dump settings: "counted=N dumpable=D core=C\n". With TEAR_READ_FAIL set,
 * pread() of a watched file fails with EIO once a write to a watched file has landed, as a device
 * that fails after a store would.
 *
 * A second, independent mode fails one system call: FAIL_CALL names the kind (open, read, pread,
 * write, pwrite, fsync or rename), FAIL_PATHS the path prefixes it applies to (as TEAR_PATHS), and
 * FAIL_NTH which matching call (1 for the first; 0 for every one). That call then fails with
 * errno FAIL_ERRNO, or, with FAIL_SIGNAL=S, the process sends itself signal S and the call goes
 * on if it is still alive (SIGKILL at an fsync, SIGINT while the signal is blocked).
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
static int g_wrote;

static int PathMatches(const char* path, const char* prefixes) {
  if (!path || !prefixes || !*prefixes) return 0;
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

static int FdMatches(int fd, const char* prefixes) {
  if (!prefixes || !*prefixes) return 0;
  char link[64], path[PATH_MAX];
  snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, path, sizeof(path) - 1);
  if (n <= 0) return 0;
  path[n] = 0;
  return PathMatches(path, prefixes);
}

static int Watched(int fd) { return FdMatches(fd, getenv("TEAR_PATHS")); }

static unsigned long long g_fail_seen;

/* Whether this call of kind `call` on `path` (or `fd` when path is null) is the one to fail:
 * sets errno and returns 1, or sends the signal and returns 0. */
static int Fail(const char* call, const char* path, int fd) {
  const char* kind = getenv("FAIL_CALL");
  if (!kind || strcmp(kind, call) != 0) return 0;
  const char* prefixes = getenv("FAIL_PATHS");
  if (path ? !PathMatches(path, prefixes) : !FdMatches(fd, prefixes)) return 0;
  const char* nth = getenv("FAIL_NTH");
  unsigned long long wanted = nth ? strtoull(nth, NULL, 10) : 1;
  if (++g_fail_seen != wanted && wanted != 0) return 0;
  const char* sig = getenv("FAIL_SIGNAL");
  if (sig && *sig) {
    kill(getpid(), atoi(sig));
    return 0;
  }
  const char* err = getenv("FAIL_ERRNO");
  errno = err && *err ? atoi(err) : EIO;
  return 1;
}

#define REAL(name, type) ((type)dlsym(RTLD_NEXT, name))

static int Open(const char* name, const char* path, int flags, va_list args) {
  mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? (mode_t)va_arg(args, int) : 0;
  if (Fail("open", path, -1)) return -1;
  return REAL(name, int (*)(const char*, int, ...))(path, flags, mode);
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

ssize_t read(int fd, void* buf, size_t count) {
  if (Fail("read", NULL, fd)) return -1;
  return REAL("read", ssize_t(*)(int, void*, size_t))(fd, buf, count);
}

static ssize_t Pread(const char* name, int fd, void* buf, size_t count, off_t offset) {
  if (Fail("pread", NULL, fd)) return -1;
  const char* fail = getenv("TEAR_READ_FAIL");
  if (fail && *fail && g_wrote && Watched(fd)) {
    errno = EIO;
    return -1;
  }
  return REAL(name, ssize_t(*)(int, void*, size_t, off_t))(fd, buf, count, offset);
}

ssize_t pread(int fd, void* buf, size_t count, off_t offset) {
  return Pread("pread", fd, buf, count, offset);
}

ssize_t pread64(int fd, void* buf, size_t count, off_t offset) {
  return Pread("pread64", fd, buf, count, offset);
}

int fsync(int fd) {
  if (Fail("fsync", NULL, fd)) return -1;
  return REAL("fsync", int (*)(int))(fd);
}

int rename(const char* from, const char* to) {
  const char* matched = PathMatches(from, getenv("FAIL_PATHS")) ? from : to;
  if (Fail("rename", matched, -1)) return -1;
  return REAL("rename", int (*)(const char*, const char*))(from, to);
}

/* How many of `count` bytes may land; sets *kill when the budget ends inside this write. */
static size_t Allowed(int fd, size_t count, int* kill_after) {
  *kill_after = 0;
  if (!Watched(fd)) return count;
  g_wrote = 1;
  const char* after = getenv("TEAR_AFTER");
  if (after && *after) {
    unsigned long long budget = strtoull(after, NULL, 10);
    if (g_counted + count >= budget) {
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
  if (Fail("write", NULL, fd)) return -1;
  int kill_after;
  size_t allowed = Allowed(fd, count, &kill_after);
  ssize_t n = allowed > 0 || !kill_after ? real(fd, buf, allowed) : 0;
  if (kill_after) kill(getpid(), SIGKILL);
  return n;
}

static ssize_t Pwrite(const char* name, int fd, const void* buf, size_t count, off_t offset) {
  ssize_t (*real)(int, const void*, size_t, off_t) =
      (ssize_t(*)(int, const void*, size_t, off_t))dlsym(RTLD_NEXT, name);
  if (Fail("pwrite", NULL, fd)) return -1;
  int kill_after;
  size_t allowed = Allowed(fd, count, &kill_after);
  ssize_t n = allowed > 0 || !kill_after ? real(fd, buf, allowed, offset) : 0;
  if (kill_after) kill(getpid(), SIGKILL);
  return n;
}

ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset) {
  return Pwrite("pwrite", fd, buf, count, offset);
}

ssize_t pwrite64(int fd, const void* buf, size_t count, off_t offset) {
  return Pwrite("pwrite64", fd, buf, count, offset);
}

__attribute__((destructor)) static void Report(void) {
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
