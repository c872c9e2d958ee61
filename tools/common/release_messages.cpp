#include "release_messages.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "base64.h"
#include "program_messages.h"

namespace pkgdist::cli {

namespace {

using program_messages::Json;
using program_messages::line;
using program_messages::number;
using program_messages::parse;
using program_messages::short_text;

constexpr char kOrder[] = "release-order";
constexpr char kState[] = "release-state";
constexpr size_t kMaxFilesBytes = 1'000'000 / 8;  // of the largest manifest
constexpr size_t kMaxDrift = 20;                  // paths in a message

// In the order of the enumerations.
constexpr std::array kOrders{"state", "check", "fetched", "activate", "verify"};
constexpr std::array kPhases{"idle",      "checking",  "fetching", "ready", "activating",
                             "confirmed", "verifying", "refused",  "failed"};
static_assert(kOrders.size() == static_cast<size_t>(ReleaseOrder::kVerify) + 1);
static_assert(kPhases.size() == static_cast<size_t>(ReleasePhase::kFailed) + 1);

// Throws when it is none of the names.
template <class Value, class Names>
Value value_of(const Json& object, const char* key, const Names& names) {
  const std::string name = object.at(key).get<std::string>();
  const auto found = std::find(names.begin(), names.end(), name);
  if (found == names.end()) throw std::out_of_range("not such a name");
  return static_cast<Value>(found - names.begin());
}

bool is_digest(const std::string& text) {
  constexpr size_t kDigits = 64;
  return text.size() == kDigits && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

Json encode_release(const ReleaseId& release) {
  return {{"version", release.version}, {"manifest", release.manifest}};
}

ReleaseId decode_release(const Json& object) {
  ReleaseId release{number<uint64_t>(object.at("version")),
                    object.at("manifest").get<std::string>()};
  if (!is_digest(release.manifest)) throw std::invalid_argument("no digest of a manifest");
  return release;
}

std::optional<ReleaseId> release_at(const Json& object, const char* key) {
  if (!object.contains(key)) return std::nullopt;
  return decode_release(object.at(key));
}

bool names_release(ReleaseOrder order) {
  return order != ReleaseOrder::kState && order != ReleaseOrder::kVerify;
}

ReleaseState decode_state(const Json& object) {
  ReleaseState state;
  state.number = number<uint32_t>(object.at("number"));
  if (object.contains("serial")) state.serial = number<uint64_t>(object.at("serial"));
  state.location = number<uint32_t>(object.at("location"));
  state.name = short_text(object.at("name"));
  state.phase = value_of<ReleasePhase>(object, "state", kPhases);
  state.current = release_at(object, "current");
  state.candidate = release_at(object, "candidate");
  if (object.contains("missing")) state.missing = number<uint64_t>(object.at("missing"));
  if (object.contains("files")) state.files = decode_base64(object.at("files").get<std::string>());
  if (state.files.size() > kMaxFilesBytes) throw std::length_error("more files than there can be");
  if (object.contains("problem")) state.problem = short_text(object.at("problem"));
  if (object.contains("expires")) state.expires = short_text(object.at("expires"));
  if (object.contains("drifted")) state.drifted = number<uint64_t>(object.at("drifted"));
  if (!object.contains("drift")) return state;
  for (const Json& path : object.at("drift"))
    if (state.drift.size() < kMaxDrift) state.drift.push_back(short_text(path));
  return state;
}

}  // namespace

std::string release_order_text(const ReleaseQuestion& question) {
  return line(kOrder, {{"number", question.number},
                       {"location", question.location},
                       {"name", question.name},
                       {"version", question.release.version},
                       {"manifest", question.release.manifest},
                       {"order", kOrders.at(static_cast<size_t>(question.order))}});
}

std::string release_state_text(const ReleaseState& state) {
  Json object{{"number", state.number},
              {"serial", state.serial},
              {"location", state.location},
              {"name", state.name},
              {"state", phase_name(state.phase)}};
  if (state.current) object["current"] = encode_release(*state.current);
  if (state.candidate) object["candidate"] = encode_release(*state.candidate);
  object["missing"] = state.missing;
  if (!state.files.empty()) object["files"] = encode_base64(state.files);
  object["problem"] = state.problem;
  if (!state.expires.empty()) object["expires"] = state.expires;
  if (state.drifted) object["drifted"] = *state.drifted;
  if (state.drifted) {
    const size_t told = std::min(state.drift.size(), kMaxDrift);
    object["drift"] = std::vector<std::string>(
        state.drift.begin(), state.drift.begin() + static_cast<std::ptrdiff_t>(told));
  }
  return line(kState, object);
}

std::optional<ReleaseQuestion> parse_release_order(std::span<const uint8_t> bytes) {
  return parse(bytes, kOrder, [](const Json& object) {
    ReleaseQuestion question;
    question.number = number<uint32_t>(object.at("number"));
    question.location = number<uint32_t>(object.at("location"));
    question.name = short_text(object.at("name"));
    question.order = value_of<ReleaseOrder>(object, "order", kOrders);
    if (names_release(question.order)) question.release = decode_release(object);
    return question;
  });
}

std::optional<ReleaseState> parse_release_state(std::span<const uint8_t> bytes) {
  return parse(bytes, kState, decode_state);
}

const char* phase_name(ReleasePhase phase) {
  return kPhases.at(static_cast<size_t>(phase));
}

}  // namespace pkgdist::cli
