// The datagrams that doctors send each other, at the groups and ports of pkgdist.
//
// Lead and nodes may run meanwhile: a probe begins with the length of a header that is longer than
// any datagram, so they count it as a bad datagram and do nothing else.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "doctor_options.h"

namespace pkgdist::doctor {

// The ways that datagrams of pkgdist go. What is full has the greatest length that there is.
enum Path : uint32_t {
  kControl,  // to the control group: the lead's; a node's, too, to be found when nothing else goes
  kControlFull,  // lead only
  kData,         // lead only
  kDataFull,     // lead only
  kUnicast,      // to the control port of one node, or of the lead
  kUnicastFull,
  kRequest,  // to the lead's request port
  kPaths
};
inline constexpr uint32_t kGroupPaths = kUnicast;  // those below go to all

using Counts = std::array<uint64_t, kPaths>;

// A number per path, of what one doctor has sent another, and what has come of it.
struct Tally {
  uint32_t address = 0;  // of the other one
  uint64_t token = 0;
  Counts sent{};
  Counts expected{};  // of the other one, since it was first heard
  Counts heard{};
};

struct Probe {
  Role role = Role::kNode;
  uint64_t token = 0;    // of this run of the sender
  uint32_t address = 0;  // of the sender's --interface
  uint32_t pid = 0;
  Path path = kControl;
  uint32_t listens = 0;  // bit n: the sender could open what it hears path n with
  // Of some of those that the sender has heard, and for a probe to one of them, of that one.
  // Counts of datagrams to all are the same for each.
  Counts sent{};
  std::vector<Tally> others;
};

// No more others than these in a probe, so that it is short.
inline constexpr size_t kOthersInProbe = 3;

std::string encode(const Probe& probe);
std::optional<Probe> decode(std::string_view datagram);

}  // namespace pkgdist::doctor
