// What can only be seen on the link itself: two hosts with one address (ARP), and queries
// of an IGMP querier. Needs CAP_NET_RAW.
//
// A querier asks every two minutes as a rule. To hear one sooner, a group of our own is joined and
// left again: a querier that sees the last member go asks whether there are others.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "descriptor.h"
#include "host_checks.h"

namespace pkgdist::doctor {

class LinkWatch {
 public:
  // `scratch_group`: of nobody.
  LinkWatch(const Interface& interface, uint32_t address, uint32_t scratch_group);

  // Why nothing can be seen; empty when it can.
  const std::string& obstacle() const { return obstacle_; }

  // An address of another host: is it one host's?
  void look_after(uint32_t address);

  // Takes what has come. `seconds`: since the beginning.
  void run(double seconds);

  // The hardware address of another host that has our address.
  const std::string& duplicate() const { return duplicate_; }
  // Addresses of other hosts that more than one hardware address answers for, with these.
  std::map<uint32_t, std::set<std::string>> shared_addresses() const;
  // The address of a querier that was heard.
  std::optional<uint32_t> querier() const { return querier_; }

 private:
  void open_sockets();
  void ask_for(uint32_t address, uint32_t asker);
  void ask_for_others();
  void take_arp();
  void take_igmp();

  Interface interface_;
  uint32_t address_;
  uint32_t scratch_group_;
  std::array<uint8_t, 6> hardware_{};
  Descriptor arp_, igmp_, member_;
  bool left_ = false;
  double next_arp_ = 0, next_question_ = 0;
  std::map<uint32_t, std::set<std::string>> owners_;  // hardware addresses, by address
  uint32_t last_asked_ = 0;
  std::string obstacle_;
  std::string duplicate_;
  std::optional<uint32_t> querier_;
};

// Whether the kernel has joined the group on the interface.
bool kernel_has_group(const std::string& interface, uint32_t group);

}  // namespace pkgdist::doctor
