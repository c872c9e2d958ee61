// Manifests, signature files, public keys and leaf files of releases, with any bytes. The first
// byte says as what the rest is read. A manifest that is accepted has to be the only text of what
// was read from it; nothing that was not signed may be accepted as signed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "content.h"
#include "manifest.h"
#include "refusal.h"
#include "signatures.h"

namespace {

using namespace pkgdist::release;

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

void read_manifest(std::string_view text) {
  const Manifest manifest = parse(text, SetId::kAllowed);
  require(format(manifest) == text, "a manifest has one text");
}

// The manifest of the sample and the key of its signature, whose secret half nobody has kept. Zero
// bytes stand between the files of several signatures.
void read_signatures(std::string_view texts) {
  static const std::vector<PublicKey> keys = {
      parse_public_key("RWQBAQEBAQEBAQEBAQEBAQEBAQEBAQEBAQEBAQEBAQEBAQEBAQEBAQEB")};
  std::vector<SignatureFile> files;
  for (const std::string& path : signature_paths()) {
    const size_t end = std::min(texts.find('\0'), texts.size());
    files.push_back({path, std::string(texts.substr(0, end)), std::nullopt});
    if (end == texts.size()) break;
    texts.remove_prefix(end + 1);
  }
  (void)verify_signatures("pkgdist-release 1\n", files, keys, 1, "pkgdist-release 1");
  require(false, "nothing is signed");
}

void read_leaves(std::string_view bytes) {
  Manifest manifest;
  manifest.leaf = kLeafBytes;
  Entry entry;
  entry.size = kLeafBytes + 1;
  entry.path = "a";
  manifest.entries = {entry};
  (void)parse_leaves(bytes, manifest);
  require(false, "no leaves have the digest zero");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
  try {
    switch (data[0]) {
      case 'm':
        read_manifest(text);
        break;
      case 's':
        read_signatures(text);
        break;
      case 'k':
        (void)parse_public_key(text);
        break;
      case 'l':
        read_leaves(text);
        break;
      default:
        break;
    }
  } catch (const Refused&) {  // the other good outcome
  }
  return 0;
}
