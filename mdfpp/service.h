// SPDX-License-Identifier: Apache-2.0
// What the Keymaster services share: their two common messages, the begin that waits out the
// key's rate limit, and the operation runner that object encryption and signing drive.
#ifndef TAVIKM_MDFPP_SERVICE_H_
#define TAVIKM_MDFPP_SERVICE_H_

#include <stddef.h>
#include <stdlib.h>

#include <new>
#include <optional>
#include <string>

#include <openssl/crypto.h>

#include "keymaster/Keymaster.h"
#include "keymaster/stream_log.h"

// The caller's file and line, then ":Invalid argument", as one line.
#define KM_LOG_INVALID_ARGUMENT() \
  KM_STREAM_LOG(ERROR) << __FILE__ << ":" << __LINE__ << ":Invalid argument"

namespace tavikm {

inline void LogNoKeymasterSession() {
  KM_STREAM_LOG(ERROR) << "Failed to initiate keymaster session";
}

// Begins the operation, sleeping `ratelimit` seconds before each new attempt for as long as the
// device answers KEY_RATE_LIMIT_EXCEEDED. Any other answer ends the loop.
android::mdfpp::KeymasterOperation BeginWaitingOutRateLimit(
    android::mdfpp::Keymaster& keymaster, android::mdfpp::km::KeyPurpose purpose,
    const std::string& key, const android::mdfpp::km::AuthorizationSet& params,
    unsigned int ratelimit);

// An allocator that wipes every block before giving it back, so a string growing or going away
// leaves none of its bytes behind in freed memory.
template <typename T>
struct WipingAllocator {
  using value_type = T;
  WipingAllocator() = default;
  template <typename U>
  WipingAllocator(const WipingAllocator<U>&) {}
  T* allocate(size_t n) {
    void* p = malloc(n * sizeof(T));
    if (!p) throw std::bad_alloc();
    return static_cast<T*>(p);
  }
  void deallocate(T* p, size_t n) {
    OPENSSL_cleanse(p, n * sizeof(T));
    free(p);
  }
  template <typename U>
  bool operator==(const WipingAllocator<U>&) const {
    return true;
  }
  template <typename U>
  bool operator!=(const WipingAllocator<U>&) const {
    return false;
  }
};

// Bytes of a caller's secret (an operation's output): kept in allocator blocks only, never
// inside the object, so the allocator's wipe covers every copy.
class SecretBytes {
 public:
  SecretBytes() { bytes_.reserve(kBeyondInline); }
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;

  void Assign(const void* data, size_t size) {
    Wipe();
    bytes_.clear();
    if (size) bytes_.append(static_cast<const char*>(data), size);
  }
  void Append(const char* data, size_t size) {
    if (size) bytes_.append(data, size);
  }
  void Reserve(size_t size) { bytes_.reserve(size); }
  // Zeroes the bytes held, the length staying as it was.
  void Wipe() {
    if (!bytes_.empty()) OPENSSL_cleanse(&bytes_[0], bytes_.size());
  }

  const char* data() const { return bytes_.data(); }
  size_t size() const { return bytes_.size(); }
  bool empty() const { return bytes_.empty(); }

 private:
  // More than a string keeps inside itself.
  static constexpr size_t kBeyondInline = 64;
  std::basic_string<char, std::char_traits<char>, WipingAllocator<char>> bytes_;
};

// What a service says when a step of its operation fails: each is followed by the operation's
// error code.
struct OperationMessages {
  const char* starting;
  const char* sending;
  const char* finalizing;
};

// One Keymaster operation of a service, run as begin, update with the whole input, finish.
// Everything it copies is wiped: its copy of the key blob once begin is done, the client's
// output strings once their bytes are in the caller's SecretBytes. The input is fed from the
// caller's own buffer, uncopied. An operation not finished is aborted when the runner goes.
class OperationRunner {
 public:
  OperationRunner(android::mdfpp::Keymaster& keymaster, const OperationMessages& messages)
      : keymaster_(keymaster), messages_(messages) {}

  // 0 with the operation live; -2 after "Keymaster key requires upgrade"; -1 after the
  // starting message and the code.
  int Begin(android::mdfpp::km::KeyPurpose purpose, const unsigned char* key_blob,
            size_t key_blob_size, const android::mdfpp::km::AuthorizationSet& params,
            unsigned int ratelimit);
  // Feeds all `size` bytes of `input` and appends every piece of output to `*output`. False
  // after the sending message.
  bool UpdateCompletely(const unsigned char* input, size_t size, SecretBytes* output);
  // Ends the operation; its last output replaces `*output`. False after the finalizing message.
  bool Finish(SecretBytes* output);

 private:
  int32_t Code() const { return static_cast<int32_t>(op_->getErrorCode()); }

  android::mdfpp::Keymaster& keymaster_;
  const OperationMessages& messages_;
  // Set by Begin. The runner lives inside the session's scope, so it goes (and aborts an
  // unfinished operation) before the session does.
  std::optional<android::mdfpp::KeymasterOperation> op_;
};

}  // namespace tavikm

#endif  // TAVIKM_MDFPP_SERVICE_H_
