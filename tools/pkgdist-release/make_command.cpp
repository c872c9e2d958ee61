// make: scans a directory and writes its manifest and leaf file. Signatures of an earlier manifest
// are removed: they would only be refused.
#include <fmt/core.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cerrno>

#include "commands.h"
#include "counted.h"
#include "output.h"
#include "refusal.h"
#include "signatures.h"
#include "stored_release.h"
#include "tree.h"

namespace pkgdist::release_program {

namespace {

void remove_if_there(int directory, const char* path) {
  if (unlinkat(directory, path, 0) != 0 && errno != ENOENT) release::throw_errno("removing", path);
}

release::Manifest describe(const ReleaseOptions& options, std::vector<release::Entry> entries) {
  release::Manifest manifest;
  manifest.name = options.name;
  manifest.version = options.version;
  manifest.leaf = release::kLeafBytes;
  manifest.floor = options.floor;
  manifest.expires = options.expires;
  manifest.entries = std::move(entries);
  return manifest;
}

}  // namespace

int make_command(const ReleaseOptions& options) {
  if (options.floor > options.version)
    throw CLI::ValidationError("--floor must not be above --version");
  release::check_name(options.name);
  const release::Fd directory = open_directory(options.path);
  release::HashCache cache(options.cache, release::kLeafBytes);
  release::ScannedTree tree =
      release::scan_tree(options.path, {release::kLeafBytes, options.threads, &cache});
  const std::string leaves = release::format_leaves(tree);
  const release::Manifest manifest = describe(options, std::move(tree.entries));
  release::check_entries(
      manifest, options.allow_setuid ? release::SetId::kAllowed : release::SetId::kRefused);
  const std::string text = release::format(manifest);

  constexpr mode_t kDirectoryMode = 0755;
  if (mkdirat(directory.get(), release::kReleaseDirectory, kDirectoryMode) != 0 && errno != EEXIST)
    release::throw_errno("making", release::kReleaseDirectory);
  for (const std::string& path : release::signature_paths())
    remove_if_there(directory.get(), path.c_str());
  if (leaves.empty())
    remove_if_there(directory.get(), release::kLeavesPath);
  else
    replace_file(directory.get(), release::kLeavesPath, leaves);
  replace_file(directory.get(), release::kManifestPath, text);
  cache.save();
  const std::string path = options.path + "/" + release::kManifestPath;
  cli::standard_output().line(fmt::format("{}: {}, {}; sign it with\nminisign -Sm {} -t '{}'", path,
                                          cli::counted(manifest.entries.size(), "entry", "entries"),
                                          cli::counted(release::total_bytes(manifest), "byte"),
                                          path, release::head_line(manifest)),
                              cli::Output::Kind::kResult);
  return cli::kExitOk;
}

}  // namespace pkgdist::release_program
