// What goes over the control socket: one request line from the client, then lines of the lead until
// one that ends the exchange. Every line is a JSON object.
//
//   request   {"command":"message","class":2,"card_class":3,"nodes":["10.0.0.2"],"data":BASE64,
//              "timeout":10}
//             {"command":"cancel","transaction":7,"nodes":[],"timeout":10}
//             {"command":"delete","location":1,"names":[BASE64,...],"nodes":[],"timeout":10}
//   answers   {"event":"sent","id":3,"nodes":2}
//             {"event":"outcome","node":"10.0.0.2","acknowledged":true,"reason":"acknowledged"}
//             {"event":"done","complete":true,"acknowledged":2,"missing":0}      the end
//             {"event":"error","text":"..."}                                     the end
//
// Bytes and names travel in base64: neither need be valid text. Without "nodes" and "card_class" a
// command is for everyone.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
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
  double timeout_seconds = 10;

  lead::Time timeout() const { return static_cast<lead::Time>(timeout_seconds * 1e9); }
};

// One line, with its end.
std::string encode_request(const Request& request);
// Throws std::runtime_error that says what is wrong with the line.
Request decode_request(const std::string& line);

std::string encode_base64(std::span<const uint8_t> bytes);
// Throws std::runtime_error when the text is no base64.
std::vector<uint8_t> decode_base64(const std::string& text);

const char* kind_text(lead::MessageKind kind);
// Why a node counts as it does, in words.
const char* delivery_text(lead::Delivery delivery);

}  // namespace pkgdist::lead_program
