#include "release_report.h"

#include <fmt/format.h>

#include <ctime>
#include <nlohmann/json.hpp>

#include "counted.h"
#include "expiry.h"

namespace pkgdist::node_program {

namespace {

using Json = nlohmann::ordered_json;

Json release_json(const std::optional<cli::ReleaseId>& release) {
  if (!release) return nullptr;
  return {{"version", release->version}, {"manifest", release->manifest}};
}

std::string files_text(uint64_t count) {
  return cli::counted(count, "file is missing", "files are missing");
}

std::string drift_text(uint64_t count) {
  if (count == 0) return "nothing differs";
  return cli::counted(count, "entry differs", "entries differ");
}

std::string release_text(const Json& release) {
  constexpr size_t kDigits = 16;  // as in the name of its directory
  if (release.is_null()) return "none";
  return fmt::format("version {} ({})", release.value("version", uint64_t{0}),
                     release.value("manifest", "").substr(0, kDigits));
}

}  // namespace

Json release_fields(const cli::ReleaseState& state) {
  Json fields{{"location", state.location},
              {"name", state.name},
              {"state", cli::phase_name(state.phase)},
              {"current", release_json(state.current)},
              {"candidate", release_json(state.candidate)},
              {"missing", state.missing},
              {"problem", state.problem},
              {"signers", state.signers}};
  if (!state.expires.empty()) fields["expires"] = state.expires;
  if (!state.drifted) return fields;
  fields["drifted"] = *state.drifted;
  fields["drift"] = state.drift;
  return fields;
}

std::string release_line(const cli::ReleaseState& state) {
  std::string text = fmt::format("release {}: {}", state.name, cli::phase_name(state.phase));
  const auto& about = state.candidate ? state.candidate : state.current;
  if (about) text += fmt::format(", version {}", about->version);
  if (state.phase == cli::ReleasePhase::kFetching) text += ", " + files_text(state.missing);
  if (state.drifted) text += ", " + drift_text(*state.drifted);
  const std::string warning = cli::expiry_warning(state.expires, std::time(nullptr));
  if (!warning.empty()) text += "; the current release " + warning;
  return state.problem.empty() ? text : text + ": " + state.problem;
}

std::vector<std::string> release_lines(const Json& fields) {
  std::vector<std::string> lines{
      fmt::format("releases of '{}' in location {}: {}", fields.value("name", ""),
                  fields.value("location", 0), fields.value("state", "")),
      "current: " + release_text(fields.at("current"))};
  if (const std::string expires = fields.value("expires", ""); !expires.empty()) {
    const std::string warning = cli::expiry_warning(expires, std::time(nullptr));
    lines.back() += ", " + (warning.empty() ? "expires on " + expires : warning);
  }
  const auto signers = fields.value("signers", std::vector<std::string>());
  if (!signers.empty()) lines.push_back(fmt::format("signed with: {}", fmt::join(signers, ", ")));
  const uint64_t missing = fields.value("missing", uint64_t{0});
  if (!fields.at("candidate").is_null())
    lines.push_back("candidate: " + release_text(fields.at("candidate")) +
                    (missing == 0 ? "" : ", " + files_text(missing)));
  if (const std::string problem = fields.value("problem", ""); !problem.empty())
    lines.push_back("problem: " + problem);
  if (!fields.contains("drifted")) return lines;
  lines.push_back(drift_text(fields.at("drifted").get<uint64_t>()) + " from the manifest");
  for (const Json& path : fields.at("drift")) lines.push_back("  " + path.get<std::string>());
  return lines;
}

}  // namespace pkgdist::node_program
