// Signatures of a release. A manifest may have up to nine of them, each a file of its own beside it
// and each a whole one, with the same trusted comment. A checker counts the keys: it wants
// signatures by so many different keys that it trusts, which is its threshold. A stolen key alone
// signs nothing then.
//
// A file that does not hold counts for nothing, and hinders nothing either: whoever sends a release
// may add files to it, but no signatures. What decides is how many keys have signed.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "minisign.h"
#include "refusal.h"

namespace pkgdist::release {

inline constexpr size_t kMaxSignatures = 9;

// In a release: .pkgdist/manifest.minisig, then the same with .2 to .9 behind it.
const std::array<std::string, kMaxSignatures>& signature_paths();
bool is_signature_path(std::string_view path);

// Those that a release has, in this order; when it has none, the first, which whoever opens it will
// find missing. `directory`: of the release, relative to `at`; "" for `at` itself.
std::vector<std::string> signatures_in(int at, const std::string& directory = "");

struct SignatureFile {
  std::string path;  // in the release
  std::string text;
  std::optional<Refused> unreadable;  // why there is no text
};

// The same with their texts. Throws std::runtime_error when there is none, or the disk fails.
std::vector<SignatureFile> read_signatures(int at, const std::string& directory = "");

struct Signer {
  std::string key;  // as key_text() has it
  size_t file = 0;  // of the files that were given, the one that holds
};

// The keys that signed, each once, in the order of the files. Throws Refused when they are fewer
// than `threshold`: of a single file that one signature would be enough for, as verify_signature()
// does, otherwise kThreshold, with a reason for each file that does not count.
std::vector<Signer> verify_signatures(std::string_view signed_bytes,
                                      const std::vector<SignatureFile>& files,
                                      const std::vector<PublicKey>& keys, size_t threshold,
                                      std::string_view expected_comment);

std::vector<std::string> signing_keys(const std::vector<Signer>& signers);

// Throws Refused(kThreshold) when no release could ever have so many signatures.
void require_keys(const std::vector<PublicKey>& keys, size_t threshold);

}  // namespace pkgdist::release
