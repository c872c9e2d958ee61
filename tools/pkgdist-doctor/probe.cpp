// "PDOC", then JSON. Full probes are filled up with spaces.
#include "probe.h"

#include <nlohmann/json.hpp>

#include "pkgdist/wire_ctrl.h"

namespace pkgdist::doctor {

namespace {

using Json = nlohmann::json;
constexpr std::string_view kMagic = "PDOC";
constexpr uint32_t kVersion = 1;

}  // namespace

std::string encode(const Probe& probe) {
  Json others = Json::array();
  for (const Tally& tally : probe.others)
    others.push_back({tally.address, tally.token, tally.sent, tally.expected, tally.heard});
  const Json body{{"v", kVersion},         {"r", probe.role == Role::kLead},
                  {"t", probe.token},      {"a", probe.address},
                  {"p", probe.pid},        {"w", static_cast<uint32_t>(probe.path)},
                  {"l", probe.listens},    {"s", probe.sent},
                  {"o", std::move(others)}};
  std::string datagram = std::string(kMagic) + body.dump();
  const bool full =
      probe.path == kControlFull || probe.path == kDataFull || probe.path == kUnicastFull;
  if (full) datagram.resize(PKGDIST_CTRL_PKT_MAX, ' ');
  return datagram;
}

std::optional<Probe> decode(std::string_view datagram) {
  if (datagram.substr(0, kMagic.size()) != kMagic) return std::nullopt;
  // Anybody may send anything: what is not as it should be throws and is no probe.
  try {
    const Json body = Json::parse(datagram.substr(kMagic.size()));
    if (body.at("v") != kVersion) return std::nullopt;
    Probe probe;
    probe.role = body.at("r").get<bool>() ? Role::kLead : Role::kNode;
    body.at("t").get_to(probe.token);
    body.at("a").get_to(probe.address);
    body.at("p").get_to(probe.pid);
    const auto path = body.at("w").get<uint32_t>();
    if (path >= kPaths) return std::nullopt;
    probe.path = static_cast<Path>(path);
    body.at("l").get_to(probe.listens);
    body.at("s").get_to(probe.sent);
    for (const Json& one : body.at("o"))
      probe.others.push_back({one.at(0).get<uint32_t>(), one.at(1).get<uint64_t>(),
                              one.at(2).get<Counts>(), one.at(3).get<Counts>(),
                              one.at(4).get<Counts>()});
    return probe;
  } catch (const Json::exception&) {
    return std::nullopt;
  }
}

}  // namespace pkgdist::doctor
