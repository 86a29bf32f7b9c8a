// SPDX-License-Identifier: Apache-2.0
// Writes the fuzz targets' seed corpora: records of every generation, KEK records and metadata
// files made by the library itself, key blobs made by the host Keymaster (current ones and ones
// that need an upgrade), and the edge cases of hex text and scrypt arguments. The device secret
// is the fuzz runs' fixed one, so every blob here is a genuine key of the fuzzed device.
//
// Usage: make_fuzz_seeds CORPUS_DIR (one folder per target is replaced).
#include <cutils/properties.h>
#include <keymasterV4_0/Keymaster.h>
#include <keymasterV4_0/authorization_set.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz_env.h"
#include "platform/host/keymaster/key_blob.h"
#include "tavikm.h"
#include "tavikm_host/device.h"

namespace {

namespace fs = std::filesystem;
namespace hw = ::android::hardware::keymaster::V4_0;
using ::android::hardware::hidl_vec;
using tavikm_fuzz::Writer;
using Bytes = std::vector<uint8_t>;

// Security patch level older than the host default: keys made under it need an upgrade.
constexpr char kOldPatchLevel[] = "2024-01-05";
constexpr char kPassword[] = "fuzz seed password";

fs::path g_corpus;

[[noreturn]] void Fail(const std::string& what) {
  fprintf(stderr, "make_fuzz_seeds: %s\n", what.c_str());
  exit(1);
}

void Seed(const std::string& target, const std::string& name, const Bytes& data) {
  fs::path dir = g_corpus / target;
  fs::create_directories(dir);
  std::ofstream out(dir / name, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
  if (!out) Fail("cannot write " + (dir / name).string());
}

Bytes Text(const std::string& s) { return Bytes(s.begin(), s.end()); }

// A fresh device state with the given flags (and patch level, when older keys are wanted).
void Device(bool cbc_only, bool rek_kek, bool old_patch_level) {
  tavikm_fuzz::ResetFuzzDevice();
  tavikm_fuzz::SetFlag(supportMdfpp, true);
  tavikm_fuzz::SetFlag(supportCBConly, cbc_only);
  tavikm_fuzz::SetFlag(supportRekKek, rek_kek);
  if (old_patch_level) property_set("ro.build.version.security_patch", kOldPatchLevel);
}

Bytes ReadEntry(const std::string& name) {
  kmstore_device* device = nullptr;
  if (kmstore_device_init(&device) != 0 || !device) Fail("no kmstore device");
  Bytes image(4096);
  uint64_t size = image.size();
  if (device->read(name.c_str(), image.data(), &size) != 0) Fail("cannot read entry " + name);
  image.resize(size);
  return image;
}

// The record km_initial_setup stores for a secure-storage key location.
Bytes SetupRecord(uint32_t kdf_type) {
  const char* name = "seed_key";
  uint8_t master_key[32];
  km_meta meta;
  int rc = km_initial_setup(name, kPassword, strlen(kPassword), master_key, sizeof(master_key),
                            kdf_type, &meta);
  if (rc != 0) Fail("km_initial_setup failed: " + std::to_string(rc));
  return ReadEntry(name);
}

void SetMajorVersion(Bytes* record, uint16_t version) {
  memcpy(record->data() + offsetof(km_meta, major_version), &version, sizeof(version));
}

// ---- secure_storage_record_fuzzer: flags | [kek length | kek] | record
// ---------------------------

void RecordSeeds() {
  const size_t kGenerations[] = {2520, 2584, 2592, 2632, 2640, KM_META_SIZE};
  struct Variant {
    const char* name;
    bool cbc_only;
    bool old_patch_level;
    uint32_t kdf_type;
    bool all_generations;  // else only the shortest and the current one
  } variants[] = {
      {"rek_gcm", false, false, KM_KDF_DEFAULT, true},
      {"rek_cbc", true, false, KM_KDF_DEFAULT, true},
      // The Keymaster key needs an upgrade on the way.
      {"rek_gcm_upgrade", false, true, KM_KDF_DEFAULT, true},
      // No Keymaster key yet: the upgrade creates one.
      {"scrypt", false, false, KM_KDF_SCRYPT, false},
  };
  Bytes kek(32);
  for (size_t i = 0; i < kek.size(); ++i) kek[i] = static_cast<uint8_t>(0xA0 + i);
  for (const Variant& v : variants) {
    Device(v.cbc_only, true, v.old_patch_level);
    const Bytes record = SetupRecord(v.kdf_type);
    for (size_t length : kGenerations) {
      if (!v.all_generations && length != 2520 && length != KM_META_SIZE) continue;
      Bytes cut(record.begin(), record.begin() + length);
      const uint8_t cbc = v.cbc_only ? 1 : 0;
      const std::string base = std::string(v.name) + "_" + std::to_string(length);
      Seed("secure_storage_record_fuzzer", base, Writer().U8(cbc).Bytes(cut).data());
      // The release before the XTKM value: major version 2 with the KEK in its own entry (and,
      // once, without it).
      SetMajorVersion(&cut, 2);
      Seed("secure_storage_record_fuzzer", base + "_v2_kek",
           Writer().U8(cbc | 2).U8(static_cast<uint8_t>(kek.size())).Bytes(kek).Bytes(cut).data());
      if (v.old_patch_level || v.cbc_only || !v.all_generations) continue;
      Seed("secure_storage_record_fuzzer", base + "_v2_no_kek", Writer().U8(cbc).Bytes(cut).data());
    }
  }
  Seed("secure_storage_record_fuzzer", "empty", Writer().U8(0).data());
}

// ---- kek_record_fuzzer: flags | record
// ------------------------------------------------------------

void KekSeeds() {
  struct Variant {
    const char* name;
    bool cbc_only;
    bool old_patch_level;
    size_t kek_len;
  } variants[] = {
      {"gcm_32", false, false, 32},        {"gcm_16", false, false, 16},
      {"gcm_48", false, false, 48},        {"cbc_32", true, false, 32},
      {"gcm_32_upgrade", false, true, 32},
  };
  for (const Variant& v : variants) {
    Device(v.cbc_only, true, v.old_patch_level);
    Bytes kek(v.kek_len);
    for (size_t i = 0; i < kek.size(); ++i) kek[i] = static_cast<uint8_t>(i * 7 + 1);
    const char* name = "seed_kek";
    int rc = km_put_kek_enc_by_rek(name, kek.data(), kek.size());
    if (rc != 0) Fail("km_put_kek_enc_by_rek failed: " + std::to_string(rc));
    Seed("kek_record_fuzzer", v.name,
         Writer().U8(v.cbc_only ? 1 : 0).Bytes(ReadEntry(name)).data());
  }
}

// ---- metadata_file_fuzzer: offset | file
// ----------------------------------------------------------

void MetadataFileSeeds() {
  Device(false, false, false);
  tavikm_fuzz::SetFlag(supportMdfpp, false);
  km_meta meta;
  if (km_init_km_meta(&meta, "/data/misc/seed", 32, KM_KDF_SCRYPT) != 0) Fail("km_init_km_meta");
  for (size_t i = 0; i < sizeof(meta.salt); ++i) meta.salt[i] = static_cast<uint8_t>(i);
  const std::string path = tavikm_fuzz::FuzzDeviceDir() + "/seed_metadata";

  auto file_with = [&](const km_meta& record, uint64_t offset) {
    fs::remove(path);
    if (km_put_km_meta(path.c_str(), static_cast<int64_t>(offset), &record) != 0) {
      Fail("km_put_km_meta failed");
    }
    std::ifstream in(path, std::ios::binary);
    Bytes file((std::istreambuf_iterator<char>(in)), {});
    return Writer().U64(offset).Bytes(file).data();
  };
  Seed("metadata_file_fuzzer", "offset_0", file_with(meta, 0));
  Seed("metadata_file_fuzzer", "offset_4096", file_with(meta, 4096));
  Seed("metadata_file_fuzzer", "offset_last",
       file_with(meta, KM_METADATA_FILE_SIZE - KM_META_SIZE));
  km_meta old = meta;
  old.major_version = 2;
  old.minor_version = 7;
  Seed("metadata_file_fuzzer", "old_versions", file_with(old, 0));
  Bytes short_file = file_with(meta, 0);
  short_file.pop_back();
  Seed("metadata_file_fuzzer", "short_file", short_file);
  Seed("metadata_file_fuzzer", "empty_file", Writer().U64(0).data());
}

// ---- hex_fuzzer
// -----------------------------------------------------------------------------------

void HexSeeds() {
  const char* texts[] = {"0a1B", "abc", "0g12", "12zz", "", "00ff"};
  int n = 0;
  for (const char* text : texts) Seed("hex_fuzzer", "text_" + std::to_string(n++), Text(text));
  uint8_t key[32];
  for (size_t i = 0; i < sizeof(key); ++i) key[i] = static_cast<uint8_t>(i * 37);
  char hex[2 * sizeof(key) + 1];
  km_convert_key_to_hex_ascii(key, sizeof(key), hex);
  Seed("hex_fuzzer", "key_256", Text(hex));
}

// ---- scrypt_fuzzer: N | r | p | output length | password length | password | salt
// -----------------

void ScryptSeeds() {
  struct Args {
    const char* name;
    uint64_t N;
    uint32_t r, p;
    uint64_t out_len;
    const char* password;
    const char* salt;
  } args[] = {
      {"rfc7914_1", 16, 1, 1, 64, "", ""},
      {"rfc7914_2", 1024, 8, 16, 64, "password", "NaCl"},
      {"record_default", 32768, 8, 2, 32, "password", "0123456789abcdef"},
      {"n_1", 1, 1, 1, 32, "p", "s"},
      {"n_0", 0, 8, 1, 32, "p", "s"},
      {"n_1000", 1000, 8, 1, 32, "p", "s"},
      {"r_0", 16, 0, 1, 32, "p", "s"},
      {"p_0", 16, 1, 0, 32, "p", "s"},
      {"r_p_too_large", 16, 1024, 1048576, 32, "p", "s"},
      {"output_too_large", 16, 1, 1, 137438953441ULL, "p", "s"},
      {"n_huge", 1ULL << 63, 8, 1, 32, "p", "s"},
      {"area_wraps", 2, 1u << 25, 1, 32, "p", "s"},
  };
  for (const Args& a : args) {
    Seed("scrypt_fuzzer", a.name,
         Writer()
             .U64(a.N)
             .U32(a.r)
             .U32(a.p)
             .U64(a.out_len)
             .U16(static_cast<uint16_t>(strlen(a.password)))
             .Bytes(a.password, strlen(a.password))
             .Bytes(a.salt, strlen(a.salt))
             .data());
  }
}

// ---- keymaster_blob_fuzzer
// ------------------------------------------------------------------------

Bytes Serialized(const hw::AuthorizationSet& set) {
  std::ostringstream out;
  set.Serialize(&out);
  std::string s = out.str();
  return Bytes(s.begin(), s.end());
}

Bytes GenerateKey(const hw::AuthorizationSet& params) {
  auto devices = hw::support::Keymaster::enumerateAvailableDevices();
  if (devices.empty()) Fail("no Keymaster device");
  hw::ErrorCode error = hw::ErrorCode::UNKNOWN_ERROR;
  Bytes blob;
  devices[0]->generateKey(params.hidl_data(), [&](hw::ErrorCode e, const hidl_vec<uint8_t>& b,
                                                  const hw::KeyCharacteristics&) {
    error = e;
    blob.assign(b.begin(), b.end());
  });
  if (error != hw::ErrorCode::OK) Fail("generateKey failed");
  return blob;
}

void KeyBlobSeeds() {
  const uint8_t nonce[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  // The object-encryption key and its operation parameters.
  hw::AuthorizationSetBuilder aes_key;
  aes_key.Authorization(hw::TAG_ALGORITHM, hw::Algorithm::AES)
      .Authorization(hw::TAG_KEY_SIZE, 256)
      .Authorization(hw::TAG_PURPOSE, hw::KeyPurpose::ENCRYPT)
      .Authorization(hw::TAG_PURPOSE, hw::KeyPurpose::DECRYPT)
      .Authorization(hw::TAG_BLOCK_MODE, hw::BlockMode::GCM)
      .Authorization(hw::TAG_CALLER_NONCE)
      .Authorization(hw::TAG_NO_AUTH_REQUIRED)
      .Authorization(hw::TAG_MIN_MAC_LENGTH, 128)
      .Padding(hw::PaddingMode::NONE);
  hw::AuthorizationSetBuilder aes_op;
  aes_op.Authorization(hw::TAG_ALGORITHM, hw::Algorithm::AES)
      .Authorization(hw::TAG_KEY_SIZE, 256)
      .Authorization(hw::TAG_BLOCK_MODE, hw::BlockMode::GCM)
      .Authorization(hw::TAG_MAC_LENGTH, 128)
      .Authorization(hw::TAG_NONCE, nonce, sizeof(nonce))
      .Padding(hw::PaddingMode::NONE);
  // The scrypt-binding signing key and its operation parameters.
  hw::AuthorizationSetBuilder rsa_key;
  rsa_key.RsaSigningKey(2048, 65537)
      .NoDigestOrPadding()
      .Authorization(hw::TAG_BLOB_USAGE_REQUIREMENTS, hw::KeyBlobUsageRequirements::STANDALONE)
      .Authorization(hw::TAG_NO_AUTH_REQUIRED)
      .Authorization(hw::TAG_MIN_SECONDS_BETWEEN_OPS, 1);
  hw::AuthorizationSetBuilder rsa_op;
  rsa_op.NoDigestOrPadding();

  Bytes aes_input(32, 0x5A);
  Bytes rsa_input(256, 0x11);
  rsa_input[0] = 0;  // below the modulus

  struct Key {
    const char* name;
    const hw::AuthorizationSet* key_params;
    const hw::AuthorizationSet* op_params;
    hw::KeyPurpose purpose;
    const Bytes* input;
  } keys[] = {
      {"aes_encrypt", &aes_key, &aes_op, hw::KeyPurpose::ENCRYPT, &aes_input},
      {"rsa_sign", &rsa_key, &rsa_op, hw::KeyPurpose::SIGN, &rsa_input},
  };
  for (const Key& k : keys) {
    for (bool old : {false, true}) {
      tavikm_fuzz::ResetFuzzDevice();
      property_set("host.keymaster.devices", "TRUSTED_ENVIRONMENT");
      if (old) property_set("ro.build.version.security_patch", kOldPatchLevel);
      const Bytes blob = GenerateKey(*k.key_params);
      const std::string name = std::string(k.name) + (old ? "_needs_upgrade" : "");
      const Bytes params = Serialized(*k.op_params);
      auto header = [&](uint8_t flags) {
        Writer w;
        w.U8(flags).U8(static_cast<uint8_t>(k.purpose));
        w.U16(static_cast<uint16_t>(params.size())).Bytes(params);
        w.U16(static_cast<uint16_t>(k.input->size())).Bytes(*k.input);
        return w;
      };
      // Level bits 1: the TRUSTED_ENVIRONMENT device that made the keys.
      Seed("keymaster_blob_fuzzer", name + "_raw", header(1).Bytes(blob).data());

      tavikm_host::km::KeyBlobContents contents;
      if (!tavikm_host::km::OpenKeyBlob(blob.data(), blob.size(), &contents)) Fail("OpenKeyBlob");
      Writer sealed = header(1 | 4);
      sealed.U32(contents.level)
          .U16(static_cast<uint16_t>(contents.material.size()))
          .Bytes(contents.material.data(), contents.material.size())
          .Bytes(Serialized(contents.authorizations))
          .Bytes(Serialized(contents.hidden));
      Seed("keymaster_blob_fuzzer", name + "_sealed", sealed.data());
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s CORPUS_DIR\n", argv[0]);
    return 2;
  }
  g_corpus = fs::absolute(argv[1]);
  tavikm_fuzz::InitFuzzDevice();
  for (const char* target : {"metadata_file_fuzzer", "secure_storage_record_fuzzer", "hex_fuzzer",
                             "scrypt_fuzzer", "keymaster_blob_fuzzer", "kek_record_fuzzer"}) {
    fs::remove_all(g_corpus / target);
  }
  MetadataFileSeeds();
  HexSeeds();
  ScryptSeeds();
  KeyBlobSeeds();
  RecordSeeds();
  KekSeeds();
  printf("seeds written to %s\n", g_corpus.c_str());
  return 0;
}
