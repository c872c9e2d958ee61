#include "minisign.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>

#include "refusal.h"

namespace pkgdist::release {

namespace {

constexpr std::string_view kUntrusted = "untrusted comment: ";
constexpr std::string_view kTrusted = "trusted comment: ";
constexpr std::string_view kHashedAlgorithm = "ED";
constexpr std::string_view kPlainAlgorithm = "Ed";
constexpr size_t kAlgorithmBytes = 2;
constexpr size_t kHeadBytes = kAlgorithmBytes + std::tuple_size_v<KeyId>;

// What the four lines of a signature file say.
struct Signature {
  std::string algorithm;
  KeyId key{};
  std::array<uint8_t, kEd25519SignatureBytes> bytes{};
  std::string_view comment;
  std::array<uint8_t, kEd25519SignatureBytes> comment_signature{};
};

[[noreturn]] void refuse_format(const std::string& what) {
  throw Refused(Reason::kSignature, "the signature file " + what);
}

// The next line without its end, which has to be there.
std::optional<std::string_view> take_line(std::string_view& rest) {
  const size_t end = rest.find('\n');
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view line = rest.substr(0, end);
  rest.remove_prefix(end + 1);
  return line;
}

std::string_view take_comment(std::string_view& rest, std::string_view prefix) {
  const auto line = take_line(rest);
  if (!line || !line->starts_with(prefix))
    refuse_format("lacks the line '" + std::string(prefix) + "...'");
  return line->substr(prefix.size());
}

std::vector<uint8_t> take_base64(std::string_view& rest, size_t size) {
  const auto line = take_line(rest);
  const auto bytes = line ? from_base64(*line) : std::nullopt;
  if (!bytes || bytes->size() != size) refuse_format("has a damaged signature line");
  return *bytes;
}

Signature parse_signature(std::string_view text) {
  if (text.size() > kMaxSignatureFileBytes) refuse_format("is too large");
  Signature signature;
  (void)take_comment(text, kUntrusted);
  const auto first = take_base64(text, kHeadBytes + kEd25519SignatureBytes);
  signature.algorithm.assign(first.begin(), first.begin() + kAlgorithmBytes);
  std::copy_n(first.begin() + kAlgorithmBytes, signature.key.size(), signature.key.begin());
  std::copy_n(first.begin() + kHeadBytes, signature.bytes.size(), signature.bytes.begin());
  signature.comment = take_comment(text, kTrusted);
  const auto second = take_base64(text, kEd25519SignatureBytes);
  std::copy_n(second.begin(), second.size(), signature.comment_signature.begin());
  if (!text.empty()) refuse_format("has more than four lines");
  return signature;
}

void check_algorithm(const Signature& signature) {
  if (signature.algorithm == kHashedAlgorithm) return;
  if (signature.algorithm == kPlainAlgorithm)
    throw Refused(Reason::kAlgorithm,
                  "the signature is over the file itself (minisign -l): sign without -l");
  refuse_format("names an unknown algorithm");
}

std::string read_text(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(file)), {});
  if (!file) throw std::runtime_error("cannot read " + path.string());
  return text;
}

// The second line of a secret key file: algorithms of the signature, of the password and of the
// check, what the password's needs, then these.
constexpr size_t kPasswordAt = kAlgorithmBytes;
constexpr size_t kSecretIdAt = 3 * kAlgorithmBytes + 48;
constexpr size_t kSeedAt = kSecretIdAt + std::tuple_size_v<KeyId>;
constexpr size_t kPublicAt = kSeedAt + std::tuple_size_v<Ed25519Seed>;
constexpr size_t kSecretBytes = kPublicAt + kEd25519KeyBytes + 32;  // the check is last

SecretKey parse_secret_key(std::string_view text) {
  if (text.starts_with(kUntrusted)) (void)take_line(text);
  const auto line = take_line(text);
  const auto bytes = line ? from_base64(*line) : std::nullopt;
  if (!bytes || bytes->size() != kSecretBytes ||
      !std::equal(kPlainAlgorithm.begin(), kPlainAlgorithm.end(), bytes->begin()))
    throw Refused(Reason::kKey, "this is no minisign secret key");
  if ((*bytes)[kPasswordAt] != 0 || (*bytes)[kPasswordAt + 1] != 0)
    throw Refused(Reason::kKey, "the secret key has a password (minisign -G -W makes one without)");
  SecretKey key;
  std::copy_n(bytes->begin() + kSecretIdAt, key.id.size(), key.id.begin());
  std::copy_n(bytes->begin() + kSeedAt, key.seed.size(), key.seed.begin());
  const auto own = ed25519_public(key.seed);
  if (!std::equal(own.begin(), own.end(), bytes->begin() + kPublicAt))
    throw Refused(Reason::kKey, "the secret key is damaged");
  return key;
}

std::string line_of(std::string_view algorithm, const KeyId& id, Bytes bytes) {
  std::vector<uint8_t> all(algorithm.begin(), algorithm.end());
  all.insert(all.end(), id.begin(), id.end());
  all.insert(all.end(), bytes.begin(), bytes.end());
  return to_base64(all);
}

}  // namespace

std::string key_text(const KeyId& id) {
  KeyId reversed;
  std::reverse_copy(id.begin(), id.end(), reversed.begin());
  std::string text = to_hex(reversed);
  std::transform(text.begin(), text.end(), text.begin(), [](char c) {
    return c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c;
  });
  return text;
}

PublicKey parse_public_key(std::string_view text) {
  if (text.starts_with(kUntrusted)) (void)take_line(text);
  if (text.ends_with('\n')) text.remove_suffix(1);
  const auto bytes = from_base64(text);
  if (!bytes || bytes->size() != kHeadBytes + kEd25519KeyBytes ||
      !std::equal(kPlainAlgorithm.begin(), kPlainAlgorithm.end(), bytes->begin()))
    throw Refused(Reason::kKey, "this is no minisign public key");
  PublicKey key;
  std::copy_n(bytes->begin() + kAlgorithmBytes, key.id.size(), key.id.begin());
  std::copy_n(bytes->begin() + kHeadBytes, key.key.size(), key.key.begin());
  return key;
}

std::vector<PublicKey> read_public_keys(const std::filesystem::path& path) {
  std::vector<std::filesystem::path> files;
  if (std::filesystem::is_directory(path)) {
    for (const auto& item : std::filesystem::directory_iterator(path))
      if (item.path().extension() == ".pub") files.push_back(item.path());
    std::sort(files.begin(), files.end());
  } else {
    files.push_back(path);
  }
  std::vector<PublicKey> keys;
  for (const auto& file : files) {
    try {
      keys.push_back(parse_public_key(read_text(file)));
    } catch (const Refused& refused) {
      throw Refused(refused.reason(), file.string() + ": " + refused.what());
    }
  }
  if (keys.empty()) throw Refused(Reason::kKey, path.string() + " has no file NAME.pub");
  return keys;
}

const PublicKey& verify_signature(std::string_view signed_bytes, std::string_view signature_file,
                                  const std::vector<PublicKey>& keys,
                                  std::string_view expected_comment) {
  const Signature signature = parse_signature(signature_file);
  check_algorithm(signature);
  const auto key = std::find_if(keys.begin(), keys.end(),
                                [&](const PublicKey& own) { return own.id == signature.key; });
  if (key == keys.end())
    throw Refused(Reason::kUnknownKey, "the manifest is signed with key " +
                                           key_text(signature.key) + ", which is not trusted here");
  if (!ed25519_holds(key->key, blake2b512(bytes_of(signed_bytes)), signature.bytes))
    throw Refused(Reason::kBadSignature, "the signature does not belong to the manifest");
  std::string commented(signature.bytes.begin(), signature.bytes.end());
  commented += signature.comment;
  if (!ed25519_holds(key->key, bytes_of(commented), signature.comment_signature))
    throw Refused(Reason::kBadComment, "the signature of the trusted comment is wrong");
  if (signature.comment != expected_comment)
    throw Refused(Reason::kRelabelled, "the trusted comment is not the first line of the manifest");
  return *key;
}

SecretKey read_secret_key(const std::filesystem::path& path) {
  using std::filesystem::perms;
  if ((std::filesystem::status(path).permissions() & perms::others_all) != perms::none)
    throw Refused(Reason::kKey, path.string() + ": others may read or write the secret key");
  try {
    return parse_secret_key(read_text(path));
  } catch (const Refused& refused) {
    throw Refused(refused.reason(), path.string() + ": " + refused.what());
  }
}

std::string sign(std::string_view bytes, const SecretKey& key, std::string_view trusted_comment) {
  const auto signature = ed25519_sign(key.seed, blake2b512(bytes_of(bytes)));
  std::string commented(signature.begin(), signature.end());
  commented += trusted_comment;
  std::string file(kUntrusted);
  file += "signature from pkgdist\n" + line_of(kHashedAlgorithm, key.id, signature) + "\n";
  file += std::string(kTrusted) + std::string(trusted_comment) + "\n";
  return file + to_base64(ed25519_sign(key.seed, bytes_of(commented))) + "\n";
}

}  // namespace pkgdist::release
