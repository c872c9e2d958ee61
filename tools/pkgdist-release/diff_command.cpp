// diff: what an update from one release to another changes, and what a lead has to send for it.
#include <fmt/core.h>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "counted.h"
#include "output.h"
#include "printable.h"
#include "stored_release.h"
#include "tree.h"

namespace pkgdist::release_program {

namespace {

nlohmann::ordered_json paths(const std::vector<const release::Entry*>& entries) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const release::Entry* entry : entries) list.push_back(release::escape(entry->path));
  return list;
}

std::string as_json(const release::Update& update) {
  return cli::json_line({{"added", paths(update.added)},
                         {"changed", paths(update.changed)},
                         {"removed", paths(update.removed)},
                         {"sent", paths(update.sent)},
                         {"bytes", update.bytes}});
}

std::string as_text(const release::Update& update) {
  std::string text;
  const auto add = [&](char mark, const std::vector<const release::Entry*>& entries) {
    for (const release::Entry* entry : entries)
      text += fmt::format("{} {}\n", mark, cli::printable(release::escape(entry->path)));
  };
  add('-', update.removed);
  add('+', update.added);
  add('~', update.changed);
  return text + fmt::format("{} removed, {} added, {} changed; to send: {}, {}\n",
                            update.removed.size(), update.added.size(), update.changed.size(),
                            cli::counted(update.sent.size(), "file"),
                            cli::counted(update.bytes, "byte"));
}

}  // namespace

int diff_command(const ReleaseOptions& options) {
  const auto before = release::parse(read_manifest(options.path), release::SetId::kAllowed);
  const auto after = release::parse(read_manifest(options.other), release::SetId::kAllowed);
  const release::Update update = release::compare(before, after);
  cli::standard_output().write(options.json ? as_json(update) + "\n" : as_text(update),
                               cli::Output::Kind::kResult);
  return cli::kExitOk;
}

}  // namespace pkgdist::release_program
