// show: what a manifest says. Its signature is not looked at.
#include <fmt/core.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "counted.h"
#include "output.h"
#include "printable.h"
#include "stored_release.h"

namespace pkgdist::release_program {

namespace {

struct Counts {
  size_t directories = 0;
  size_t files = 0;
  size_t links = 0;
};

Counts count(const release::Manifest& manifest) {
  Counts counts;
  for (const release::Entry& entry : manifest.entries) {
    if (entry.kind == release::Kind::kDirectory) ++counts.directories;
    if (entry.kind == release::Kind::kFile) ++counts.files;
    if (entry.kind == release::Kind::kLink) ++counts.links;
  }
  return counts;
}

nlohmann::ordered_json entry_json(const release::Entry& entry) {
  nlohmann::ordered_json json = {{"kind", std::string(1, static_cast<char>(entry.kind))},
                                 {"path", release::escape(entry.path)}};
  if (entry.kind != release::Kind::kLink) json["mode"] = fmt::format("{:04o}", entry.mode);
  if (entry.kind == release::Kind::kLink) json["target"] = release::escape(entry.target);
  if (entry.kind == release::Kind::kFile) {
    json["size"] = entry.size;
    json["mtime"] = entry.mtime;
    json["digest"] = release::to_hex(entry.digest);
  }
  return json;
}

std::string as_json(const release::Manifest& manifest, const std::string& digest, bool entries) {
  const Counts counts = count(manifest);
  nlohmann::ordered_json json = {{"name", manifest.name},
                                 {"version", manifest.version},
                                 {"floor", manifest.floor},
                                 {"sha256", digest},
                                 {"directories", counts.directories},
                                 {"files", counts.files},
                                 {"links", counts.links},
                                 {"bytes", release::total_bytes(manifest)}};
  if (manifest.expires) json["expires"] = *manifest.expires;
  if (entries) {
    json["entries"] = nlohmann::ordered_json::array();
    for (const release::Entry& entry : manifest.entries)
      json["entries"].push_back(entry_json(entry));
  }
  return cli::json_line(json);
}

std::string as_text(const release::Manifest& manifest, const std::string& digest) {
  const Counts counts = count(manifest);
  return fmt::format(
      "name      {}\nversion   {}\nfloor     {}\nexpires   {}\nmanifest  {}\ncontent   {}, {}, {}, "
      "{}",
      manifest.name, manifest.version, manifest.floor, manifest.expires.value_or("never"), digest,
      cli::counted(counts.directories, "directory", "directories"),
      cli::counted(counts.files, "file"), cli::counted(counts.links, "link"),
      cli::counted(release::total_bytes(manifest), "byte"));
}

// The manifest, which has names and bytes from outside.
void print_lines(cli::Output& output, std::string_view text) {
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    output.line(text.substr(0, end), cli::Output::Kind::kResult);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

}  // namespace

int show_command(const ReleaseOptions& options) {
  const std::string text = read_manifest(options.path);
  const release::Manifest manifest = release::parse(text, release::SetId::kAllowed);
  const std::string digest = release::to_hex(release::sha256(release::bytes_of(text)));
  cli::Output& output = cli::standard_output();
  constexpr auto kResult = cli::Output::Kind::kResult;
  if (options.json) {
    output.line(as_json(manifest, digest, options.entries), kResult);
    return cli::kExitOk;
  }
  output.write(as_text(manifest, digest) + "\n", kResult);
  if (options.entries) print_lines(output, text);
  return cli::kExitOk;
}

}  // namespace pkgdist::release_program
