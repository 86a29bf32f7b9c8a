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
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

static unsigned long long g_counted;
static int g_wrote;

static int Watched(int fd) {
  const char* prefixes = getenv("TEAR_PATHS");
  if (!prefixes || !*prefixes) return 0;
  char link[64], path[PATH_MAX];
  snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, path, sizeof(path) - 1);
  if (n <= 0) return 0;
  path[n] = 0;
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
  int kill_after;
  size_t allowed = Allowed(fd, count, &kill_after);
  ssize_t n = allowed > 0 || !kill_after ? real(fd, buf, allowed) : 0;
  if (kill_after) kill(getpid(), SIGKILL);
  return n;
}

static ssize_t Pwrite(const char* name, int fd, const void* buf, size_t count, off_t offset) {
  ssize_t (*real)(int, const void*, size_t, off_t) =
      (ssize_t(*)(int, const void*, size_t, off_t))dlsym(RTLD_NEXT, name);
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

static ssize_t Pread(const char* name, int fd, void* buf, size_t count, off_t offset) {
  ssize_t (*real)(int, void*, size_t, off_t) =
      (ssize_t(*)(int, void*, size_t, off_t))dlsym(RTLD_NEXT, name);
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
