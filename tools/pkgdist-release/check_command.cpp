// check: the signatures, the leaf file and every entry of a release.
#include <fmt/format.h>

#include <algorithm>

#include "commands.h"
#include "counted.h"
#include "output.h"
#include "refusal.h"
#include "signatures.h"
#include "stored_release.h"
#include "tree.h"

namespace pkgdist::release_program {

namespace {

void say(const std::string& line) {
  cli::standard_output().line(line, cli::Output::Kind::kResult);
}

// The text is believed only after its signatures; without keys nobody vouches for it.
std::string signed_by(const ReleaseOptions& options, int directory, const std::string& text) {
  if (options.keys.empty()) return "signature not checked (--keys)";
  const auto keys = release::read_public_keys(options.keys);
  const auto signers = release::verify_signatures(text, release::read_signatures(directory), keys,
                                                  options.threshold, release::first_line(text));
  return fmt::format("signed with key{} {}", signers.size() == 1 ? "" : "s",
                     fmt::join(release::signing_keys(signers), ", "));
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
  const std::string signers = signed_by(options, directory.get(), text);
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
                  cli::counted(release::total_bytes(manifest), "byte"), signers));
  return cli::kExitOk;
}

}  // namespace pkgdist::release_program
