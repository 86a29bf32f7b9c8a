// SPDX-License-Identifier: Apache-2.0
// The rate-limited begin shared by the object encryption and signing services.
#include "mdfpp/service.h"

#include <unistd.h>

namespace tavikm {

namespace km = android::mdfpp::km;

android::mdfpp::KeymasterOperation BeginWaitingOutRateLimit(android::mdfpp::Keymaster& keymaster,
                                                            km::KeyPurpose purpose,
                                                            const std::string& key,
                                                            const km::AuthorizationSet& params,
                                                            unsigned int ratelimit) {
  // The device's answer parameters are of no use to these services.
  km::AuthorizationSet ignored;
  android::mdfpp::KeymasterOperation op =
      keymaster.begin(purpose, key, params, km::HardwareAuthToken(), &ignored);
  // The key itself sets the pace (MIN_SECONDS_BETWEEN_OPS): wait, however often it takes.
  while (op.getErrorCode() == km::ErrorCode::KEY_RATE_LIMIT_EXCEEDED) {
    sleep(ratelimit);
    op = keymaster.begin(purpose, key, params, km::HardwareAuthToken(), &ignored);
  }
  return op;
}

}  // namespace tavikm
