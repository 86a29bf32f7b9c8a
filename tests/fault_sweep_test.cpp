// SPDX-License-Identifier: Apache-2.0
// Every exported call under every failure below it: each scenario runs once with the fault
// injector counting the calls of each kind (allocation, file I/O, random bytes, libcrypto) and
// with the emulated Keymaster, legacy Keymaster and secure storage counting theirs; then, for
// every kind and every N up to that count, the scenario runs again from the same stored state
// with call N of that kind failing. Every time, the call must fail cleanly or succeed for
// real: its failure value (never a success with a wrong or partial result), no exception, no
// leak beyond the two blocks the object decryption and the KEK get keep on purpose (wiped),
// no secret left in memory it freed or in what it hands back, and every stored record either
// the old image or a complete new one. A failing random generator must end the process.
//
// TAVIKM_SWEEP=full sweeps every failure point (the slow suite); the default sweeps a few per
// kind (first, last, and evenly between), fewer under valgrind, sanitizers or an emulator.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <android/log.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "common/flags.h"
#include "crypto/kdf.h"
#include "keymaster/Keymaster.h"
#include "metadata/keys.h"
#include "support/device_env.h"
#include "support/fault_injector.h"
#include "support/scripted_kmstore.h"
#include "support/virtual_time.h"
#include "tavikm.h"
#include "tavikm_host/keymaster.h"
#include "tavikm_host/keymaster_faults.h"
#include "tavikm_host/kmstore.h"
#include "tavikm_keymaster.h"

namespace tavikm_test {
namespace {

namespace km = android::hardware::keymaster::V4_0;
using tavikm_host::KeymasterCall;
using tavikm_host::LegacyKeymasterCall;
using Bytes = std::vector<uint8_t>;
using Problems = std::vector<std::string>;

// ---- How much to sweep --------------------------------------------------------------------------

// Failure points per kind in the bounded mode; 0: all of them.
int PointsPerKind() {
  const char* mode = getenv("TAVIKM_SWEEP");
  if (mode && strcmp(mode, "full") == 0) return 0;
  const char* preload = getenv("LD_PRELOAD");
  if (preload && strstr(preload, "vgpreload")) return 1;  // valgrind: about 20 times slower
#if defined(TAVIKM_SWEEP_EMULATED) || defined(__SANITIZE_ADDRESS__)
  return 2;
#else
  return 3;
#endif
}

// The N to fail among `count` calls: all, or the first, the last and evenly between.
std::vector<int> PointsOf(int count) {
  const int per_kind = PointsPerKind();
  std::vector<int> points;
  // A kind of few calls is swept whole: each call of it is a different step.
  if (per_kind == 0 || count <= 2 * per_kind) {
    for (int n = 1; n <= count; ++n) points.push_back(n);
    return points;
  }
  std::set<int> picked;
  picked.insert(1);
  if (per_kind > 1) picked.insert(count);
  for (int i = 1; static_cast<int>(picked.size()) < per_kind && i < per_kind; ++i)
    picked.insert(1 + i * (count - 1) / (per_kind - 1 ? per_kind - 1 : 1));
  return std::vector<int>(picked.begin(), picked.end());
}

// ---- The tally printed at the end ---------------------------------------------------------------

struct Tally {
  int swept = 0;
  int held = 0;
  int known = 0;
};
std::map<std::string, Tally>& Tallies() {
  static auto* tallies = new std::map<std::string, Tally>;
  return *tallies;
}

class PrintTallies : public ::testing::Environment {
 public:
  void TearDown() override {
    int swept = 0, held = 0, known = 0;
    printf("fault sweep (%s): failure points swept and held, per function\n",
           PointsPerKind() == 0 ? "full" : "bounded");
    for (const auto& [function, t] : Tallies()) {
      printf("  %-52s %5d swept %5d held%s\n", function.c_str(), t.swept, t.held,
             t.known ? (" (" + std::to_string(t.known) + " known defects)").c_str() : "");
      swept += t.swept;
      held += t.held;
      known += t.known;
    }
    printf("  %-52s %5d swept %5d held (%d known defects)\n", "all", swept, held, known);
  }
};
const auto* const g_print = ::testing::AddGlobalTestEnvironment(new PrintTallies);

// Defects of mdfpp/object_crypto.cpp and mdfpp/sign.cpp, which are being rewritten around one
// operation runner that wipes what it copies: each entry excuses one problem (by its text) at
// the failure points whose description starts with `point`. Empty this list as the rewrite
// lands; nothing else belongs here.
struct KnownDefect {
  const char* point;     // the start of the failure point's description
  const char* problem;   // a piece of the problem's text
  const char* way = "";  // a piece of the failing way's name
};
const std::vector<KnownDefect> kKnownDefects = {};

// Takes the known defects out of `problems`; true when it took any.
bool TakeKnownDefects(const std::string& point, Problems* problems) {
  const size_t before = problems->size();
  const size_t bar = point.find('|');
  const std::string way = bar == std::string::npos ? "" : point.substr(bar + 1);
  for (const KnownDefect& known : kKnownDefects) {
    if (point.rfind(known.point, 0) != 0 || way.find(known.way) == std::string::npos) continue;
    problems->erase(std::remove_if(problems->begin(), problems->end(),
                                   [&](const std::string& problem) {
                                     return problem.find(known.problem) != std::string::npos;
                                   }),
                    problems->end());
  }
  return problems->size() != before;
}

// ---- The failure points -------------------------------------------------------------------------

// One way of failing: a kind of call and how it fails.
struct Way {
  enum Source {
    kInjector,
    kKeymaster,
    kKeymasterTransport,
    kLegacy,
    kKmstore,
    kNoKeymaster
  } source;
  int kind;   // Fault, KeymasterCall, LegacyKeymasterCall, or 0/1/2 for kmstore read/write/remove
  int error;  // errno, ErrorCode, keymaster_error_t
  std::string name;
};

std::vector<Way> InjectorWays(Fault kind) {
  auto way = [&](int error, const char* suffix) {
    return Way{Way::kInjector, static_cast<int>(kind), error,
               std::string(FaultName(kind)) + suffix};
  };
  switch (kind) {
    case Fault::kMalloc:
    case Fault::kCalloc:
    case Fault::kPosixMemalign:
    case Fault::kNew:
      return {way(ENOMEM, "")};
    case Fault::kWrite:
      return {way(EIO, " EIO"), way(ENOSPC, " ENOSPC"), way(EINTR, " EINTR")};
    case Fault::kRead:
    case Fault::kOpen:
    case Fault::kFsync:
    case Fault::kClose:
      return {way(EIO, " EIO"), way(EINTR, " EINTR")};
    case Fault::kFtruncate:
      return {way(EIO, " EIO"), way(ENOSPC, " ENOSPC")};
    case Fault::kLseek:
    case Fault::kFstat:
      return {way(EIO, " EIO")};
    default:
      return {way(0, "")};
  }
}

constexpr KeymasterCall kKeymasterCalls[] = {
    KeymasterCall::kGetHardwareInfo, KeymasterCall::kGenerateKey, KeymasterCall::kUpgradeKey,
    KeymasterCall::kDeleteKey,       KeymasterCall::kBegin,       KeymasterCall::kUpdate,
    KeymasterCall::kFinish,
};
const char* KeymasterCallName(KeymasterCall call) {
  switch (call) {
    case KeymasterCall::kGetHardwareInfo:
      return "Keymaster getHardwareInfo";
    case KeymasterCall::kGenerateKey:
      return "Keymaster generateKey";
    case KeymasterCall::kUpgradeKey:
      return "Keymaster upgradeKey";
    case KeymasterCall::kDeleteKey:
      return "Keymaster deleteKey";
    case KeymasterCall::kBegin:
      return "Keymaster begin";
    case KeymasterCall::kUpdate:
      return "Keymaster update";
    case KeymasterCall::kFinish:
      return "Keymaster finish";
    default:
      return "Keymaster ?";
  }
}
constexpr LegacyKeymasterCall kLegacyCalls[] = {
    LegacyKeymasterCall::kOpen, LegacyKeymasterCall::kBegin, LegacyKeymasterCall::kUpdate,
    LegacyKeymasterCall::kFinish};
const char* LegacyCallName(LegacyKeymasterCall call) {
  switch (call) {
    case LegacyKeymasterCall::kOpen:
      return "legacy open";
    case LegacyKeymasterCall::kBegin:
      return "legacy begin";
    case LegacyKeymasterCall::kUpdate:
      return "legacy update";
    case LegacyKeymasterCall::kFinish:
      return "legacy finish";
    default:
      return "legacy ?";
  }
}
const char* const kKmstoreCallNames[] = {"kmstore read", "kmstore write", "kmstore remove"};

// The object services keep their first buffer (the update's output, the object's length: a
// KEK, a derived key or a test object of at most 64 bytes) when finish fails or the second
// buffer cannot be had; whatever reaches them may show it.
bool ObjectServiceKeeps(const Way& way, size_t size) {
  const bool finish_failed =
      (way.source == Way::kKeymaster || way.source == Way::kKeymasterTransport) &&
      way.kind == static_cast<int>(KeymasterCall::kFinish);
  const bool malloc_failed =
      way.source == Way::kInjector && static_cast<Fault>(way.kind) == Fault::kMalloc;
  return (finish_failed || malloc_failed) && size <= 64;
}

// The child that is meant to die must not spend seconds writing a core file.
void NoCoreDump() {
  struct rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
}

// Every service reports a Keymaster session it could not open.
std::optional<std::string> SessionLine(const Way& way) {
  if (way.source == Way::kNoKeymaster) return "Failed to initiate keymaster session";
  return std::nullopt;
}

bool Is(const Way& way, Fault kind) {
  return way.source == Way::kInjector && static_cast<Fault>(way.kind) == kind;
}

// The metadata file's lines for a write (put and delete) and for a read.
std::optional<std::string> FileWriteLine(const Way& way, const std::string& path) {
  if (Is(way, Fault::kOpen)) return "Cannot open metadata file " + path + " for put\n";
  if (Is(way, Fault::kLseek)) return "Cannot seek to real block device meatadata\n";
  if (Is(way, Fault::kWrite) || Is(way, Fault::kFsync))
    return "Cannot write real block device metadata\n";
  if (Is(way, Fault::kFstat) || Is(way, Fault::kFtruncate))
    return "Cannot set metadata file size\n";
  return std::nullopt;
}
std::optional<std::string> FileReadLine(const Way& way, const std::string& path) {
  if (Is(way, Fault::kOpen)) return "Cannot open metadata file " + path + " for get\n";
  if (Is(way, Fault::kFstat)) return "metadata file " + path + " is not the expected size!\n";
  if (Is(way, Fault::kLseek)) return "Cannot seek to real block device metadata\n";
  if (Is(way, Fault::kRead)) return "Cannot read real block device metadata\n";
  return std::nullopt;
}
bool IsKmstore(const Way& way, int kind) { return way.source == Way::kKmstore && way.kind == kind; }

// ---- Stored state -------------------------------------------------------------------------------

// Every file of the device directory but the Keymaster's own (its timers and deleted keys are
// the emulated hardware's, not the library's), by path relative to the directory.
using Files = std::map<std::string, Bytes>;

void ListFiles(const std::string& root, const std::string& relative, Files* files) {
  const std::string dir = relative.empty() ? root : root + "/" + relative;
  DIR* d = opendir(dir.c_str());
  if (!d) return;
  while (struct dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    const std::string rel = relative.empty() ? name : relative + "/" + name;
    const std::string path = root + "/" + rel;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      ListFiles(root, rel, files);
    } else if (S_ISREG(st.st_mode)) {
      (*files)[rel] = ReadFile(path);
    }
  }
  closedir(d);
}

Files Snapshot(const std::string& root) {
  Files files;
  ListFiles(root, "", &files);
  return files;
}

void Restore(const std::string& root, const Files& files) {
  for (const auto& [rel, bytes] : Snapshot(root)) {
    auto want = files.find(rel);
    if (want == files.end()) {
      unlink((root + "/" + rel).c_str());
    } else if (want->second != bytes) {
      WriteFile(root + "/" + rel, want->second);
    }
  }
  for (const auto& [rel, bytes] : files) {
    const std::string path = root + "/" + rel;
    if (access(path.c_str(), F_OK) == 0) continue;
    const size_t slash = rel.rfind('/');
    if (slash != std::string::npos) mkdir((root + "/" + rel.substr(0, slash)).c_str(), 0700);
    WriteFile(path, bytes);
  }
}

bool IsHardwareFile(const std::string& rel) {
  return rel.rfind("keymaster/", 0) == 0 || rel == "log.txt";
}

// ---- A scenario ---------------------------------------------------------------------------------

struct Scenario {
  std::string function;  // the exported function the tally counts it under
  std::string name;
  // Unarmed, once, in a fresh device directory: properties and the stored state to start from.
  std::function<void()> prepare;
  // Unarmed, before every run: the caller's buffers.
  std::function<void()> before;
  // Armed: the call. Its result, or 0/1 for a bool.
  std::function<int()> call;
  // True when `rc` is the call's failure value.
  std::function<bool(int rc)> failed = [](int rc) { return rc < 0; };
  // Unarmed, after a success: the result is real.
  std::function<void(int rc, Problems&)> verify_success = [](int, Problems&) {};
  // Unarmed, after a failure: nothing secret handed back.
  std::function<void(Problems&)> verify_failure = [](Problems&) {};
  // A stored file that changed: "" when `after` is a complete new image, else what is wrong.
  // Null: no stored file may change.
  std::function<std::string(const std::string& rel, const std::optional<Bytes>& after)> new_image;
  // Memory the call may also leave allocated on this failure (documented), by the failing way.
  std::function<bool(const Way& way, size_t size)> may_keep_block = [](const Way&, size_t) {
    return false;
  };
  // Releases what a successful call handed to the caller (after verify_success).
  std::function<void()> release = [] {};
  // The call is refused even without a fault (it must then stay refused under every fault).
  bool clean_run_fails = false;
  // A failure is logged: at least one error line (false for crypto_scrypt, which by design
  // reports through errno only).
  bool logs_failure = true;
  // The line the document names for a failure of this way, if it names one.
  std::function<std::optional<std::string>(const Way& way)> failure_line = SessionLine;
};

class FaultSweepTest : public DeviceTest {
 protected:
  void SetUp() override {
    // The scrypt back end is picked (and its self-test allocates) on first use, once.
    uint8_t out[16];
    ASSERT_EQ(crypto_scrypt(reinterpret_cast<const uint8_t*>("x"), 1,
                            reinterpret_cast<const uint8_t*>("y"), 1, 16, 1, 1, out, sizeof(out)),
              0);
    clock_.emplace();
  }

  void TearDown() override { ClearWatchedSecrets(); }

  void SetProps(bool mdfpp, bool cbc_only, bool rek_kek) {
    property_set("ro.product.tavi.support_mdfpp", mdfpp ? "true" : "");
    property_set("ro.product.tavi.support_cbc_only", cbc_only ? "true" : "");
    property_set("ro.product.tavi.support_rek_kek", rek_kek ? "true" : "");
    // Small scrypt costs: the sweep runs each derivation hundreds of times.
    property_set("ro.crypto.scrypt_params", "4:0:0");
    property_set("ro.build.version.security_patch", "2026-11-05");
  }

  // Back to fresh emulated hardware between runs; the clock stays virtual.
  void ResetHardware() {
    clock_.reset();
    tavikm_host::ResetKeymaster();
    clock_.emplace();
    clock_->Advance(100);
  }

  void InstallKmstoreCounters(int fail_kind, int nth) {
    for (int& c : kmstore_counts_) c = 0;
    auto fails = [this, fail_kind, nth](int kind) {
      if (++kmstore_counts_[kind] != nth || kind != fail_kind) return false;
      kmstore_fired_ = true;
      errno = EIO;
      return true;
    };
    script_->read = [fails](const char* name, uint8_t* buffer, uint64_t* size) {
      return fails(0) ? -1 : BuiltinKmstoreRead(name, buffer, size);
    };
    script_->write = [fails](const char* name, const uint8_t* buffer, uint64_t length) {
      return fails(1) ? -1 : BuiltinKmstoreWrite(name, buffer, length);
    };
    script_->remove = [fails](const char* name) {
      return fails(2) ? -1 : BuiltinKmstoreRemove(name);
    };
  }

  // Runs the call armed as `way` says (nullptr: the clean run) and checks everything.
  // Returns the problems found; `fired` says whether the failure point was reached.
  Problems RunOnce(const Scenario& s, const Way* way, int nth, const Files& start, bool* fired,
                   FaultScope** scope_out = nullptr) {
    Restore(device_.path(), start);
    ResetHardware();
    kmstore_fired_ = false;
    sessions_seen_ = 0;
    log_.Clear();
    InstallKmstoreCounters(way && way->source == Way::kKmstore ? way->kind : -1, nth);
    if (way && way->source == Way::kKeymaster) {
      tavikm_host::FailKeymasterCall(static_cast<KeymasterCall>(way->kind), nth,
                                     static_cast<km::ErrorCode>(way->error));
    } else if (way && way->source == Way::kKeymasterTransport) {
      tavikm_host::FailKeymasterTransport(static_cast<KeymasterCall>(way->kind), nth, "injected");
    } else if (way && way->source == Way::kNoKeymaster) {
      // Session `nth` finds no device; every other finds the usual one.
      tavikm_host::SetKeymasterDeviceFactory([this, nth] {
        km::support::Keymaster::KeymasterSet devices;
        if (++sessions_seen_ != nth)
          devices.push_back(tavikm_host::MakeSoftKeymaster(1, "default"));
        return devices;
      });
    } else if (way && way->source == Way::kLegacy) {
      tavikm_host::FailLegacyKeymasterCall(static_cast<LegacyKeymasterCall>(way->kind), nth,
                                           way->error);
    }
    s.before();
    Problems problems;
    int rc = 0;
    const bool injector = way && way->source == Way::kInjector;
    std::unique_ptr<FaultScope> scope(
        new FaultScope(injector ? static_cast<Fault>(way->kind) : Fault::kCount, injector ? nth : 0,
                       injector ? way->error : 0));
    bool threw = false;
    try {
      rc = s.call();
    } catch (const std::exception& e) {
      threw = true;
      scope->Disarm();
      problems.push_back(std::string("threw ") + e.what());
    }
    scope->Disarm();
    if (scope_out) *scope_out = scope.get();
    for (int k = 0; k < static_cast<int>(Fault::kCount); ++k)
      counts_[k] = scope->count(static_cast<Fault>(k));
    *fired =
        !way || (injector && scope->fired()) || (way->source == Way::kKmstore && kmstore_fired_) ||
        ((way->source == Way::kKeymaster || way->source == Way::kKeymasterTransport) &&
         tavikm_host::KeymasterCallCount(static_cast<KeymasterCall>(way->kind)) >= nth) ||
        (way->source == Way::kNoKeymaster && sessions_seen_ >= nth) ||
        (way->source == Way::kLegacy &&
         tavikm_host::LegacyKeymasterCallCount(static_cast<LegacyKeymasterCall>(way->kind)) >= nth);
    if (!way) {
      for (KeymasterCall call : kKeymasterCalls)
        km_counts_[static_cast<int>(call)] = tavikm_host::KeymasterCallCount(call);
      for (LegacyKeymasterCall call : kLegacyCalls)
        legacy_counts_[static_cast<int>(call)] = tavikm_host::LegacyKeymasterCallCount(call);
      for (int k = 0; k < 3; ++k) kmstore_total_[k] = kmstore_counts_[k];
      // Every Keymaster session the call opened says which device it uses.
      sessions_ = 0;
      for (const LogLine& line : log_.Lines())
        sessions_ += line.source == LogLine::Source::kLibbase && line.text.rfind("Using ", 0) == 0;
    }
    script_->read = nullptr;
    script_->write = nullptr;
    script_->remove = nullptr;

    if (!threw) {
      if (s.failed(rc)) {
        if (!way && !s.clean_run_fails)
          problems.push_back("the clean run failed with " + std::to_string(rc));
        s.verify_failure(problems);
        if (way) CheckFailureLog(s, *way, &problems);
      } else if (s.clean_run_fails) {
        problems.push_back("succeeded with " + std::to_string(rc));
        s.release();
      } else {
        s.verify_success(rc, problems);
        s.release();
      }
    }
    for (const std::string& unwiped : scope->UnwipedFrees()) problems.push_back(unwiped);
    for (const LiveBlock& block : scope->Live()) {
      if (way && (ObjectServiceKeeps(*way, block.size) || s.may_keep_block(*way, block.size))) {
        // Deliberately left allocated: it must at least hold no secret any more.
        for (const auto& [what, secret] : secrets_) {
          if (HoldsPartOf(block.ptr, block.size, secret.data(), secret.size()))
            problems.push_back("the block kept on purpose (" + std::to_string(block.size) +
                               " bytes) still holds " + what);
        }
        scope->Forget(block.ptr);
        free(block.ptr);
        continue;
      }
      problems.push_back("leaked a block of " + std::to_string(block.size) + " bytes");
    }
    // What is stored: the old image or a complete new one.
    const Files after = Snapshot(device_.path());
    std::set<std::string> paths;
    for (const auto& [rel, bytes] : start) paths.insert(rel);
    for (const auto& [rel, bytes] : after) paths.insert(rel);
    for (const std::string& rel : paths) {
      if (IsHardwareFile(rel)) continue;
      auto b = start.find(rel);
      auto a = after.find(rel);
      if (b != start.end() && a != after.end() && b->second == a->second) continue;
      std::optional<Bytes> now;
      if (a != after.end()) now = a->second;
      const std::string wrong =
          s.new_image ? s.new_image(rel, now) : std::string("changed although nothing may");
      if (!wrong.empty()) problems.push_back(rel + ": " + wrong);
    }
    return problems;
  }

  void CheckFailureLog(const Scenario& s, const Way& way, Problems* problems) {
    const std::vector<LogLine> lines = log_.Lines();
    if (s.logs_failure &&
        std::none_of(lines.begin(), lines.end(), [](const LogLine& l) { return l.priority >= 6; }))
      problems->push_back("failed without an error line");
    const std::optional<std::string> expected = s.failure_line(way);
    if (expected && std::none_of(lines.begin(), lines.end(), [&](const LogLine& l) {
          return l.priority >= 6 && l.text == *expected;
        }))
      problems->push_back("failed without the line \"" + *expected + "\"");
  }

  // A failing random generator must end the process after the generator's log line: run the
  // call in a child and look at how it ended and what it logged.
  Problems RunRandomFailure(const Scenario& s, int nth, const Files& start) {
    Restore(device_.path(), start);
    ResetHardware();
    s.before();
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0) return {"no pipe"};
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid == 0) {
      NoCoreDump();
      close(pipe_fds[0]);
      dup2(pipe_fds[1], 2);
      __android_log_set_logger(
          [](const __android_logger_data*, const char* message) { dprintf(2, "%s\n", message); });
      int rc;
      {
        FaultScope scope(Fault::kRandBytes, nth, 0);
        rc = s.call();
      }
      dprintf(2, "returned %d\n", rc);
      _exit(0);
    }
    close(pipe_fds[1]);
    std::string output;
    char buffer[512];
    for (ssize_t n; (n = read(pipe_fds[0], buffer, sizeof(buffer))) > 0;) output.append(buffer, n);
    close(pipe_fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    Problems problems;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
      const size_t at = output.find("returned ");
      problems.push_back("carried on after the random generator failed (" +
                         (at == std::string::npos ? std::string("?") : output.substr(at)) + ")");
    } else if (output.find("Getting random bytes error = ") == std::string::npos) {
      problems.push_back("ended without \"Getting random bytes error = %ld\"");
    }
    // Whatever the child stored before it ended: the old image or a complete new one.
    const Files after = Snapshot(device_.path());
    for (const auto& [rel, bytes] : after) {
      if (IsHardwareFile(rel)) continue;
      auto b = start.find(rel);
      if (b != start.end() && b->second == bytes) continue;
      const std::string wrong = s.new_image ? s.new_image(rel, bytes) : "changed";
      if (!wrong.empty()) problems.push_back(rel + ": " + wrong);
    }
    return problems;
  }

  void Sweep(const Scenario& s) {
    SCOPED_TRACE(s.function + " / " + s.name);
    // A fresh device directory per scenario.
    Restore(device_.path(), {});
    ResetHardware();
    s.prepare();
    const Files start = Snapshot(device_.path());

    bool fired = false;
    Problems clean = RunOnce(s, nullptr, 0, start, &fired);
    TakeKnownDefects(s.function + "/" + s.name + "|clean run", &clean);
    ASSERT_TRUE(clean.empty()) << "clean run: " << ::testing::PrintToString(clean);
    const std::vector<int> counts(counts_, counts_ + static_cast<int>(Fault::kCount));
    const std::map<int, int> km_counts = km_counts_;
    const std::map<int, int> legacy_counts = legacy_counts_;
    const std::vector<int> kmstore_counts(kmstore_total_, kmstore_total_ + 3);

    std::vector<std::pair<Way, int>> ways;
    for (int k = 0; k < static_cast<int>(Fault::kCount); ++k)
      for (const Way& way : InjectorWays(static_cast<Fault>(k))) ways.push_back({way, counts[k]});
    for (KeymasterCall call : kKeymasterCalls) {
      const int count = km_counts.at(static_cast<int>(call));
      if (call != KeymasterCall::kGetHardwareInfo)
        ways.push_back({Way{Way::kKeymaster, static_cast<int>(call),
                            static_cast<int>(km::ErrorCode::UNKNOWN_ERROR),
                            std::string(KeymasterCallName(call)) + " UNKNOWN_ERROR"},
                        count});
      ways.push_back({Way{Way::kKeymasterTransport, static_cast<int>(call), 0,
                          std::string(KeymasterCallName(call)) + " transport"},
                      count});
    }
    for (LegacyKeymasterCall call : kLegacyCalls) {
      ways.push_back({Way{Way::kLegacy, static_cast<int>(call),
                          call == LegacyKeymasterCall::kOpen ? -EIO : KM_ERROR_UNKNOWN_ERROR,
                          LegacyCallName(call)},
                      legacy_counts.at(static_cast<int>(call))});
    }
    for (int k = 0; k < 3; ++k)
      ways.push_back({Way{Way::kKmstore, k, EIO, kKmstoreCallNames[k]}, kmstore_counts[k]});
    ways.push_back({Way{Way::kNoKeymaster, 0, 0, "no Keymaster device"}, sessions_});

    Tally& tally = Tallies()[s.function];
    for (const auto& [way, count] : ways) {
      for (int nth : PointsOf(count)) {
        const std::string point =
            s.function + "/" + s.name + "|" + way.name + " #" + std::to_string(nth);
        Problems problems;
        if (way.source == Way::kInjector && static_cast<Fault>(way.kind) == Fault::kRandBytes) {
          problems = RunRandomFailure(s, nth, start);
        } else {
          problems = RunOnce(s, &way, nth, start, &fired);
          if (!fired) problems.push_back("the failure point was not reached");
        }
        ++tally.swept;
        const bool known = TakeKnownDefects(point, &problems);
        if (!problems.empty()) {
          ADD_FAILURE() << point << ": " << ::testing::PrintToString(problems);
        } else if (known) {
          ++tally.known;
        } else {
          ++tally.held;
        }
      }
    }
  }

  // A secret to look for in freed memory and in what a failed call hands back.
  void Secret(const std::string& what, const Bytes& bytes) {
    secrets_[what] = bytes;
    WatchSecret(what, bytes.data(), bytes.size());
  }

  std::string MetaPath() { return device_.Path("meta.img"); }
  std::string EntryRel(const std::string& name) {
    return "kmstore/" + tavikm_host::KmstoreEntryFileName(name);
  }

  ScopedKmstoreScript script_;
  std::optional<VirtualKeymasterTime> clock_;
  int counts_[static_cast<int>(Fault::kCount)] = {};
  std::map<int, int> km_counts_;
  std::map<int, int> legacy_counts_;
  int kmstore_counts_[3] = {};
  int kmstore_total_[3] = {};
  bool kmstore_fired_ = false;
  int sessions_ = 0;
  int sessions_seen_ = 0;
  std::map<std::string, Bytes> secrets_;
};

// ---- Fixtures of data ---------------------------------------------------------------------------

const char kPassword[] = "correct horse battery staple";
const char kOldPassword[] = "an old password of the record";
const size_t kPasswordLen = sizeof(kPassword) - 1;

Bytes PasswordBytes() { return Bytes(kPassword, kPassword + kPasswordLen); }

Bytes Pattern(uint8_t first, size_t n) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(first + 7 * i);
  return b;
}

// The record at `offset` of a metadata file image.
std::optional<km_meta> RecordIn(const std::optional<Bytes>& file, size_t offset) {
  if (!file || file->size() < offset + sizeof(km_meta)) return std::nullopt;
  km_meta meta;
  memcpy(&meta, file->data() + offset, sizeof(meta));
  return meta;
}

// The MAC the password MAC operation gives when its KDF failed silently: an HMAC under the
// all-zero key, which the operation is documented to produce (it has no zero-key check). It
// never verifies against a MAC made with a working KDF.
Bytes ZeroKeyMac(const km_meta& meta, const uint8_t* wrapped) {
  FaultPause pause;
  static const uint8_t kZero[64] = {};
  uint8_t mac[EVP_MAX_MD_SIZE];
  unsigned int mac_len = 0;
  HMAC(EVP_sha256(), kZero, meta.keysize, wrapped, meta.keysize, mac, &mac_len);
  return Bytes(mac, mac + mac_len);
}

// True when `meta` unwraps to `master` with `password`, as the storage service would do it.
bool Unlocks(km_meta meta, const char* password, const Bytes& master) {
  FaultPause pause;
  uint8_t out[64] = {};
  if (km_flag_is_set(supportCBConly)) {
    uint8_t mac[32];
    if (km_get_key_mac_by_password(meta.master_key, meta.salt, password, strlen(password), mac,
                                   &meta) != 0 ||
        km_verify_key_mac(meta.key_mac, mac) != 0)
      return false;
  }
  if (km_decrypt_key(password, strlen(password), meta.salt, meta.master_key, out, &meta) != 0)
    return false;
  return master.size() == meta.keysize && memcmp(out, master.data(), master.size()) == 0;
}

// ---- Record setup and store ---------------------------------------------------------------------

struct SetupCase {
  const char* name;
  uint32_t kdf;
  bool mdfpp, cbc_only, rek_kek;
};

TEST_F(FaultSweepTest, InitialSetup) {
  const SetupCase cases[] = {
      {"kdf 1 file GCM", 1, false, false, false},
      {"kdf 2 file GCM", 2, false, false, false},
      {"kdf 5 file GCM", 5, false, false, false},
      {"kdf 1 file CBC-only", 1, false, true, false},
      {"kdf 5 file CBC-only", 5, false, true, false},
      {"kdf 4 secure storage", 4, true, false, false},
      {"kdf 4 secure storage REK/KEK", 4, true, false, true},
      {"kdf 4 secure storage CBC-only REK/KEK", 4, true, true, true},
      {"default kdf secure storage", KM_KDF_DEFAULT, true, false, false},
  };
  for (const SetupCase& c : cases) {
    Bytes master(32);
    km_meta meta;
    km_meta old_meta;
    Bytes old_master;
    std::string key_loc;
    Scenario s;
    s.function = "km_initial_setup";
    s.name = c.name;
    s.prepare = [&] {
      SetProps(c.mdfpp, c.cbc_only, c.rek_kek);
      key_loc = c.mdfpp ? "userdata" : MetaPath();
      // An earlier record in the place: a failed setup must leave it or replace it whole.
      old_master.assign(32, 0);
      ASSERT_EQ(km_initial_setup(key_loc.c_str(), kOldPassword, strlen(kOldPassword),
                                 old_master.data(), 32, c.kdf, &old_meta),
                0);
      Secret("the password", PasswordBytes());
    };
    s.before = [&] { memset(&meta, 0, sizeof(meta)); };
    s.call = [&] {
      return km_initial_setup(key_loc.c_str(), kPassword, kPasswordLen, master.data(), 32, c.kdf,
                              &meta);
    };
    // CBC-only with kdf 1 or 2: a PBKDF2 or scrypt that failed silently in the password MAC
    // gives the zero-key MAC, as documented; such a record cannot be unlocked.
    auto as_documented = [&](const km_meta& record) {
      return Unlocks(record, kPassword, master) ||
             (c.cbc_only && (c.kdf == 1 || c.kdf == 2) &&
              ZeroKeyMac(record, record.master_key) == Bytes(record.key_mac, record.key_mac + 32));
    };
    s.verify_success = [&](int, Problems& p) {
      if (!as_documented(meta)) p.push_back("the new record does not unlock");
    };
    s.new_image = [&](const std::string&, const std::optional<Bytes>& after) -> std::string {
      // In a file and in secure storage alike, the record is at 0.
      std::optional<km_meta> stored = RecordIn(after, 0);
      if (!stored) return "neither the old record nor a whole new one";
      if (memcmp(&*stored, &meta, sizeof(meta)) != 0 || !as_documented(*stored))
        return "neither the old record nor the new one";
      return "";
    };
    Sweep(s);
  }
}

TEST_F(FaultSweepTest, InitKmMeta) {
  const SetupCase cases[] = {
      {"kdf 5", 5, false, false, false},
      {"kdf 2", 2, false, false, false},
      {"kdf 4 REK/KEK", 4, true, false, true},
      {"kdf 4", 4, true, false, false},
      {"default kdf", KM_KDF_DEFAULT, false, false, false},
  };
  for (const SetupCase& c : cases) {
    km_meta meta;
    Scenario s;
    s.function = "km_init_km_meta";
    s.name = c.name;
    s.prepare = [&] { SetProps(c.mdfpp, c.cbc_only, c.rek_kek); };
    s.before = [&] { memset(&meta, 0, sizeof(meta)); };
    s.call = [&] { return km_init_km_meta(&meta, "userdata", 32, c.kdf); };
    Sweep(s);
  }
}

struct StoreCase {
  const char* name;
  bool secure_storage;
};

TEST_F(FaultSweepTest, PutGetDeleteRecord) {
  for (const StoreCase& c :
       {StoreCase{"metadata file", false}, StoreCase{"secure storage", true}}) {
    km_meta old_meta, new_meta, read;
    Bytes master = Pattern(0x31, 32);
    std::string key_loc;
    auto prepare = [&] {
      SetProps(c.secure_storage, false, false);
      key_loc = c.secure_storage ? "userdata" : MetaPath();
      Bytes old_master(32);
      ASSERT_EQ(km_initial_setup(key_loc.c_str(), kOldPassword, strlen(kOldPassword),
                                 old_master.data(), 32, KM_KDF_PBKDF2, &old_meta),
                0);
      ASSERT_EQ(km_init_km_meta(&new_meta, key_loc.c_str(), 32, KM_KDF_PBKDF2), 0);
      memset(new_meta.salt, 0x5A, sizeof(new_meta.salt));
      ASSERT_EQ(km_encrypt_key(kPassword, kPasswordLen, new_meta.salt, new_meta.master_key,
                               master.data(), &new_meta),
                0);
    };
    auto record_of = [&](const std::optional<Bytes>& after) {
      return c.secure_storage ? RecordIn(after, 0) : RecordIn(after, 0);
    };

    Scenario put;
    put.function = "km_put_km_meta";
    put.name = c.name;
    put.prepare = prepare;
    put.before = [] {};
    put.call = [&] { return km_put_km_meta(key_loc.c_str(), 0, &new_meta); };
    put.verify_success = [&](int, Problems& p) {
      FaultPause pause;
      if (km_get_km_meta(key_loc.c_str(), 0, &read) != 0 ||
          memcmp(&read, &new_meta, sizeof(read)) != 0)
        p.push_back("the stored record is not the one put");
    };
    put.new_image = [&](const std::string&, const std::optional<Bytes>& after) -> std::string {
      std::optional<km_meta> stored = record_of(after);
      if (stored && memcmp(&*stored, &new_meta, sizeof(new_meta)) == 0 &&
          (c.secure_storage || after->size() == KM_METADATA_FILE_SIZE))
        return "";
      return "neither the old record nor the new one";
    };
    put.failure_line = [&](const Way& way) -> std::optional<std::string> {
      if (IsKmstore(way, 1)) return "Filed to store metadata to TZ Secure Storage\n";
      return c.secure_storage ? std::nullopt : FileWriteLine(way, key_loc);
    };
    Sweep(put);

    Scenario get;
    get.function = "km_get_km_meta";
    get.name = std::string(c.name) + " current";
    get.failure_line = [&](const Way& way) -> std::optional<std::string> {
      if (IsKmstore(way, 0)) return "Failed to read metadata from Secure Storage\n";
      return c.secure_storage ? std::nullopt : FileReadLine(way, key_loc);
    };
    get.prepare = prepare;
    get.before = [&] { memset(&read, 0, sizeof(read)); };
    get.call = [&] { return km_get_km_meta(key_loc.c_str(), 0, &read); };
    get.verify_success = [&](int rc, Problems& p) {
      if (rc != 0 || memcmp(&read, &old_meta, sizeof(read)) != 0)
        p.push_back("read something else than the stored record");
    };
    Sweep(get);

    Scenario del;
    del.function = "km_delete_meta";
    del.name = c.name;
    del.prepare = prepare;
    del.before = [] {};
    del.call = [&] { return km_delete_meta(key_loc.c_str(), 0); };
    del.new_image = [&](const std::string&, const std::optional<Bytes>& after) -> std::string {
      if (c.secure_storage) return after ? "the entry is still there, changed" : "";
      static const km_meta kZero = {};
      std::optional<km_meta> stored = record_of(after);
      return stored && memcmp(&*stored, &kZero, sizeof(kZero)) == 0 ? "" : "not wiped whole";
    };
    del.failure_line = [&](const Way& way) -> std::optional<std::string> {
      if (IsKmstore(way, 2)) return "Failed to Remove Key file : userdata";
      return c.secure_storage ? std::nullopt : FileWriteLine(way, key_loc);
    };
    Sweep(del);
  }
}

// ---- Older generations --------------------------------------------------------------------------

struct GenerationCase {
  const char* name;
  size_t length;
  uint16_t major;
  bool cbc_only;
  bool key_requires_upgrade;
};

TEST_F(FaultSweepTest, UpgradeOfOlderGenerations) {
  const GenerationCase cases[] = {
      {"2704 major 2", 2704, 2, false, false},
      {"2704 major 2 CBC-only", 2704, 2, true, false},
      {"2704 major 2 key upgrade", 2704, 2, false, true},
      {"2520 major 2", 2520, 2, false, false},
      {"2584 major 2", 2584, 2, false, false},
      {"2592 major 3", 2592, 3, false, false},
      {"2592 major 3 CBC-only", 2592, 3, true, false},
      {"2592 major 2", 2592, 2, false, false},
      {"2632 major 2", 2632, 2, false, false},
      {"2640 major 2", 2640, 2, false, false},
  };
  const Bytes kek = Pattern(0xC0, 32);
  for (const GenerationCase& c : cases) {
    km_meta old_meta = {}, read;
    Scenario s;
    s.function = "km_get_km_meta";
    s.name = std::string("upgrade ") + c.name;
    s.prepare = [&] {
      SetProps(true, c.cbc_only, false);
      old_meta.magic = KM_META_MAGIC;
      old_meta.major_version = c.major;
      old_meta.keysize = 32;
      old_meta.kdf_type = KM_KDF_SCRYPT;
      strcpy(old_meta.key_name, "userdata");
      if (c.key_requires_upgrade || c.cbc_only) {
        ASSERT_EQ(km_ensure_aes_key(&old_meta), 0);
      }
      if (c.key_requires_upgrade)
        property_set("ro.build.version.security_patch", "2027-01-05");  // a system update
      old_meta.xtkm_value_size = c.length >= 2592 ? 32 : 0;
      ASSERT_EQ(
          BuiltinKmstoreWrite("userdata", reinterpret_cast<const uint8_t*>(&old_meta), c.length),
          0);
      if (c.major <= 2) {
        ASSERT_EQ(BuiltinKmstoreWrite("userdata_kek", kek.data(), kek.size()), 0);
      }
      Secret("the KEK", kek);
    };
    s.before = [&] { memset(&read, 0, sizeof(read)); };
    s.call = [&] { return km_get_km_meta("userdata", 0, &read); };
    s.verify_success = [&](int rc, Problems& p) {
      if (rc != 0 || read.major_version != 3) p.push_back("not upgraded");
    };
    // The KEK survives: either still in its own entry, or in an upgraded record.
    s.new_image = [&, this](const std::string& rel,
                            const std::optional<Bytes>& after) -> std::string {
      if (rel == EntryRel("userdata_kek")) {
        FaultPause pause;
        uint8_t record[KM_META_SIZE + 1];
        uint64_t length = sizeof(record);
        if (BuiltinKmstoreRead("userdata", record, &length) != 0 || length != KM_META_SIZE)
          return "the KEK entry is gone and the record is not current";
        km_meta stored;
        memcpy(&stored, record, sizeof(stored));
        return stored.major_version == 3 && stored.xtkm_value_size == 32
                   ? ""
                   : "the KEK entry is gone and the record does not hold the KEK";
      }
      if (rel == EntryRel("userdata")) {
        std::optional<km_meta> stored = RecordIn(after, 0);
        if (!stored || after->size() != KM_META_SIZE) return "not a whole record";
        if (stored->major_version == 3) return "";
        // Stored with its upgraded Keymaster key before the KEK moved: the KEK must still be in
        // its own entry for the next read to finish the upgrade.
        FaultPause pause;
        uint8_t k[64];
        uint64_t length = sizeof(k);
        return BuiltinKmstoreRead("userdata_kek", k, &length) == 0
                   ? ""
                   : "rewritten as an older generation without its KEK entry";
      }
      return "an unexpected place changed";
    };
    Sweep(s);
  }
}

// ---- Master-key wrapping ------------------------------------------------------------------------

struct WrapCase {
  const char* name;
  uint8_t kdf;
  bool mdfpp, cbc_only, rek_kek;
};

TEST_F(FaultSweepTest, WrapAndUnwrap) {
  const WrapCase cases[] = {
      {"kdf 1 GCM", 1, false, false, false},     {"kdf 2 GCM", 2, false, false, false},
      {"kdf 5 GCM", 5, false, false, false},     {"kdf 4 GCM", 4, true, false, false},
      {"kdf 4 REK/KEK", 4, true, false, true},   {"kdf 4 CBC-only", 4, true, true, false},
      {"kdf 1 CBC-only", 1, false, true, false}, {"kdf 5 CBC-only", 5, false, true, false},
  };
  for (const WrapCase& c : cases) {
    km_meta meta, work;
    Bytes master = Pattern(0x41, 32);
    uint8_t wrapped[64], out[64], mac[32];
    auto prepare = [&] {
      SetProps(c.mdfpp, c.cbc_only, c.rek_kek);
      ASSERT_EQ(km_init_km_meta(&meta, c.mdfpp ? "userdata" : MetaPath().c_str(), 32, c.kdf), 0);
      memset(meta.salt, 0x33, sizeof(meta.salt));
      ASSERT_EQ(
          km_encrypt_key(kPassword, kPasswordLen, meta.salt, meta.master_key, master.data(), &meta),
          0);
      if (c.cbc_only) {
        ASSERT_EQ(km_get_key_mac_by_password(meta.master_key, meta.salt, kPassword, kPasswordLen,
                                             meta.key_mac, &meta),
                  0);
      }
      if (c.mdfpp) {
        ASSERT_EQ(km_put_km_meta("userdata", 0, &meta), 0);
      }
      Secret("the password", PasswordBytes());
      Secret("the master key", master);
    };
    // kdf 4 without the flags may store an upgraded record; only the record itself may change.
    auto new_image = [&](const std::string& rel, const std::optional<Bytes>& after) -> std::string {
      if (rel != EntryRel("userdata")) return "an unexpected place changed";
      std::optional<km_meta> stored = RecordIn(after, 0);
      return stored && Unlocks(*stored, kPassword, master) ? "" : "not a record that unlocks";
    };

    Scenario enc;
    enc.function = "km_encrypt_key";
    enc.name = c.name;
    enc.prepare = prepare;
    enc.before = [&] { work = meta; };
    enc.call = [&] {
      return km_encrypt_key(kPassword, kPasswordLen, work.salt, wrapped, master.data(), &work);
    };
    enc.verify_success = [&](int, Problems& p) {
      km_meta check = work;
      memcpy(check.master_key, wrapped, 32);
      if (c.cbc_only) memcpy(check.key_mac, meta.key_mac, sizeof(check.key_mac));
      if (!Unlocks(check, kPassword, master)) p.push_back("the wrapped key does not unwrap");
    };
    enc.new_image = new_image;
    Sweep(enc);

    Scenario dec;
    dec.function = "km_decrypt_key";
    dec.name = c.name;
    dec.prepare = prepare;
    dec.before = [&] {
      work = meta;
      memset(out, 0xEE, sizeof(out));
    };
    dec.call = [&] {
      return km_decrypt_key(kPassword, kPasswordLen, work.salt, work.master_key, out, &work);
    };
    dec.failed = [](int rc) { return rc != 0; };
    dec.verify_success = [&](int, Problems& p) {
      if (memcmp(out, master.data(), 32) != 0) p.push_back("unwrapped a wrong key");
    };
    dec.verify_failure = [&](Problems& p) {
      if (HoldsPartOf(out, sizeof(out), master.data(), master.size()))
        p.push_back("a failed unwrap handed back the master key");
    };
    dec.new_image = new_image;
    Sweep(dec);

    Scenario mac_scenario;
    mac_scenario.function = "km_get_key_mac_by_password";
    mac_scenario.name = c.name;
    mac_scenario.prepare = prepare;
    mac_scenario.before = [&] { work = meta; };
    mac_scenario.call = [&] {
      return km_get_key_mac_by_password(work.master_key, work.salt, kPassword, kPasswordLen, mac,
                                        &work);
    };
    mac_scenario.verify_success = [&](int, Problems& p) {
      // A PBKDF2 or scrypt entry that failed silently (kdf 1 and 2 never report it).
      if ((c.kdf == 1 || c.kdf == 2) && ZeroKeyMac(work, work.master_key) == Bytes(mac, mac + 32))
        return;
      uint8_t again[32];
      FaultPause pause;
      km_meta check = meta;
      if (km_get_key_mac_by_password(check.master_key, check.salt, kPassword, kPasswordLen, again,
                                     &check) != 0 ||
          memcmp(again, mac, 32) != 0)
        p.push_back("a wrong MAC");
    };
    mac_scenario.new_image = new_image;
    Sweep(mac_scenario);
  }
}

TEST_F(FaultSweepTest, KdfTypeThreeIsRefusedAfterItsFirstScrypt) {
  km_meta meta;
  uint8_t out[64];
  Scenario s;
  s.function = "km_decrypt_key";
  s.name = "kdf 3";
  s.prepare = [&] {
    SetProps(false, false, false);
    ASSERT_EQ(km_init_km_meta(&meta, MetaPath().c_str(), 32, KM_KDF_SCRYPT), 0);
    meta.kdf_type = KM_KDF_SCRYPT_KEYMASTER_OLD;
  };
  s.before = [] {};
  s.call = [&] {
    return km_decrypt_key(kPassword, kPasswordLen, meta.salt, meta.master_key, out, &meta);
  };
  s.failed = [](int rc) { return rc != 0; };
  s.clean_run_fails = true;
  Sweep(s);
}

// ---- The REK/KEK store --------------------------------------------------------------------------

TEST_F(FaultSweepTest, KekStore) {
  struct Case {
    const char* name;
    bool cbc_only;
    bool key_requires_upgrade;
  } cases[] = {{"GCM", false, false}, {"CBC-only", true, false}, {"GCM key upgrade", false, true}};
  const Bytes old_kek = Pattern(0x10, 32);
  const Bytes new_kek = Pattern(0x90, 32);
  for (const Case& c : cases) {
    uint8_t out[64];
    uint64_t out_len;
    auto prepare = [&] {
      SetProps(true, c.cbc_only, false);
      ASSERT_EQ(km_put_kek_enc_by_rek("vold", old_kek.data(), old_kek.size()), 0);
      if (c.key_requires_upgrade)
        property_set("ro.build.version.security_patch", "2027-01-05");  // a system update
      Secret("the old KEK", old_kek);
      Secret("the new KEK", new_kek);
    };
    // The KEK entry that a get returns, read without faults.
    auto kek_in_entry = [&](Bytes* kek) {
      FaultPause pause;
      uint8_t k[64];
      uint64_t n = 0;
      for (int attempt = 0; attempt < 2; ++attempt) {
        if (km_get_kek_enc_by_rek("vold", k, &n) != 0) return false;
        if (n != 0) break;  // 0: upgraded on the way, ask again
      }
      kek->assign(k, k + n);
      return true;
    };

    Scenario put;
    put.function = "km_put_kek_enc_by_rek";
    put.name = c.name;
    put.prepare = prepare;
    put.before = [] {};
    put.call = [&] { return km_put_kek_enc_by_rek("vold", new_kek.data(), new_kek.size()); };
    put.verify_success = [&](int, Problems& p) {
      Bytes kek;
      if (!kek_in_entry(&kek) || kek != new_kek) p.push_back("the stored KEK is not the new one");
    };
    put.new_image = [&](const std::string& rel, const std::optional<Bytes>&) -> std::string {
      if (rel != EntryRel("vold")) return "an unexpected place changed";
      Bytes kek;
      return kek_in_entry(&kek) && kek == new_kek ? "" : "neither the old KEK nor the new one";
    };
    put.failure_line = [&](const Way& way) -> std::optional<std::string> {
      if (IsKmstore(way, 1) && !c.key_requires_upgrade)
        return "Filed to store a key encrypted by rek in Secure Storage: keyname=vold\n";
      return SessionLine(way);
    };
    Sweep(put);

    Scenario get;
    get.function = "km_get_kek_enc_by_rek";
    get.name = c.name;
    get.prepare = prepare;
    get.before = [&] {
      memset(out, 0xEE, sizeof(out));
      out_len = 99;
    };
    get.call = [&] { return km_get_kek_enc_by_rek("vold", out, &out_len); };
    get.verify_success = [&](int, Problems& p) {
      if (!(out_len == 32 && memcmp(out, old_kek.data(), 32) == 0) &&
          !(c.key_requires_upgrade && out_len == 0))
        p.push_back("handed back a wrong KEK");
    };
    get.verify_failure = [&](Problems& p) {
      if (HoldsPartOf(out, sizeof(out), old_kek.data(), old_kek.size()))
        p.push_back("a failed get handed back the KEK");
    };
    get.failure_line = [&](const Way& way) -> std::optional<std::string> {
      if (IsKmstore(way, 0))
        return "Failed to read a key encrypted by rek from Secure Storage: key_name = vold\n";
      return SessionLine(way);
    };
    // The upgrade stores the record with its upgraded key; the KEK stays the same.
    get.new_image = [&](const std::string& rel, const std::optional<Bytes>&) -> std::string {
      if (rel != EntryRel("vold")) return "an unexpected place changed";
      Bytes kek;
      return kek_in_entry(&kek) && kek == old_kek ? "" : "the KEK is lost";
    };
    // The get keeps its record when the upgraded record cannot be stored, and the object
    // decryption its first buffer when finish fails.
    get.may_keep_block = [&](const Way& way, size_t size) {
      const bool upgrade_failed =
          (way.source == Way::kKeymaster || way.source == Way::kKeymasterTransport ||
           way.source == Way::kNoKeymaster) &&
          (way.kind == static_cast<int>(KeymasterCall::kUpgradeKey) ||
           way.source == Way::kNoKeymaster);
      const bool store_failed = way.source == Way::kKmstore && way.kind == 1;
      return (upgrade_failed || store_failed || way.source == Way::kInjector) &&
             size == KM_META_SIZE + 1;
    };
    Sweep(get);

    Scenario del;
    del.function = "km_delete_kek_enc_by_rek";
    del.name = c.name;
    del.prepare = prepare;
    del.before = [] {};
    del.call = [&] { return km_delete_kek_enc_by_rek("vold"); };
    del.failure_line = [&](const Way& way) -> std::optional<std::string> {
      if (IsKmstore(way, 2)) return "Failed to Remove Key file : vold";
      return std::nullopt;
    };
    del.new_image = [&](const std::string&, const std::optional<Bytes>& after) -> std::string {
      return after ? "changed but not removed" : "";
    };
    Sweep(del);
  }
}

TEST_F(FaultSweepTest, Pbkdf2Rek) {
  struct Case {
    const char* name;
    bool cbc_only, rek_kek, key_requires_upgrade;
  } cases[] = {{"neither flag", false, false, false},
               {"REK/KEK", false, true, false},
               {"CBC-only", true, false, false},
               {"key upgrade", false, false, true}};
  for (const Case& c : cases) {
    km_meta meta, work;
    uint8_t ikey[64], expected[64];
    Scenario s;
    s.function = "km_pbkdf2_rek";
    s.name = c.name;
    s.prepare = [&] {
      SetProps(true, c.cbc_only, c.rek_kek);
      ASSERT_EQ(km_init_km_meta(&meta, "userdata", 32, KM_KDF_PBKDF2_REK), 0);
      memset(meta.salt, 0x21, sizeof(meta.salt));
      ASSERT_EQ(km_put_km_meta("userdata", 0, &meta), 0);
      km_meta copy = meta;
      ASSERT_EQ(km_pbkdf2_rek(kPassword, kPasswordLen, copy.salt, expected, &copy), 0);
      if (c.key_requires_upgrade)
        property_set("ro.build.version.security_patch", "2027-01-05");  // a system update
      Secret("the password", PasswordBytes());
    };
    s.before = [&] {
      work = meta;
      memset(ikey, 0, sizeof(ikey));
    };
    s.call = [&] { return km_pbkdf2_rek(kPassword, kPasswordLen, work.salt, ikey, &work); };
    s.failed = [](int rc) { return rc != 0; };
    s.verify_success = [&](int, Problems& p) {
      // The key is the same after an upgrade of the Keymaster key only where the Keymaster
      // output does not depend on the key blob; compare where it cannot.
      if (!c.key_requires_upgrade && memcmp(ikey, expected, 32) != 0) p.push_back("a wrong key");
    };
    s.new_image = [&](const std::string& rel, const std::optional<Bytes>& after) -> std::string {
      if (rel != EntryRel("userdata")) return "an unexpected place changed";
      std::optional<km_meta> stored = RecordIn(after, 0);
      return stored && stored->km_key_blob_size != 0 ? "" : "not a whole record";
    };
    Sweep(s);
  }
}

// ---- Cipher primitives, hex text, scrypt --------------------------------------------------------

TEST_F(FaultSweepTest, CipherPrimitives) {
  const Bytes key = Pattern(0x01, 32);
  const Bytes iv = Pattern(0x02, 16);
  const Bytes plain = Pattern(0x51, 32);
  uint8_t out[64], tag[16], sealed[32], sealed_tag[16], cbc[32], digest[32];
  auto prepare = [&] {
    SetProps(false, false, false);
    ASSERT_EQ(km_aes_gcm_encrypt(plain.data(), 32, nullptr, 0, key.data(), 32, iv.data(), sealed,
                                 sealed_tag),
              32);
    ASSERT_EQ(km_aes_encrypt(plain.data(), 32, key.data(), 32, iv.data(), cbc, 0), 32);
  };
  auto fails = [](int rc) { return rc != 32; };
  struct Op {
    const char* function;
    std::function<int()> call;
    bool decrypts;
  } ops[] = {
      {"km_aes_gcm_encrypt",
       [&] {
         return km_aes_gcm_encrypt(plain.data(), 32, iv.data(), 16, key.data(), 32, iv.data(), out,
                                   tag);
       },
       false},
      {"km_aes_gcm_decrypt",
       [&] {
         return km_aes_gcm_decrypt(sealed, 32, nullptr, 0, sealed_tag, key.data(), 32, iv.data(),
                                   out);
       },
       true},
      {"km_aes_encrypt",
       [&] { return km_aes_encrypt(plain.data(), 32, key.data(), 32, iv.data(), out, 0); }, false},
      {"km_aes_decrypt", [&] { return km_aes_decrypt(cbc, 32, key.data(), 32, iv.data(), out, 0); },
       true},
  };
  for (const Op& op : ops) {
    Scenario s;
    s.function = op.function;
    s.name = "32 bytes";
    s.prepare = prepare;
    s.before = [&] { memset(out, 0, sizeof(out)); };
    s.call = op.call;
    s.failed = fails;
    const bool decrypts = op.decrypts;
    s.verify_success = [&, decrypts](int, Problems& p) {
      if (decrypts && memcmp(out, plain.data(), 32) != 0) p.push_back("a wrong plaintext");
    };
    Sweep(s);
  }

  Scenario sha;
  sha.function = "km_sha256";
  sha.name = "5 bytes";
  sha.prepare = prepare;
  sha.before = [&] { memset(digest, 0, sizeof(digest)); };
  sha.call = [&] { return km_sha256(reinterpret_cast<const uint8_t*>("abcde"), 5, digest); };
  sha.verify_success = [&](int, Problems& p) {
    static const uint8_t kAbcde[4] = {0x36, 0xbb, 0xe5, 0x0e};
    if (memcmp(digest, kAbcde, 4) != 0) p.push_back("a wrong digest");
  };
  sha.failure_line = [](const Way&) -> std::optional<std::string> {
    return "Failed to digest init for sha256\n";
  };
  Sweep(sha);

  uint8_t* converted = nullptr;
  size_t converted_size = 0;
  Scenario hex;
  hex.function = "km_convert_hex_ascii_to_key";
  hex.name = "16 bytes";
  hex.prepare = prepare;
  hex.before = [&] { converted = nullptr; };
  hex.call = [&] {
    converted = km_convert_hex_ascii_to_key("000102030405060708090a0B0c0D0e0F", &converted_size);
    return converted ? 0 : -1;
  };
  hex.verify_success = [&](int, Problems& p) {
    if (converted_size != 16 || converted[15] != 15) p.push_back("a wrong key");
  };
  hex.release = [&] { free(converted); };
  hex.failure_line = [](const Way&) -> std::optional<std::string> { return "Cannot allocate"; };
  Sweep(hex);

  Scenario scrypt;
  scrypt.function = "crypto_scrypt";
  scrypt.name = "N=16 r=1 p=2";
  scrypt.prepare = [&] {
    prepare();
    // The derived key sits in the work areas: they must be wiped before they are freed.
    uint8_t expected[32];
    ASSERT_EQ(crypto_scrypt(reinterpret_cast<const uint8_t*>(kPassword), kPasswordLen, iv.data(),
                            16, 16, 1, 2, expected, 32),
              0);
    Secret("the scrypt output", Bytes(expected, expected + 32));
  };
  scrypt.before = [&] { memset(out, 0, sizeof(out)); };
  scrypt.call = [&] {
    return crypto_scrypt(reinterpret_cast<const uint8_t*>(kPassword), kPasswordLen, iv.data(), 16,
                         16, 1, 2, out, 32);
  };
  scrypt.verify_success = [&](int, Problems& p) {
    uint8_t again[32];
    FaultPause pause;
    crypto_scrypt(reinterpret_cast<const uint8_t*>(kPassword), kPasswordLen, iv.data(), 16, 16, 1,
                  2, again, 32);
    if (memcmp(again, out, 32) != 0) p.push_back("a wrong key");
  };
  scrypt.logs_failure = false;
  scrypt.verify_failure = [&](Problems& p) {
    static const uint8_t kZero[32] = {};
    if (memcmp(out, kZero, 32) != 0) p.push_back("a failed scrypt wrote its output");
  };
  Sweep(scrypt);

  uint8_t random[32];
  Scenario drbg;
  drbg.function = "km_generate_drbg_bytes";
  drbg.name = "32 bytes";
  drbg.prepare = prepare;
  drbg.before = [] {};
  drbg.call = [&] { return km_generate_drbg_bytes(nullptr, random, sizeof(random)); };
  Sweep(drbg);
}

// The exported calls below make no call the injector or the emulated hardware could fail (the
// secure-storage device is opened once per process, before the tests): nothing to sweep, which
// this keeps true.
TEST_F(FaultSweepTest, CallsWithoutFailurePoints) {
  SetProps(true, false, false);
  uint8_t mac[32] = {1}, other[32] = {1};
  char hex[65];
  const uint8_t key[32] = {0xAB};
  km_meta meta = {};
  kmstore_device* device = nullptr;
  const std::pair<const char*, std::function<void()>> calls[] = {
      {"km_verify_key_mac", [&] { km_verify_key_mac(mac, other); }},
      {"km_convert_key_to_hex_ascii", [&] { km_convert_key_to_hex_ascii(key, 32, hex); }},
      {"km_init_km_meta_enc_by_rek", [&] { km_init_km_meta_enc_by_rek(&meta, "vold", 32); }},
      {"mdfpp_property_get", [&] { mdfpp_property_get("ro.product.tavi.support_mdfpp"); }},
      {"kmstore_device_init", [&] { kmstore_device_init(&device); }},
      {"km_scrypt_backend_name", [&] { km_scrypt_backend_name(); }},
  };
  for (const auto& [function, call] : calls) {
    ResetHardware();
    FaultScope scope;
    call();
    scope.Disarm();
    int made = 0;
    for (int k = 0; k < static_cast<int>(Fault::kCount); ++k)
      made += scope.count(static_cast<Fault>(k));
    EXPECT_EQ(made, 0) << function;
    Tallies()[function];  // listed with 0 failure points
  }
}

// ---- The Keymaster services ---------------------------------------------------------------------

TEST_F(FaultSweepTest, KeymasterServices) {
  unsigned char blob[2048];
  unsigned int blob_size = 0;
  unsigned char rsa[2048];
  unsigned long rsa_size = 0;
  unsigned char out_blob[2048];
  unsigned long out_size = 0;
  unsigned int aes_out_size = 0;
  unsigned char* out = nullptr;
  unsigned int out_len = 0;
  unsigned long sig_len = 0;
  const Bytes nonce = Pattern(0x07, 12);
  const Bytes object = Pattern(0x61, 32);
  Bytes sealed;
  auto prepare = [&] {
    SetProps(false, false, false);
    ASSERT_EQ(keymaster_create_aes_key_for_mdfpp(blob, sizeof(blob), &blob_size), 0);
    ASSERT_EQ(
        keymaster_create_key_for_cryptfs_scrypt_mdfpp(2048, 65537, 1, rsa, sizeof(rsa), &rsa_size),
        0);
    unsigned char* s = nullptr;
    unsigned int n = 0;
    ASSERT_EQ(
        keymaster_encrypt_object_for_mdfpp(blob, blob_size, nonce.data(), 12, 1, object.data(),
                                           object.size(), &s, &n, nullptr, 0, nullptr),
        0);
    sealed.assign(s, s + n);
    free(s);
    Secret("the object", object);
  };
  auto upgrade_prepare = [&] {
    prepare();
    property_set("ro.build.version.security_patch", "2027-01-05");  // a system update
  };

  Scenario compat;
  compat.function = "keymaster_compatibility_cryptfs_mdfpp";
  compat.name = "TEE";
  compat.prepare = prepare;
  compat.before = [] {};
  compat.call = [] { return keymaster_compatibility_cryptfs_mdfpp(); };
  compat.verify_success = [](int rc, Problems& p) {
    if (rc != 1) p.push_back("not secure");
  };
  Sweep(compat);
  compat.function = "keymaster_compatibility_cryptfs_scrypt_mdfpp";
  compat.call = [] { return keymaster_compatibility_cryptfs_scrypt_mdfpp(); };
  Sweep(compat);

  Scenario aes;
  aes.function = "keymaster_create_aes_key_for_mdfpp";
  aes.name = "2048-byte buffer";
  aes.prepare = prepare;
  aes.before = [&] { aes_out_size = 0; };
  aes.call = [&] { return keymaster_create_aes_key_for_mdfpp(out_blob, 2048, &aes_out_size); };
  aes.verify_success = [&](int, Problems& p) {
    if (aes_out_size == 0) p.push_back("no blob");
  };
  Sweep(aes);

  Scenario create;
  create.function = "keymaster_create_key_for_cryptfs_scrypt_mdfpp";
  create.name = "RSA-2048";
  create.prepare = prepare;
  create.before = [&] { out_size = 0; };
  create.call = [&] {
    return keymaster_create_key_for_cryptfs_scrypt_mdfpp(2048, 65537, 1, out_blob, 2048, &out_size);
  };
  create.verify_success = [&](int, Problems& p) {
    if (out_size == 0) p.push_back("no blob");
  };
  Sweep(create);

  Scenario up_rsa;
  up_rsa.function = "keymaster_upgrade_key_for_cryptfs_scrypt_mdfpp";
  up_rsa.name = "after a system update";
  up_rsa.prepare = upgrade_prepare;
  up_rsa.before = [&] { out_size = 0; };
  up_rsa.call = [&] {
    return keymaster_upgrade_key_for_cryptfs_scrypt_mdfpp(2048, 65537, 1, rsa, rsa_size, out_blob,
                                                          2048, &out_size);
  };
  up_rsa.verify_success = [&](int, Problems& p) {
    if (out_size == 0) p.push_back("no blob");
  };
  Sweep(up_rsa);

  Scenario up_aes;
  up_aes.function = "keymaster_upgrade_key_for_cryptfs_pbkdf2_mdfpp";
  up_aes.name = "after a system update";
  up_aes.prepare = upgrade_prepare;
  up_aes.before = [&] { out_size = 0; };
  up_aes.call = [&] {
    return keymaster_upgrade_key_for_cryptfs_pbkdf2_mdfpp(blob, blob_size, out_blob, 2048,
                                                          &out_size);
  };
  up_aes.verify_success = [&](int, Problems& p) {
    if (out_size == 0) p.push_back("no blob");
  };
  Sweep(up_aes);

  Scenario enc;
  enc.function = "keymaster_encrypt_object_for_mdfpp";
  enc.name = "32 bytes";
  enc.prepare = prepare;
  enc.before = [&] {
    out = nullptr;
    out_len = 0;
  };
  enc.call = [&] {
    return keymaster_encrypt_object_for_mdfpp(blob, blob_size, nonce.data(), 12, 1, object.data(),
                                              object.size(), &out, &out_len, nullptr, 0, nullptr);
  };
  enc.verify_success = [&](int, Problems& p) {
    if (out_len != 48) p.push_back("a wrong length");
  };
  enc.verify_failure = [&](Problems& p) {
    if (out) p.push_back("a failure handed out a buffer");
  };
  enc.release = [&] { free(out); };
  Sweep(enc);

  Scenario dec = enc;
  dec.function = "keymaster_decrypt_object_for_mdfpp";
  dec.call = [&] {
    return keymaster_decrypt_object_for_mdfpp(blob, blob_size, nonce.data(), 12, 1, sealed.data(),
                                              sealed.size(), &out, &out_len, nullptr, 0, nullptr);
  };
  dec.verify_success = [&](int, Problems& p) {
    if (out_len != 32 || memcmp(out, object.data(), 32) != 0) p.push_back("a wrong plaintext");
  };
  Sweep(dec);

  unsigned char padded[256] = {};
  memcpy(padded + 1, object.data(), object.size());
  Scenario sign;
  sign.function = "keymaster_sign_object_for_cryptfs_scrypt_mdfpp";
  sign.name = "256-byte object";
  sign.prepare = prepare;
  sign.before = [&] {
    out = nullptr;
    sig_len = 0;
  };
  sign.call = [&] {
    return keymaster_sign_object_for_cryptfs_scrypt_mdfpp(rsa, rsa_size, 1, padded, sizeof(padded),
                                                          &out, &sig_len);
  };
  sign.verify_success = [&](int, Problems& p) {
    if (sig_len != 256) p.push_back("a wrong signature length");
  };
  sign.verify_failure = [&](Problems& p) {
    if (out) p.push_back("a failure handed out a buffer");
  };
  sign.release = [&] { free(out); };
  Sweep(sign);
}

// ---- The Keymaster 4.0 client classes -----------------------------------------------------------

TEST_F(FaultSweepTest, KeymasterClasses) {
  using android::mdfpp::Keymaster;
  using android::mdfpp::KeymasterOperation;
  const Bytes nonce = Pattern(0x07, 12);
  std::string blob;
  std::string output;
  auto prepare = [&] {
    SetProps(false, false, false);
    unsigned char b[2048];
    unsigned int n = 0;
    ASSERT_EQ(keymaster_create_aes_key_for_mdfpp(b, sizeof(b), &n), 0);
    blob.assign(reinterpret_cast<char*>(b), n);
  };
  auto params = [&] {
    km::AuthorizationSetBuilder p;
    p.Authorization(km::TAG_ALGORITHM, km::Algorithm::AES)
        .Authorization(km::TAG_KEY_SIZE, 256u)
        .Authorization(km::TAG_BLOCK_MODE, km::BlockMode::GCM)
        .Authorization(km::TAG_MAC_LENGTH, 128u)
        .Authorization(km::TAG_NONCE, nonce.data(), nonce.size())
        .Padding({km::PaddingMode::NONE});
    return km::AuthorizationSet(p);
  };

  // The test's own inputs are made before the injector is armed.
  std::optional<km::AuthorizationSet> in;
  std::string piece;
  const std::string input(32, 'k');
  Scenario op;
  op.function = "android::mdfpp::Keymaster and KeymasterOperation";
  op.name = "begin, updateCompletely, finish, a moved operation";
  op.prepare = prepare;
  op.before = [&] {
    output.clear();
    piece.clear();
    piece.reserve(64);
    output.reserve(64);
    in = params();
  };
  op.call = [&] {
    Keymaster dev;
    if (!dev) return -1;
    KeymasterOperation first =
        dev.begin(km::KeyPurpose::ENCRYPT, blob, *in, km::HardwareAuthToken(), nullptr);
    KeymasterOperation running(std::move(first));
    // Taking over another operation aborts the one the target held.
    KeymasterOperation moved =
        dev.begin(km::KeyPurpose::ENCRYPT, blob, *in, km::HardwareAuthToken(), nullptr);
    moved = std::move(running);
    if (moved.getErrorCode() != km::ErrorCode::OK) return -1;
    if (!moved.updateCompletely(input.data(), input.size(),
                                [&](const char* data, size_t n) { piece.append(data, n); }))
      return -1;
    if (!moved.finish(&output)) return -1;
    return dev.isSecure() ? 0 : -1;
  };
  op.verify_success = [&](int, Problems& p) {
    if (piece.size() + output.size() != 48) p.push_back("a wrong length");
  };
  // The classes leave the "no session" line to their callers; the test's own -1 logs nothing.
  op.logs_failure = false;
  op.failure_line = [](const Way&) -> std::optional<std::string> { return std::nullopt; };
  Sweep(op);

  Scenario keys;
  keys.function = "android::mdfpp::Keymaster and KeymasterOperation";
  keys.name = "generateKey, upgradeKey, deleteKey";
  keys.prepare = prepare;
  std::optional<km::AuthorizationSet> key_params;
  std::string key, upgraded;
  keys.before = [&] {
    km::AuthorizationSetBuilder p;
    p.AesEncryptionKey(256)
        .Authorization(km::TAG_BLOCK_MODE, km::BlockMode::GCM)
        .Authorization(km::TAG_MIN_MAC_LENGTH, 128u)
        .Authorization(km::TAG_NO_AUTH_REQUIRED);
    key_params = km::AuthorizationSet(p);
    key.clear();
    upgraded.clear();
  };
  keys.call = [&] {
    Keymaster dev;
    if (!dev) return -1;
    if (!dev.generateKey(*key_params, &key)) return -1;
    dev.upgradeKey(key, *key_params, &upgraded);  // nothing to upgrade: OK, no blob
    return dev.deleteKey(key) ? 0 : -1;
  };
  keys.logs_failure = false;
  keys.failure_line = op.failure_line;
  Sweep(keys);
}

}  // namespace
}  // namespace tavikm_test

namespace tavikm_test {
namespace {

// ---- Regressions: each failed before its fix ----------------------------------------------------

class FaultRegressionTest : public FaultSweepTest {};

// Logs to stderr, where a death test looks for the line.
void LogToStderr() {
  NoCoreDump();
  __android_log_set_logger(
      [](const __android_logger_data*, const char* message) { fprintf(stderr, "%s\n", message); });
}

TEST_F(FaultRegressionTest, AFailingRandomGeneratorEndsTheProcess) {
  uint8_t out[32];
  EXPECT_DEATH(
      {
        LogToStderr();
        FaultScope scope(Fault::kRandBytes, 1, 0);
        km_generate_drbg_bytes(nullptr, out, sizeof(out));
      },
      "Getting random bytes error = ");
  // The MAC key of a kek mac comes from the generator too.
  SetProps(true, true, false);
  EXPECT_DEATH(
      {
        LogToStderr();
        const uint8_t kek[32] = {1};
        FaultScope scope(Fault::kRandBytes, 1, 0);
        km_put_kek_enc_by_rek("vold", kek, sizeof(kek));
      },
      "Getting random bytes error = ");
}

TEST_F(FaultRegressionTest, AFailedUnwrapHandsBackNoPlaintext) {
  const Bytes master = Pattern(0x41, 32);
  for (bool cbc_only : {false, true}) {
    SCOPED_TRACE(cbc_only);
    SetProps(false, cbc_only, false);
    km_meta meta;
    ASSERT_EQ(km_init_km_meta(&meta, MetaPath().c_str(), 32, KM_KDF_PBKDF2), 0);
    ASSERT_EQ(
        km_encrypt_key(kPassword, kPasswordLen, meta.salt, meta.master_key, master.data(), &meta),
        0);
    // The final step fails after the update wrote the plaintext (in GCM mode on both tries).
    uint8_t out[32];
    log_.Clear();
    {
      FaultScope scope(Fault::kCipherFinal, 1, 0);
      EXPECT_EQ(km_decrypt_key(kPassword, kPasswordLen, meta.salt, meta.master_key, out, &meta),
                -1);
    }
    EXPECT_FALSE(HoldsPartOf(out, sizeof(out), master.data(), master.size()));
    EXPECT_EQ(log_.Texts().back(), cbc_only
                                       ? "(km_decrypt_key)Failed to decrypt key\n"
                                       : "(km_decrypt_key)Failed to decrypt_gcm key keysize=32\n");
  }
}

TEST_F(FaultRegressionTest, AFailedPbkdf2WithRekIsNoPasswordIndependentKey) {
  struct Case {
    bool cbc_only, rek_kek;
  } cases[] = {{false, false}, {false, true}, {true, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.cbc_only) + std::to_string(c.rek_kek));
    SetProps(true, c.cbc_only, c.rek_kek);
    km_meta meta;
    ASSERT_EQ(km_init_km_meta(&meta, "userdata", 32, KM_KDF_PBKDF2_REK), 0);
    uint8_t ikey[64] = {};
    log_.Clear();
    {
      FaultScope scope(Fault::kPbkdf2, 1, 0);
      EXPECT_EQ(km_pbkdf2_rek(kPassword, kPasswordLen, meta.salt, ikey, &meta), -1);
    }
    EXPECT_EQ(log_.Texts(), std::vector<std::string>{"(km_pbkdf2_rek)Failed to PKCS5_PBKDF2_HMAC"});
    // Nor does a wrap go ahead with such a key.
    const Bytes master = Pattern(0x41, 32);
    FaultScope scope(Fault::kPbkdf2, 1, 0);
    EXPECT_EQ(
        km_encrypt_key(kPassword, kPasswordLen, meta.salt, meta.master_key, master.data(), &meta),
        -1);
  }
}

// The first allocation of a begin fails: a failed operation with one line, and no exception for
// the caller.
TEST_F(FaultRegressionTest, TheKeymasterClientStopsAnAllocationFailure) {
  using android::mdfpp::Keymaster;
  using android::mdfpp::KeymasterOperation;
  SetProps(false, false, false);
  km::AuthorizationSetBuilder builder;
  builder.AesEncryptionKey(256)
      .Authorization(km::TAG_BLOCK_MODE, km::BlockMode::GCM)
      .Authorization(km::TAG_MIN_MAC_LENGTH, 128u)
      .Authorization(km::TAG_NO_AUTH_REQUIRED);
  const km::AuthorizationSet params(builder);
  Keymaster dev;
  ASSERT_TRUE(dev);
  std::string key;
  ASSERT_TRUE(dev.generateKey(params, &key));
  // Each call under a failing first allocation, counted: the gtest checks allocate, so they
  // come after the scope.
  struct Result {
    bool fired;
    bool ok;
  };
  auto failing_first_new = [](auto&& call) {
    FaultScope scope(Fault::kNew, 1, 0);
    const bool ok = call();
    scope.Disarm();
    return Result{scope.fired(), ok};
  };
  const Result begin = failing_first_new([&] {
    return dev.begin(km::KeyPurpose::ENCRYPT, key, params, km::HardwareAuthToken(), nullptr)
               .getErrorCode() == km::ErrorCode::OK;
  });
  EXPECT_TRUE(begin.fired);
  EXPECT_FALSE(begin.ok);
  int lines = 0;
  for (const LogLine& line : log_.Lines()) lines += line.text == "begin failed: out of memory";
  EXPECT_EQ(lines, 1);
}

// Every allocation of the key services fails in turn: -1 every time, never an exception.
TEST_F(FaultRegressionTest, TheKeyServicesStopAnAllocationFailure) {
  SetProps(false, false, false);
  unsigned char aes[2048], rsa[2048], out[2048];
  unsigned int aes_size = 0, new_size = 0;
  unsigned long rsa_size = 0, out_size = 0;
  ASSERT_EQ(keymaster_create_aes_key_for_mdfpp(aes, sizeof(aes), &aes_size), 0);
  ASSERT_EQ(
      keymaster_create_key_for_cryptfs_scrypt_mdfpp(2048, 65537, 1, rsa, sizeof(rsa), &rsa_size),
      0);
  property_set("ro.build.version.security_patch", "2027-01-05");  // a system update
  const std::function<int()> services[] = {
      [&] { return keymaster_create_aes_key_for_mdfpp(out, sizeof(out), &new_size); },
      [&] {
        return keymaster_upgrade_key_for_cryptfs_pbkdf2_mdfpp(aes, aes_size, out, 2048, &out_size);
      },
      [&] {
        return keymaster_upgrade_key_for_cryptfs_scrypt_mdfpp(2048, 65537, 1, rsa, rsa_size, out,
                                                              2048, &out_size);
      },
  };
  for (size_t i = 0; i < sizeof(services) / sizeof(services[0]); ++i) {
    int calls;
    {
      FaultScope count;
      ASSERT_EQ(services[i](), 0) << i;
      calls = count.count(Fault::kNew);
    }
    EXPECT_GT(calls, 0) << i;
    for (int nth = 1; nth <= calls; ++nth) {
      int rc = 0;
      bool threw = false;
      {
        FaultScope scope(Fault::kNew, nth, 0);
        try {
          rc = services[i]();
        } catch (const std::bad_alloc&) {
          threw = true;
        }
      }
      EXPECT_FALSE(threw) << i << " #" << nth;
      EXPECT_EQ(threw ? -1 : rc, -1) << i << " #" << nth;
    }
  }
}

// Reading the scrypt factors allocates nothing, so a setup of kdf 2 cannot run out of memory
// there; and the factors still parse as before.
TEST_F(FaultRegressionTest, TheScryptFactorsAreReadWithoutAllocating) {
  SetProps(false, false, false);
  property_set("ro.crypto.scrypt_params", "12:8:1");
  km_meta meta;
  {
    FaultScope scope(Fault::kNew, 1, 0);
    EXPECT_EQ(km_init_km_meta(&meta, "/dev/null", 32, KM_KDF_SCRYPT), 0);
    scope.Disarm();
    EXPECT_EQ(scope.count(Fault::kNew), 0);
  }
  EXPECT_EQ(meta.N_factor, 12);
  EXPECT_EQ(meta.r_factor, 8);
  EXPECT_EQ(meta.p_factor, 1);
}

}  // namespace
}  // namespace tavikm_test
