// What releases need of cryptography, on libcrypto: SHA-256, BLAKE2b-512, Ed25519, and the two
// text encodings. Functions throw std::runtime_error when libcrypto itself fails.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pkgdist::release {

using Bytes = std::span<const uint8_t>;
using Digest = std::array<uint8_t, 32>;  // SHA-256

inline Bytes bytes_of(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

class Sha256 {
 public:
  Sha256();
  void add(Bytes bytes);
  // Once.
  Digest finish();

 private:
  struct Deleter {
    void operator()(void* context) const;
  };
  std::unique_ptr<void, Deleter> context_;
};

Digest sha256(Bytes bytes);
std::array<uint8_t, 64> blake2b512(Bytes bytes);

inline constexpr size_t kEd25519KeyBytes = 32;
inline constexpr size_t kEd25519SignatureBytes = 64;
bool ed25519_holds(std::span<const uint8_t, kEd25519KeyBytes> key, Bytes message,
                   std::span<const uint8_t, kEd25519SignatureBytes> signature);

using Ed25519Seed = std::array<uint8_t, 32>;  // the secret half of a key
std::array<uint8_t, kEd25519KeyBytes> ed25519_public(const Ed25519Seed& seed);
std::array<uint8_t, kEd25519SignatureBytes> ed25519_sign(const Ed25519Seed& seed, Bytes message);

std::string to_hex(Bytes bytes);
// Lower case only: one text for one digest.
std::optional<Digest> digest_from_hex(std::string_view text);

std::string to_base64(Bytes bytes);
// Only what to_base64() gives: without spaces, with its padding.
std::optional<std::vector<uint8_t>> from_base64(std::string_view text);

}  // namespace pkgdist::release
