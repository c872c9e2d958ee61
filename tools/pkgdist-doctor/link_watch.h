// What can only be seen on the link itself: other hosts with this host's address (ARP), and queries
// of an IGMP querier. Needs CAP_NET_RAW.
//
// A querier asks every two minutes as a rule. To hear one sooner, a group of our own is joined and
// left again: a querier that sees the last member go asks whether there are others.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
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

  // Takes what has come. `seconds`: since the beginning.
  void run(double seconds);

  // The hardware address of another host that has our address.
  const std::string& duplicate() const { return duplicate_; }
  // The address of a querier that was heard.
  std::optional<uint32_t> querier() const { return querier_; }

 private:
  void open_sockets();
  void ask_for_own_address();
  void take_arp();
  void take_igmp();

  Interface interface_;
  uint32_t address_;
  uint32_t scratch_group_;
  std::array<uint8_t, 6> hardware_{};
  Descriptor arp_, igmp_, member_;
  bool left_ = false;
  double next_arp_ = 0;
  std::string obstacle_;
  std::string duplicate_;
  std::optional<uint32_t> querier_;
};

// Whether the kernel has joined the group on the interface.
bool kernel_has_group(const std::string& interface, uint32_t group);

}  // namespace pkgdist::doctor
