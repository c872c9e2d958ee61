// Signatures in minisign's format. Those of releases are made with `minisign -S` where no network
// reaches; a lead signs what it pushes itself, with a key without a password (minisign -G -W).
//
// A signature file has four lines: a comment that nothing protects, the signature of the
// BLAKE2b-512 hash of the signed file, a trusted comment, and the signature of the first signature
// together with the trusted comment. Signatures over the file itself (minisign -l) are refused: a
// signature over a hash could otherwise be taken for one over a file of 64 bytes.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "crypto.h"

namespace pkgdist::release {

using KeyId = std::array<uint8_t, 8>;

struct PublicKey {
  KeyId id{};
  std::array<uint8_t, kEd25519KeyBytes> key{};
};

// As minisign prints it: sixteen hexadecimal digits, the highest byte first.
std::string key_text(const KeyId& id);

// The text of a public key file, or its second line alone. Throws Refused(kKey).
PublicKey parse_public_key(std::string_view text);

// All files NAME.pub of a directory, or the one file. Throws Refused(kKey) for one that is none,
// and when there is none at all; std::runtime_error when they cannot be read.
std::vector<PublicKey> read_public_keys(const std::filesystem::path& path);

// The key that signed. Throws Refused unless both signatures hold, with one of `keys`, and the
// trusted comment is `expected_comment`.
const PublicKey& verify_signature(std::string_view signed_bytes, std::string_view signature_file,
                                  const std::vector<PublicKey>& keys,
                                  std::string_view expected_comment);

struct SecretKey {
  KeyId id{};
  Ed25519Seed seed{};
};

// Throws Refused(kKey) for a file that is no secret key, has a password, or can be read by others
// than its owner and group; std::runtime_error when it cannot be read.
SecretKey read_secret_key(const std::filesystem::path& path);

// A signature file, as `minisign -S` writes it.
std::string sign(std::string_view bytes, const SecretKey& key, std::string_view trusted_comment);

// Largest signature file that is looked at; minisign's own have some hundred bytes.
inline constexpr size_t kMaxSignatureFileBytes = 16384;

}  // namespace pkgdist::release
