// SPDX-License-Identifier: Apache-2.0
// The host's HIDL transport status: descriptions, and the fatal checks of Return.
#include <stdio.h>
#include <stdlib.h>

#include <sstream>
#include <string>

#include <hidl/HidlSupport.h>
#include <hidl/Status.h>

namespace android {
namespace hardware {

namespace details {

void logAlwaysFatal(const char* message) {
  fprintf(stderr, "%s\n", message);
  fflush(stderr);
  abort();
}

return_status& return_status::operator=(return_status&& other) noexcept {
  if (this != &other) {
    // Overwriting a failure nobody looked at would hide it.
    if (!mCheckedStatus && !mStatus.isOk()) {
      logAlwaysFatal(("Failed HIDL return status not checked: " + description()).c_str());
    }
    mStatus = other.mStatus;
    mCheckedStatus = other.mCheckedStatus;
    other.mStatus = Status::ok();
    other.mCheckedStatus = true;
  }
  return *this;
}

return_status::~return_status() {
  if (!mCheckedStatus && !mStatus.isOk()) {
    logAlwaysFatal(("Failed HIDL return status not checked: " + description()).c_str());
  }
}

void return_status::assertOk() const {
  if (!isOk()) {
    logAlwaysFatal(("Attempted to retrieve value from failed HIDL call: " + description()).c_str());
  }
}

}  // namespace details

namespace {

const char* ExceptionName(int32_t code) {
  switch (code) {
    case Status::EX_NONE:
      return "EX_NONE";
    case Status::EX_SECURITY:
      return "EX_SECURITY";
    case Status::EX_BAD_PARCELABLE:
      return "EX_BAD_PARCELABLE";
    case Status::EX_ILLEGAL_ARGUMENT:
      return "EX_ILLEGAL_ARGUMENT";
    case Status::EX_NULL_POINTER:
      return "EX_NULL_POINTER";
    case Status::EX_ILLEGAL_STATE:
      return "EX_ILLEGAL_STATE";
    case Status::EX_NETWORK_MAIN_THREAD:
      return "EX_NETWORK_MAIN_THREAD";
    case Status::EX_UNSUPPORTED_OPERATION:
      return "EX_UNSUPPORTED_OPERATION";
    case Status::EX_HAS_REPLY_HEADER:
      return "EX_HAS_REPLY_HEADER";
    case Status::EX_TRANSACTION_FAILED:
      return "EX_TRANSACTION_FAILED";
    default:
      return nullptr;
  }
}

}  // namespace

Status Status::fromExceptionCode(int32_t exceptionCode) {
  return fromExceptionCode(exceptionCode, "");
}

Status Status::fromExceptionCode(int32_t exceptionCode, const char* message) {
  Status status;
  status.mException = exceptionCode;
  status.mMessage = message ? message : "";
  return status;
}

std::string Status::description() const {
  std::ostringstream out;
  out << *this;
  return out.str();
}

std::ostream& operator<<(std::ostream& stream, const Status& s) {
  if (s.isOk()) return stream << "No error";
  stream << "Status(";
  if (const char* name = ExceptionName(s.exceptionCode())) {
    stream << name;
  } else {
    stream << "UNKNOWN_EXCEPTION(" << s.exceptionCode() << ")";
  }
  return stream << "): '" << s.exceptionMessage() << "'";
}

}  // namespace hardware
}  // namespace android
