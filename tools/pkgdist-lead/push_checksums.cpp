#include "push_checksums.h"

#include <fmt/core.h>

#include <nlohmann/json.hpp>
#include <optional>

#include "minisign.h"
#include "push_manifest.h"
#include "refusal.h"
#include "stop_signals.h"

namespace pkgdist::lead_program {

PushChecksums make_checksums(const std::string& root, const std::vector<lead::PushFile>& files,
                             const LeadOptions& options, Reporter& reporter) {
  std::optional<release::SecretKey> key;
  if (!options.checksum_key.empty()) key = release::read_secret_key(options.checksum_key);
  std::vector<std::string> names;
  for (const lead::PushFile& file : files) names.push_back(file.name);
  const release::HashedNames hashed =
      release::hash_names(root, std::move(names), [] { return cli::stop_signal() == 0; });
  for (const release::NamedProblem& problem : hashed.problems) {
    reporter.json().print("not-compared", {{"name", problem.name}, {"text", problem.text}},
                          cli::Output::Kind::kResult);
    reporter.say(fmt::format("{} is not compared: {}", problem.name, problem.text),
                 cli::Output::Kind::kResult);
  }
  PushChecksums made{.left_out = hashed.problems.size()};
  for (release::PushManifest& part :
       release::push_manifests(hashed.entries, kChecksumBytes, kComparedBytes)) {
    std::string signature =
        key ? release::sign(part.text, *key, release::push_comment(options.location)) : "";
    made.parts.push_back({std::move(part.text), std::move(signature), part.bytes});
  }
  return made;
}

}  // namespace pkgdist::lead_program
