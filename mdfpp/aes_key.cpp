// SPDX-License-Identifier: Apache-2.0
// The AES key service: is the Keymaster secure, and a new AES-256-GCM key for the records.
#include <keymasterV4_0/authorization_set.h>
#include <string.h>

#include <string>

#include "common/no_throw.h"
#include "keymaster/Keymaster.h"
#include "mdfpp/service.h"
#include "tavikm_keymaster.h"

namespace km = android::mdfpp::km;
using android::mdfpp::Keymaster;

static int CompatibilityCryptfsMdfppBody(void) {
  Keymaster dev;
  if (!dev) {
    tavikm::LogNoKeymasterSession();
    return -1;
  }
  return dev.isSecure() ? 1 : 0;
}

int keymaster_compatibility_cryptfs_mdfpp(void) {
  return tavikm::ReturnOnBadAlloc(
      -1, [&] { return CompatibilityCryptfsMdfppBody(); }, tavikm::LogServiceOutOfMemory);
}

static int CreateAesKeyForMdfppBody(unsigned char* key_buffer, unsigned int key_buffer_size,
                                    unsigned int* key_out_size) {
  Keymaster dev;
  if (!dev) {
    tavikm::LogNoKeymasterSession();
    return -1;
  }
  if (!key_buffer || !key_out_size) {
    KM_LOG_INVALID_ARGUMENT();
    return -1;
  }
  *key_out_size = 0;

  // AES-256 for both directions, GCM only, nonces from the caller, tags of 128 bits at least.
  km::AuthorizationSetBuilder params;
  params.push_back(km::TAG_ALGORITHM, km::Algorithm::AES);
  params.push_back(km::TAG_KEY_SIZE, 256u);
  params.push_back(km::TAG_PURPOSE, km::KeyPurpose::ENCRYPT);
  params.push_back(km::TAG_PURPOSE, km::KeyPurpose::DECRYPT);
  params.push_back(km::TAG_BLOCK_MODE, km::BlockMode::GCM);
  params.push_back(km::TAG_CALLER_NONCE);
  params.push_back(km::TAG_NO_AUTH_REQUIRED);
  params.push_back(km::TAG_MIN_MAC_LENGTH, 128u);
  params.Padding({km::PaddingMode::NONE});

  std::string key;
  if (!dev.generateKey(params, &key)) return -1;
  // Reported before the capacity test, so a caller with too small a buffer learns the size.
  *key_out_size = static_cast<unsigned int>(key.size());
  if (key.size() > key_buffer_size) return -1;
  memcpy(key_buffer, key.data(), key.size());
  key.clear();
  return 0;
}

int keymaster_create_aes_key_for_mdfpp(unsigned char* key_buffer, unsigned int key_buffer_size,
                                       unsigned int* key_out_size) {
  return tavikm::ReturnOnBadAlloc(
      -1, [&] { return CreateAesKeyForMdfppBody(key_buffer, key_buffer_size, key_out_size); },
      tavikm::LogServiceOutOfMemory);
}
