// check: the signature, the leaf file and every entry of a release.
#include <fmt/core.h>

#include <algorithm>

#include "commands.h"
#include "counted.h"
#include "minisign.h"
#include "output.h"
#include "refusal.h"
#include "stored_release.h"
#include "tree.h"

namespace pkgdist::release_program {

namespace {

void say(const std::string& line) {
  cli::standard_output().line(line, cli::Output::Kind::kResult);
}

// The text is believed only after its signature; without keys nobody vouches for it.
std::string signer(const ReleaseOptions& options, int directory, const std::string& text) {
  if (options.keys.empty()) return "signature not checked (--keys)";
  const std::string signature =
      release::read_beneath(directory, release::kSignaturePath, release::kMaxSignatureFileBytes);
  const auto keys = release::read_public_keys(options.keys);
  const auto& key = release::verify_signature(text, signature, keys, release::first_line(text));
  return "signed with key " + release::key_text(key.id);
}

void check_leaves(int directory, const release::Manifest& manifest) {
  const bool has_leaves = std::any_of(manifest.entries.begin(), manifest.entries.end(),
                                      [&](const release::Entry& entry) {
                                        return release::leaf_count(entry.size, manifest.leaf) != 0;
                                      });
  if (!has_leaves) return;
  constexpr size_t kMostBytes = size_t{1} << 30;  // those of 2 TiB
  (void)release::parse_leaves(release::read_beneath(directory, release::kLeavesPath, kMostBytes),
                              manifest);
}

}  // namespace

int check_command(const ReleaseOptions& options) {
  const release::Fd directory = open_directory(options.path);
  const std::string text = read_manifest(options.path);
  const std::string signed_by = signer(options, directory.get(), text);
  const release::Manifest manifest = release::parse(
      text, options.allow_setuid ? release::SetId::kAllowed : release::SetId::kRefused);
  check_leaves(directory.get(), manifest);
  const release::ScannedTree tree =
      release::scan_tree(options.path, {manifest.leaf, options.threads, nullptr});
  const auto different = release::differences(manifest, tree);
  for (const std::string& line : different) say(line);
  if (!different.empty())
    throw release::Refused(
        release::Reason::kTree,
        fmt::format("{} from the manifest",
                    cli::counted(different.size(), "entry differs", "entries differ")));
  say(fmt::format("{} version {}: {}, {}, as the manifest says; {}", manifest.name,
                  manifest.version, cli::counted(manifest.entries.size(), "entry", "entries"),
                  cli::counted(release::total_bytes(manifest), "byte"), signed_by));
  return cli::kExitOk;
}

}  // namespace pkgdist::release_program
