// A push as lines of JSON between `pkgdist-lead push` and the lead that serves on this host: what
// is to be pushed, how it stands, and what happens. Both are of one version: the lead's first
// answer says which.
//
//   push     {"command":"push",...}, then {"files":[[NAME,SIZE],...]} and
//   {"directories":[NAME,...]}, {"tree":[[NAME,MODE,MTIME],...]}, {"others":[NAME,...]},
//   {"checksums":[MANIFEST,SIGNATURE,BYTES]}
//            as often as needed, then {"start":true}; later perhaps {"stop":true},
//            or {"stop_for":NODE} to end it for one node
//   answers  {"event":"queued",...}, {"event":"begins"}, {"event":"state",...} again and again,
//            what happens meanwhile ("node", "file", ...), {"event":"ended",...}, what comes
//            behind the files (after_push.h), {"event":"done"}; when nodes are only asked,
//            {"event":"listed","report":{}} in place of all that
//
// Names travel in base64. Times are those of the monotonic clock, which the two share.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "pkgdist_lead/lead.h"
#include "push_tree.h"

namespace pkgdist::lead_program {

using Json = nlohmann::ordered_json;

// What a push is asked to do, beyond the request to the lead.
struct QueuedPush {
  std::string name;       // by which it is listed and cancelled
  std::string root;       // of its location; the lead must have the same, unless:
  bool own_root = false;  // for this push the location has its root there
  lead::PushRequest request;
  std::optional<double> durable_seconds = std::nullopt;
  PushTree tree = {};
};

// The lines that ask for a push, the last of which starts it.
std::vector<Json> encode_push(const QueuedPush& push);
// Puts a push together from its lines.
class PushReader {
 public:
  // True with the last line. Throws std::exception when it makes no sense.
  bool add(const Json& line);
  QueuedPush take() { return std::move(push_); }

 private:
  QueuedPush push_;
  bool begun_ = false;
};

// How a push stands. Files by name only up to a limit, in all nodes together; nodes tell how many
// there are in truth.
Json encode_report(const lead::PushReport& report);
lead::PushReport decode_report(const Json& object);
Json encode_counters(const lead::Counters& counters);
lead::Counters decode_counters(const Json& values);
// What was counted since `before`.
lead::Counters difference(const lead::Counters& now, const lead::Counters& before);

Json encode_node(const lead::NodeInfo& node);
lead::NodeInfo decode_node(const Json& values);

}  // namespace pkgdist::lead_program
