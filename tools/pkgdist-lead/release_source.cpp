#include "release_source.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>

#include "file_io.h"
#include "manifest.h"
#include "quick_check.h"
#include "signatures.h"
#include "tree.h"

namespace pkgdist::lead_program {

namespace {

using release::Entry;
using release::Fd;
using release::Manifest;

// Set-user-ID bits are for the nodes to refuse.
Manifest parse_manifest(const std::string& text) {
  return release::parse(text, release::SetId::kAllowed);
}

uint64_t size_beneath(int directory, const char* path) {
  const Fd file(release::open_beneath(directory, path, O_PATH));
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
    throw std::runtime_error(fmt::format("{} is missing", path));
  return static_cast<uint64_t>(status.st_size);
}

uint64_t leaf_bytes(const Manifest& manifest) {
  uint64_t leaves = 0;
  for (const Entry& entry : manifest.entries)
    leaves += release::leaf_count(entry.size, manifest.leaf);
  return leaves * sizeof(release::Digest);
}

// The manifest is the last one: a node that has it has the others.
std::vector<lead::PushFile> describe(int directory, const Manifest& manifest) {
  std::vector<lead::PushFile> files;
  const uint64_t leaves = leaf_bytes(manifest);
  if (leaves != 0) {
    if (size_beneath(directory, release::kLeavesPath) != leaves)
      throw std::runtime_error(
          fmt::format("{} does not belong to the manifest", release::kLeavesPath));
    files.push_back({release::kLeavesPath, leaves});
  }
  for (const std::string& path : release::signatures_in(directory))
    files.push_back({path, size_beneath(directory, path.c_str())});
  files.push_back({release::kManifestPath, size_beneath(directory, release::kManifestPath)});
  return files;
}

}  // namespace

OpenedRelease open_release(const std::string& directory, bool verify) {
  const Fd root(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root) release::throw_errno("opening", directory);
  const std::string text =
      release::read_beneath(root.get(), release::kManifestPath, release::kMaxManifestBytes);
  const Manifest manifest = parse_manifest(text);
  OpenedRelease opened;
  ReleaseSource& source = opened.source;
  source.directory = std::filesystem::absolute(directory).lexically_normal().string();
  source.name = manifest.name;
  source.id = {manifest.version, release::to_hex(release::sha256(release::bytes_of(text)))};
  source.expires = manifest.expires.value_or("");
  source.description = describe(root.get(), manifest);
  for (const Entry& entry : manifest.entries)
    if (entry.kind == release::Kind::kFile) source.files.push_back({entry.path, entry.size});
  opened.differences =
      verify ? release::differences(manifest,
                                    release::scan_tree(directory, {manifest.leaf, 0, nullptr}))
             : release::quick_differences(manifest, directory);
  return opened;
}

}  // namespace pkgdist::lead_program
