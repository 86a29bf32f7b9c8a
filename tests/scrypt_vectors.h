// SPDX-License-Identifier: Apache-2.0
// Reads the scrypt known answers in tests/vectors/scrypt_rfc7914.txt for the scrypt suites.
#ifndef TAVIKM_TESTS_SCRYPT_VECTORS_H_
#define TAVIKM_TESTS_SCRYPT_VECTORS_H_

#include <stdint.h>

#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavikm_test {

struct ScryptVector {
  std::string password;
  std::string salt;
  uint64_t N = 0;
  uint32_t r = 0;
  uint32_t p = 0;
  std::vector<uint8_t> dk;

  uint64_t MemoryBytes() const { return 128ULL * r * N; }
  std::string Name() const {
    return "N" + std::to_string(N) + "_r" + std::to_string(r) + "_p" + std::to_string(p);
  }
};

inline std::vector<uint8_t> HexBytes(const std::string& hex) {
  if (hex.size() % 2 != 0) throw std::runtime_error("odd hex length: " + hex);
  std::vector<uint8_t> out;
  for (size_t i = 0; i < hex.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

// All vectors of the file, in file order; throws on a malformed file.
inline std::vector<ScryptVector> LoadScryptVectors() {
  const std::string path = std::string(TAVIKM_TEST_VECTORS_DIR) + "/scrypt_rfc7914.txt";
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot open " + path);
  std::vector<ScryptVector> vectors;
  std::map<std::string, std::string> block;
  auto flush = [&] {
    if (block.empty()) return;
    ScryptVector v;
    v.password = block.at("Password");
    v.salt = block.at("Salt");
    v.N = std::stoull(block.at("N"));
    v.r = static_cast<uint32_t>(std::stoul(block.at("r")));
    v.p = static_cast<uint32_t>(std::stoul(block.at("p")));
    v.dk = HexBytes(block.at("DK"));
    vectors.push_back(v);
    block.clear();
  };
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line[0] == '#') continue;
    const size_t eq = line.find(" =");
    if (eq == std::string::npos) {
      flush();
      continue;
    }
    std::string value = line.substr(eq + 2);
    if (!value.empty() && value[0] == ' ') value.erase(0, 1);
    block[line.substr(0, eq)] = value;
  }
  flush();
  return vectors;
}

}  // namespace tavikm_test

#endif  // TAVIKM_TESTS_SCRYPT_VECTORS_H_
