// What goes over the control socket: one request line from the client, then lines of the lead until
// one that ends the exchange. Every line is a JSON object.
//
//   request   {"command":"message","class":2,"card_class":3,"nodes":["10.0.0.2"],"data":BASE64,
//              "timeout":10}
//             {"command":"cancel","transaction":7,"nodes":[],"timeout":10}
//             {"command":"delete","location":1,"names":[BASE64,...],"recursive":false,"nodes":[],
//              "timeout":10}
//             {"command":"cancel","push":"release-7"}
//             {"command":"status"}, {"command":"nodes"}, {"command":"pushes"}
//             {"command":"push",...}                                             push_wire.h
//             {"command":"watch"}                                                push_watch.h
//             {"command":"releases"}                                         release_relay.h
//   answers   {"event":"sent","id":3,"nodes":2}
//             {"event":"host","node":ADDRESS,"name":TEXT}     what people call the nodes
//             {"event":"outcome","node":"10.0.0.2","acknowledged":true,"text":"acknowledged",
//              "deleted":1,"names":[{"name":"a","text":"no such file"}]}
//             {"event":"done","complete":true,"sent":true,"acknowledged":2,"missing":0}   the end
//             {"event":"error","text":"..."}                                     the end
//             {"event":"node",...}, {"event":"push",...}, {"event":"status",...} lists and states
//
// What a node did with a cancel or delete is told for nodes whose programs answer questions
// (introduction.h); of the others only that they acknowledged.
//
// Bytes and names travel in base64: neither need be valid text. Without "nodes" and "card_class" a
// command is for everyone.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "pkgdist_lead/lead.h"

namespace pkgdist::lead_program {

// The longest request: a message or list of the greatest size in base64, and room for the rest.
inline constexpr size_t kMaxRequestLine = lead::kMaxMessageSize / 3 * 4 + 64 * 1024;

struct Request {
  lead::MessageKind kind = lead::MessageKind::kMessage;
  lead::Audience audience;
  uint32_t msg_class = 0;
  std::vector<uint8_t> bytes;
  uint32_t transaction = 0;
  uint32_t location = 0;
  std::vector<std::string> names;
  bool recursive = false;  // directories are deleted, too
  double timeout_seconds = 10;

  lead::Time timeout() const { return static_cast<lead::Time>(timeout_seconds * 1e9); }
};

// One line, with its end.
std::string encode_request(const Request& request);
// Throws std::runtime_error that says what is wrong with the line.
Request decode_request(const std::string& line);

const char* kind_text(lead::MessageKind kind);
// Why a node counts as it does, in words.
const char* delivery_text(lead::Delivery delivery);

// Why a name with a slash before it is refused.
std::string slash_problem(const std::string& name);

}  // namespace pkgdist::lead_program
