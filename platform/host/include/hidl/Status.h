// SPDX-License-Identifier: Apache-2.0
// Host version of the HIDL transport status: android::hardware::Status and the Return<T> /
// Return<void> wrappers every HAL call hands back. As on the device, a failed Return that is
// destroyed without anyone calling isOk() ends the process, and reading the value of a failed
// Return does too.
#ifndef TAVIKM_HOST_HIDL_STATUS_H_
#define TAVIKM_HOST_HIDL_STATUS_H_

#include <stdint.h>

#include <ostream>
#include <string>
#include <utility>

namespace android {
namespace hardware {

namespace details {
// Writes `message` to stderr and aborts; the host's LOG_ALWAYS_FATAL.
[[noreturn]] void logAlwaysFatal(const char* message);
}  // namespace details

// Outcome of a transaction with a HAL service.
class Status final {
 public:
  enum Exception : int32_t {
    EX_NONE = 0,
    EX_SECURITY = -1,
    EX_BAD_PARCELABLE = -2,
    EX_ILLEGAL_ARGUMENT = -3,
    EX_NULL_POINTER = -4,
    EX_ILLEGAL_STATE = -5,
    EX_NETWORK_MAIN_THREAD = -6,
    EX_UNSUPPORTED_OPERATION = -7,
    EX_HAS_REPLY_HEADER = -128,
    EX_TRANSACTION_FAILED = -129,
  };

  static Status ok() { return Status(); }
  static Status fromExceptionCode(int32_t exceptionCode);
  static Status fromExceptionCode(int32_t exceptionCode, const char* message);

  Status() = default;

  int32_t exceptionCode() const { return mException; }
  const char* exceptionMessage() const { return mMessage.c_str(); }
  bool isOk() const { return mException == EX_NONE; }

  // "No error", or "Status(<exception name>): '<message>'".
  std::string description() const;

 private:
  int32_t mException = EX_NONE;
  std::string mMessage;
};

std::ostream& operator<<(std::ostream& stream, const Status& s);

namespace details {

// What Return<T> and Return<void> share: the status, and whether the caller has looked at it.
class return_status {
 public:
  return_status() = default;
  return_status(const Status& s) : mStatus(s) {}  // NOLINT: implicit, as on the platform
  return_status(const return_status&) = delete;
  return_status& operator=(const return_status&) = delete;
  return_status(return_status&& other) noexcept { *this = std::move(other); }
  return_status& operator=(return_status&& other) noexcept;
  ~return_status();

  // Marks the status as checked.
  bool isOk() const {
    mCheckedStatus = true;
    return mStatus.isOk();
  }
  bool isDeadObject() const {
    mCheckedStatus = true;
    return mStatus.exceptionCode() == Status::EX_TRANSACTION_FAILED;
  }
  std::string description() const { return mStatus.description(); }

 protected:
  // Ends the process when the call failed: a value that never arrived cannot be read.
  void assertOk() const;

 private:
  Status mStatus;
  mutable bool mCheckedStatus = false;
};

}  // namespace details

template <typename T>
class Return : public details::return_status {
 public:
  Return(T v) : details::return_status(), mVal{v} {}      // NOLINT: implicit, as on the platform
  Return(const Status& s) : details::return_status(s) {}  // NOLINT
  Return(Return&& other) noexcept = default;
  Return& operator=(Return&&) noexcept = default;

  T withDefault(T t) const { return isOk() ? mVal : t; }
  operator T() const {  // NOLINT: implicit, as on the platform
    assertOk();
    return mVal;
  }

 private:
  T mVal{};
};

template <>
class Return<void> : public details::return_status {
 public:
  Return() : details::return_status() {}
  Return(const Status& s) : details::return_status(s) {}  // NOLINT
  Return(Return&& other) noexcept = default;
  Return& operator=(Return&&) noexcept = default;
};

inline Return<void> Void() { return Return<void>(); }

}  // namespace hardware
}  // namespace android

#endif  // TAVIKM_HOST_HIDL_STATUS_H_
