// Signs manifests as minisign does, with a key of its own that nobody stores.
#pragma once

#include <openssl/evp.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include "manifest.h"
#include "minisign.h"

class ReleaseSigner {
 public:
  // `id` tells keys apart.
  explicit ReleaseSigner(uint8_t id = 1) : key_(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519")) {
    public_.id.fill(id);
    size_t length = public_.key.size();
    EVP_PKEY_get_raw_public_key(key_.get(), public_.key.data(), &length);
  }

  const pkgdist::release::PublicKey& public_key() const { return public_; }

  std::string public_key_file() const {
    std::string bytes = "Ed";
    bytes.append(public_.id.begin(), public_.id.end());
    bytes.append(public_.key.begin(), public_.key.end());
    return "untrusted comment: a key\n" + base64(bytes) + "\n";
  }

  std::string sign(std::string_view text) const {
    return sign(text, pkgdist::release::first_line(text));
  }
  // `algorithm`: "ED" for the hash of the text, "Ed" for the text itself.
  std::string sign(std::string_view text, std::string_view comment,
                   const std::string& algorithm = "ED") const {
    using pkgdist::release::bytes_of;
    const auto hash = pkgdist::release::blake2b512(bytes_of(text));
    const std::string signature =
        raw(algorithm == "ED"
                ? std::string_view(reinterpret_cast<const char*>(hash.data()), hash.size())
                : text);
    std::string head = algorithm;
    head.append(public_.id.begin(), public_.id.end());
    return "untrusted comment: x\n" + base64(head + signature) +
           "\ntrusted comment: " + std::string(comment) + "\n" +
           base64(raw(signature + std::string(comment))) + "\n";
  }

 private:
  static std::string base64(std::string_view bytes) {
    return pkgdist::release::to_base64(pkgdist::release::bytes_of(bytes));
  }

  std::string raw(std::string_view message) const {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          EVP_MD_CTX_free);
    std::string signature(pkgdist::release::kEd25519SignatureBytes, '\0');
    size_t length = signature.size();
    EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key_.get());
    EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                   reinterpret_cast<const unsigned char*>(message.data()), message.size());
    return signature;
  }

  struct Deleter {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  };
  std::unique_ptr<EVP_PKEY, Deleter> key_;
  pkgdist::release::PublicKey public_;
};
