#include "crypto.h"

#include <openssl/evp.h>

#include <algorithm>
#include <stdexcept>

namespace pkgdist::release {

namespace {

void must(bool succeeded, const char* what) {
  if (!succeeded) throw std::runtime_error(std::string("libcrypto: ") + what + " failed");
}

EVP_MD_CTX* context_of(void* context) {
  return static_cast<EVP_MD_CTX*>(context);
}

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Context = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

Key key_of(const Ed25519Seed& seed) {
  Key key(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed.data(), seed.size()),
          EVP_PKEY_free);
  must(key != nullptr, "Ed25519");
  return key;
}

int lower_hex_value(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

}  // namespace

void Sha256::Deleter::operator()(void* context) const {
  EVP_MD_CTX_free(context_of(context));
}

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
  must(context_ != nullptr, "EVP_MD_CTX_new");
  must(EVP_DigestInit_ex(context_of(context_.get()), EVP_sha256(), nullptr) == 1, "SHA-256");
}

void Sha256::add(Bytes bytes) {
  must(EVP_DigestUpdate(context_of(context_.get()), bytes.data(), bytes.size()) == 1, "SHA-256");
}

Digest Sha256::finish() {
  Digest digest;
  must(EVP_DigestFinal_ex(context_of(context_.get()), digest.data(), nullptr) == 1, "SHA-256");
  return digest;
}

Digest sha256(Bytes bytes) {
  Sha256 hash;
  hash.add(bytes);
  return hash.finish();
}

std::array<uint8_t, 64> blake2b512(Bytes bytes) {
  std::array<uint8_t, 64> digest;
  must(EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_blake2b512(), nullptr) ==
           1,
       "BLAKE2b");
  return digest;
}

bool ed25519_holds(std::span<const uint8_t, kEd25519KeyBytes> key, Bytes message,
                   std::span<const uint8_t, kEd25519SignatureBytes> signature) {
  const Key pkey(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, key.data(), key.size()),
                 EVP_PKEY_free);
  if (pkey == nullptr) return false;
  const Context context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  must(context != nullptr, "EVP_MD_CTX_new");
  if (EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, pkey.get()) != 1) return false;
  return EVP_DigestVerify(context.get(), signature.data(), signature.size(), message.data(),
                          message.size()) == 1;
}

std::array<uint8_t, kEd25519KeyBytes> ed25519_public(const Ed25519Seed& seed) {
  const Key key = key_of(seed);
  std::array<uint8_t, kEd25519KeyBytes> bytes;
  size_t size = bytes.size();
  must(EVP_PKEY_get_raw_public_key(key.get(), bytes.data(), &size) == 1, "Ed25519");
  return bytes;
}

std::array<uint8_t, kEd25519SignatureBytes> ed25519_sign(const Ed25519Seed& seed, Bytes message) {
  const Key key = key_of(seed);
  const Context context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  must(context != nullptr, "EVP_MD_CTX_new");
  must(EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1, "Ed25519");
  std::array<uint8_t, kEd25519SignatureBytes> signature;
  size_t size = signature.size();
  must(EVP_DigestSign(context.get(), signature.data(), &size, message.data(), message.size()) == 1,
       "Ed25519");
  return signature;
}

std::string to_hex(Bytes bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const uint8_t byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::optional<Digest> digest_from_hex(std::string_view text) {
  Digest digest;
  if (text.size() != digest.size() * 2) return std::nullopt;
  for (size_t i = 0; i < digest.size(); ++i) {
    const int high = lower_hex_value(text[2 * i]);
    const int low = lower_hex_value(text[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    digest[i] = static_cast<uint8_t>(high * 16 + low);
  }
  return digest;
}

std::string to_base64(Bytes bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');  // with the zero that is written
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(length));
  return text;
}

std::optional<std::vector<uint8_t>> from_base64(std::string_view text) {
  constexpr size_t kMostBytes = 4096;  // far above keys and signatures
  if (text.empty() || text.size() % 4 != 0 || text.size() > kMostBytes) return std::nullopt;
  std::vector<uint8_t> bytes(text.size() / 4 * 3);
  if (EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(text.data()),
                      static_cast<int>(text.size())) < 0)
    return std::nullopt;
  const size_t padding = std::min<size_t>(2, text.size() - text.find_last_not_of('=') - 1);
  bytes.resize(bytes.size() - padding);
  // The decoder is lenient about spaces and unused bits.
  if (to_base64(bytes) != text) return std::nullopt;
  return bytes;
}

}  // namespace pkgdist::release
