// The rules of this host's packet filter that drop something, with their counters.
#pragma once

#include <string>
#include <vector>

namespace pkgdist::doctor {

class PacketFilter {
 public:
  // Reads the rules. Needs privileges, and `nft` or `iptables-save`.
  PacketFilter();

  bool readable() const { return readable_; }
  // Rules and policies that drop.
  const std::vector<std::string>& drops() const { return drops_; }
  // Those whose counter is not what it was `before`.
  std::vector<std::string> counted_since(const PacketFilter& before) const;

 private:
  bool readable_ = false;
  std::vector<std::string> drops_;
};

}  // namespace pkgdist::doctor
