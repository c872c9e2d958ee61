// What a packet filter would do with a datagram, told from its rules and not from what is counted:
// a default of "drop" is found at once, before anything was sent.
//
// Understands what rules usually say of ports, addresses, protocols, interfaces and states of
// connections. What else a rule asks for may be so or not, the matches and targets of iptables (xt)
// among it: then it is not known what becomes of the datagram, but which rules leave it open.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace pkgdist::doctor {

// A datagram that opens a conversation.
struct FilteredPacket {
  bool incoming = true;
  bool igmp = false;           // instead of UDP
  uint32_t source = 0;         // 0: of anybody
  uint32_t destination = 0;    // 0: of anybody
  uint16_t port = 0;           // destination port
  std::string interface_name;  // that it comes in or goes out by
};

enum class Fate { kAccepted, kDropped, kUnknown };

struct FilterVerdict {
  Fate fate = Fate::kAccepted;
  // Of a packet that is or may be dropped: "inet filter input".
  std::string chain = {};
  // Of one that is: "policy drop" or "rule 7".
  std::string reason = {};
  // Of one that may be, the rules that leave it open: "rule 7 (xt conntrack)".
  std::vector<std::string> open = {};
};

class FilterRules {
 public:
  FilterRules() = default;
  // What `nft --json list ruleset` prints; anything else has no rules.
  explicit FilterRules(const std::string& json);

  // Whether there are rules to look at.
  bool readable() const { return readable_; }
  FilterVerdict verdict(const FilteredPacket& packet) const;

 private:
  nlohmann::json objects_ = nlohmann::json::array();
  bool readable_ = false;
};

}  // namespace pkgdist::doctor
