// SPDX-License-Identifier: Apache-2.0
// Fuzz target: a metadata file of any length and content, read through km_get_km_meta at any
// offset. Input: offset (8 bytes, little-endian), then the file's whole content.
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "fuzz_env.h"
#include "tavikm.h"

namespace {

std::string g_path;

void WriteMetadataFile(const uint8_t* data, size_t size) {
  int fd = open(g_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) abort();
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n <= 0) abort();
    data += n;
    size -= static_cast<size_t>(n);
  }
  close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tavikm_fuzz::InitFuzzDevice();
  g_path = tavikm_fuzz::FuzzDeviceDir() + "/metadata";
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tavikm_fuzz::Reader in(data, size);
  const uint64_t offset = in.U64();
  const std::vector<uint8_t> file = in.Rest();
  WriteMetadataFile(file.data(), file.size());

  // A heap record, so that a read past its 2704 bytes is caught.
  km_meta* meta = static_cast<km_meta*>(malloc(sizeof(km_meta)));
  const int rc = km_get_km_meta(g_path.c_str(), offset, meta);
  if (rc != 0 && rc != -1) abort();
  if (rc == 0) {
    // Handed out only from a file of the fixed length, with the magic checked and the major
    // version repaired; every other byte is the file's, at the offset.
    if (file.size() != KM_METADATA_FILE_SIZE || offset > file.size() - KM_META_SIZE) abort();
    if (meta->magic != KM_META_MAGIC || meta->major_version != KM_META_MAJOR_VERSION) abort();
    km_meta expected;
    memcpy(&expected, file.data() + offset, sizeof(expected));
    expected.major_version = KM_META_MAJOR_VERSION;
    if (memcmp(&expected, meta, sizeof(expected)) != 0) abort();
  }
  free(meta);
  return 0;
}
