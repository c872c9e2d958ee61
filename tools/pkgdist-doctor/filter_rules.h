// What a packet filter would do with a datagram, told from its rules and not from what is counted:
// a default of "drop" is found at once, before anything was sent.
//
// Understands what rules usually say of ports, addresses, protocols, interfaces and states of
// connections. What else a rule asks for may be so or not: then it is not known what becomes of the
// datagram, and nothing is said.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

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
  // Of a packet that is dropped: "inet filter input", and "policy drop" or "rule 7".
  std::string chain;
  std::string reason;
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
