#include "signatures.h"

#include <fcntl.h>
#include <fmt/core.h>

#include <algorithm>
#include <cerrno>

#include "file_io.h"
#include "manifest.h"

namespace pkgdist::release {

namespace {

std::string path_in(const std::string& directory, const std::string& path) {
  return directory.empty() ? path : directory + "/" + path;
}

// The name of a key is not signed, so that one key could have two of them.
bool is_same(const PublicKey& a, const PublicKey& b) {
  return a.id == b.id || a.key == b.key;
}

// Keys that were found to have signed, each once.
struct Tally {
  struct Counted {
    const PublicKey* key = nullptr;
    size_t file = 0;
  };
  std::vector<Counted> counted;
  std::string others;  // why the other files do not count

  void add(const SignatureFile& file, const PublicKey& key, size_t index,
           const std::vector<SignatureFile>& files) {
    const auto known = std::find_if(counted.begin(), counted.end(),
                                    [&](const Counted& one) { return is_same(*one.key, key); });
    if (known == counted.end()) return counted.push_back({&key, index});
    leave_out(file, fmt::format("key {} has signed {} already", key_text(key.id),
                                files[known->file].path));
  }
  void leave_out(const SignatureFile& file, const std::string& why) {
    others += fmt::format("; {}: {}", file.path, why);
  }
};

const PublicKey& key_of(std::string_view signed_bytes, const SignatureFile& file,
                        const std::vector<PublicKey>& keys, std::string_view expected_comment) {
  if (file.unreadable) throw Refused(*file.unreadable);
  return verify_signature(signed_bytes, file.text, keys, expected_comment);
}

std::string too_few_text(size_t there, size_t threshold, size_t trusted) {
  const std::string needed =
      threshold == 1 ? "a signature by a trusted key is"
                     : fmt::format("signatures by {} of {} trusted keys are", threshold, trusted);
  const std::string counted = there == 0 ? "none" : std::to_string(there);
  return fmt::format("{} needed, {} {} there", needed, counted, there < 2 ? "is" : "are");
}

size_t distinct(const std::vector<PublicKey>& keys) {
  size_t count = 0;
  for (auto key = keys.begin(); key != keys.end(); ++key)
    if (std::none_of(keys.begin(), key, [&](const PublicKey& one) { return is_same(one, *key); }))
      ++count;
  return count;
}

}  // namespace

const std::array<std::string, kMaxSignatures>& signature_paths() {
  static const std::array<std::string, kMaxSignatures> paths = [] {
    std::array<std::string, kMaxSignatures> made;
    for (size_t i = 0; i < made.size(); ++i)
      made[i] = i == 0 ? kSignaturePath : fmt::format("{}.{}", kSignaturePath, i + 1);
    return made;
  }();
  return paths;
}

bool is_signature_path(std::string_view path) {
  const auto& paths = signature_paths();
  return std::find(paths.begin(), paths.end(), path) != paths.end();
}

std::vector<std::string> signatures_in(int at, const std::string& directory) {
  std::vector<std::string> paths;
  for (const std::string& path : signature_paths())
    if (Fd(open_beneath(at, path_in(directory, path).c_str(), O_PATH)) || errno != ENOENT)
      paths.push_back(path);
  if (paths.empty()) paths.push_back(kSignaturePath);
  return paths;
}

std::vector<SignatureFile> read_signatures(int at, const std::string& directory) {
  std::vector<SignatureFile> files;
  for (const std::string& path : signatures_in(at, directory)) {
    SignatureFile& file = files.emplace_back();
    file.path = path;
    try {
      file.text = read_beneath(at, path_in(directory, path).c_str(), kMaxSignatureFileBytes);
    } catch (const Refused& refused) {
      file.unreadable = refused;
    }
  }
  return files;
}

std::vector<Signer> verify_signatures(std::string_view signed_bytes,
                                      const std::vector<SignatureFile>& files,
                                      const std::vector<PublicKey>& keys, size_t threshold,
                                      std::string_view expected_comment) {
  require_keys(keys, threshold);
  const bool single = threshold == 1 && files.size() == 1;
  Tally tally;
  for (size_t i = 0; i < files.size(); ++i) {
    try {
      tally.add(files[i], key_of(signed_bytes, files[i], keys, expected_comment), i, files);
    } catch (const Refused& refused) {
      if (single) throw;
      tally.leave_out(files[i], refused.what());
    }
  }
  if (tally.counted.size() < threshold)
    throw Refused(Reason::kThreshold,
                  too_few_text(tally.counted.size(), threshold, distinct(keys)) + tally.others);
  std::vector<Signer> signers;
  signers.reserve(tally.counted.size());
  for (const auto& [key, file] : tally.counted) signers.push_back({key_text(key->id), file});
  return signers;
}

std::vector<std::string> signing_keys(const std::vector<Signer>& signers) {
  std::vector<std::string> keys;
  keys.reserve(signers.size());
  for (const Signer& signer : signers) keys.push_back(signer.key);
  return keys;
}

void require_keys(const std::vector<PublicKey>& keys, size_t threshold) {
  const size_t trusted = distinct(keys);
  if (trusted >= threshold) return;
  throw Refused(Reason::kThreshold,
                fmt::format("{} signatures by different keys are needed, and only {} {} trusted",
                            threshold, trusted, trusted == 1 ? "is" : "are"));
}

}  // namespace pkgdist::release
