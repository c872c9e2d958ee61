// How a lead and the nodes of a release speak: reliable messages of class 5, as introduction.h has
// them, each one line, "pkgdist-KIND 1 " and a JSON object.
//
//   release-order   of a lead: {"number":3,"location":1,"name":"base","version":7,
//                              "manifest":"<64 hex digits>","order":"check"}
//   release-state   of a node, to each order at once, and again whenever its state changes:
//                   {"number":3,"serial":17,"location":1,"name":"base","state":"fetching",
//                    "current":{"version":6,"manifest":"..."},
//                    "candidate":{"version":7,"manifest":"..."},
//                    "missing":12,"files":"<base64>","problem":"","drift":["etc/settings"]}
//
// A push of a release is: the files of DIR/.pkgdist as an ordinary push, "check", the files that
// any node misses as an ordinary push, "state" until all are ready or say why not, "activate".
// A program that does not know them takes them for messages like any other.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace pkgdist::cli {

enum class ReleaseOrder : uint8_t {
  kState,     // say how it stands
  kCheck,     // the files of .pkgdist have come: check them, take over what is there already
  kFetched,   // all files were sent: say which are still missing
  kActivate,  // switch to the candidate, if it is this one
  kVerify,    // read the current release again: "drift" has the paths that differ
};

// Which release: its version, and the digest of its manifest in 64 hexadecimal digits.
struct ReleaseId {
  uint64_t version = 0;
  std::string manifest;
  bool operator==(const ReleaseId&) const = default;
};

struct ReleaseQuestion {
  uint32_t number = 0;  // the lead's choice
  uint32_t location = 0;
  std::string name;
  ReleaseId release;  // empty with kState and kVerify
  ReleaseOrder order = ReleaseOrder::kState;
};

enum class ReleasePhase : uint8_t {
  kIdle,        // no candidate
  kChecking,    // signatures, rules, and what can be taken over from the current release
  kFetching,    // `missing` files have not come, or came and were wrong
  kReady,       // whole, checked and on the disk
  kActivating,  // the link is switched, the health command runs
  kConfirmed,   // the release that was ordered is the current one
  kVerifying,   // the current release is being read again
  kRefused,     // `problem` says why; what was current stays
  kFailed,      // activated and gone back; `problem` says why
};

struct ReleaseState {
  uint32_t number = 0;  // of the last order, 0 before the first
  // Grows with each state of a node's process: one with a lower number is older, and was late.
  uint64_t serial = 0;
  uint32_t location = 0;
  std::string name;
  ReleasePhase phase = ReleasePhase::kIdle;
  std::optional<ReleaseId> current;
  std::optional<ReleaseId> candidate;
  uint64_t missing = 0;  // files of the candidate
  // With kFetching: a bit for each file of the manifest in its order, set when it is missing, from
  // the least significant bit of the first byte.
  std::vector<uint8_t> files;
  std::string problem;
  // Keys that signed the current release, on the node itself; a lead is not told.
  std::vector<std::string> signers;
  std::string expires;  // when the current release does, "2027-11-21T00:00:00Z"; empty: never
  // After kVerify: whether it was verified, and the first paths that differ.
  std::optional<uint64_t> drifted;
  std::vector<std::string> drift;
};

std::string release_order_text(const ReleaseQuestion& question);
std::string release_state_text(const ReleaseState& state);
// Nothing when the bytes are another message, or make no sense. Texts are cut to a sensible length.
std::optional<ReleaseQuestion> parse_release_order(std::span<const uint8_t> bytes);
std::optional<ReleaseState> parse_release_state(std::span<const uint8_t> bytes);

// "fetching", as in the message.
const char* phase_name(ReleasePhase phase);

}  // namespace pkgdist::cli
