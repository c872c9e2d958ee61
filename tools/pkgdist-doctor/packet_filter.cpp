#include "packet_filter.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <optional>

#include "counted.h"

namespace pkgdist::doctor {

namespace {

// Directories of administration are in the path of root's shells only.
constexpr const char* kWithPath = "PATH=$PATH:/usr/sbin:/sbin ";

// What the command prints, nothing when it fails.
std::optional<std::string> output_of(const std::string& command) {
  FILE* pipe = ::popen((kWithPath + command + " 2>/dev/null").c_str(), "re");
  if (pipe == nullptr) return std::nullopt;
  std::string text;
  std::array<char, 4096> buffer;
  while (const size_t got = std::fread(buffer.data(), 1, buffer.size(), pipe))
    text.append(buffer.data(), got);
  if (::pclose(pipe) != 0) return std::nullopt;
  return text;
}

bool may_drop(const std::string& line) {
  for (const char* word : {" drop", " reject", "-j DROP", "-j REJECT", " DROP ["})
    if (line.find(word) != std::string::npos) return true;
  return false;
}

struct Wanted {
  bool incoming;
  uint16_t port;         // 0: IGMP
  uint32_t destination;  // 0: of anybody
};

// What the role needs to get in and out.
std::vector<Wanted> wanted_by(const DoctorOptions& options) {
  const cli::CommonOptions& common = options.common;
  const cli::Endpoint ctrl = common.ctrl_group, data = common.data_group;
  const uint32_t own = common.interface;
  if (options.role == Role::kLead)
    return {{true, ctrl.port, ctrl.address},  {true, common.lead_port, own},
            {true, common.req_port, own},     {false, ctrl.port, ctrl.address},
            {false, data.port, data.address}, {false, common.node_port, 0}};
  // A switch that snoops asks who listens, and forwards to those that answer.
  return {{true, ctrl.port, ctrl.address}, {true, data.port, data.address},
          {true, common.node_port, own},   {true, 0, ctrl.address},
          {false, common.lead_port, 0},    {false, common.req_port, 0}};
}

// What one chain drops for one reason.
struct Blocked {
  bool incoming = true;
  bool igmp = false;
  std::vector<uint16_t> ports;

  void add(const Wanted& wanted) {
    incoming = wanted.incoming;
    igmp |= wanted.port == 0;
    if (wanted.port != 0) ports.push_back(wanted.port);
  }
  std::string what() const {
    std::string text = ports.empty() ? ""
                                     : fmt::format("UDP to port{} {}", ports.size() == 1 ? "" : "s",
                                                   fmt::join(ports, ", "));
    if (igmp) text += text.empty() ? "IGMP" : " and IGMP";
    return text;
  }
  std::string mend(const std::string& chain) const {
    std::string text;
    if (!ports.empty())
      text = fmt::format("nft insert rule {} udp dport {{ {} }} accept", chain,
                         fmt::join(ports, ", "));
    if (igmp)
      text += (text.empty() ? "" : "; ") +
              fmt::format("nft insert rule {} ip protocol igmp accept", chain);
    // A shell takes braces as its own.
    for (size_t at = 0; (at = text.find("{ ", at)) != std::string::npos; at += 3)
      text.insert(at, "'");
    for (size_t at = 0; (at = text.find(" }", at)) != std::string::npos; at += 3)
      text.insert(at + 2, "'");
    return text;
  }
};

// Rules that could not be read to their end: nothing is claimed of them.
void tell_open(const std::string& chain, const std::vector<std::string>& rules, const Blocked& one,
               Findings& findings) {
  constexpr size_t kNamed = 5;
  const auto end = rules.begin() + static_cast<std::ptrdiff_t>(std::min(rules.size(), kNamed));
  findings.note(
      "filter",
      fmt::format(
          "whether chain '{}' drops {} is not known; it depends on {}{}", chain, one.what(),
          fmt::join(rules.begin(), end, ", "),
          rules.size() > kNamed ? " and " + cli::counted(rules.size() - kNamed, "more rule") : ""),
      chain.empty() ? "nft -a list ruleset" : "nft -a list chain " + chain);
}

}  // namespace

PacketFilter::PacketFilter() {
  if (const auto rules = output_of("nft --json list ruleset")) rules_ = FilterRules(*rules);
  for (const char* command : {"nft list ruleset", "iptables-save -c"}) {
    const std::optional<std::string> text = output_of(command);
    if (!text) continue;
    readable_ = true;
    for (size_t start = 0; start < text->size();) {
      const size_t end = std::min(text->find('\n', start), text->size());
      std::string line = text->substr(start, end - start);
      line.erase(0, std::min(line.find_first_not_of(" \t"), line.size()));
      if (may_drop(line)) drops_.push_back(line);
      start = end + 1;
    }
  }
}

std::vector<std::string> PacketFilter::counted_since(const PacketFilter& before) const {
  std::vector<std::string> counted;
  for (const std::string& line : drops_)
    if (std::find(before.drops_.begin(), before.drops_.end(), line) == before.drops_.end())
      counted.push_back(line);
  return counted;
}

std::vector<BlockedPort> check_filter(const DoctorOptions& options, const Interface& interface,
                                      const PacketFilter& filter, Findings& findings) {
  std::map<std::pair<std::string, std::string>, Blocked> blocked;            // by chain and reason
  std::map<std::pair<std::string, std::vector<std::string>>, Blocked> open;  // by chain and rules
  std::vector<BlockedPort> ports;
  for (const Wanted& wanted : wanted_by(options)) {
    FilteredPacket packet;
    packet.incoming = wanted.incoming;
    packet.igmp = wanted.port == 0;
    packet.port = wanted.port;
    packet.destination = wanted.destination;
    packet.interface_name = interface.name;
    if (!wanted.incoming) packet.source = options.common.interface;
    const FilterVerdict verdict = filter.rules().verdict(packet);
    if (verdict.fate == Fate::kUnknown) open[{verdict.chain, verdict.open}].add(wanted);
    if (verdict.fate != Fate::kDropped) continue;
    blocked[{verdict.chain, verdict.reason}].add(wanted);
    if (!packet.igmp) ports.push_back({wanted.incoming, wanted.port});
  }
  for (const auto& [where, one] : blocked)
    findings.add({one.ports.empty() ? Level::kWarning : Level::kProblem, "filter",
                  fmt::format("chain '{}' drops {} ({})", where.first, one.what(), where.second),
                  one.ports.empty() ? "switches that snoop on IGMP take this host for one that "
                                      "does not listen"
                  : one.incoming    ? "what the other side sends to this host is lost"
                                    : "what this host sends is lost",
                  one.mend(where.first)});
  for (const auto& [where, one] : open) tell_open(where.first, where.second, one, findings);
  return ports;
}

}  // namespace pkgdist::doctor
