#include "control_protocol.h"

#include <fmt/core.h>

#include <array>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "base64.h"
#include "cli_common.h"
#include "pkgdist_lead/names.h"

namespace pkgdist::lead_program {

namespace {

using Json = nlohmann::ordered_json;

constexpr double kMaxTimeoutSeconds = 3600;
constexpr size_t kMaxNodes = 4096;

[[noreturn]] void refuse(const std::string& why) {
  throw std::runtime_error(why);
}

uint32_t whole_number(const Json& object, const char* key, uint32_t first, uint32_t last) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_number_unsigned() || found->get<uint64_t>() < first ||
      found->get<uint64_t>() > last)
    refuse(fmt::format("\"{}\" must be a number from {} to {}", key, first, last));
  return found->get<uint32_t>();
}

const std::string& text(const Json& value, const char* key) {
  const auto* string = value.get_ptr<const std::string*>();
  if (string == nullptr) refuse(fmt::format("\"{}\" must be text", key));
  return *string;
}

const Json& member(const Json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end()) refuse(fmt::format("\"{}\" is missing", key));
  return *found;
}

lead::Audience decode_audience(const Json& object) {
  std::vector<uint32_t> nodes;
  if (const auto found = object.find("nodes"); found != object.end()) {
    if (!found->is_array() || found->size() > kMaxNodes) refuse("\"nodes\" must be a short list");
    for (const Json& node : *found) nodes.push_back(cli::parse_address(text(node, "nodes")));
  }
  const bool classed = object.contains("card_class");
  if (classed && !nodes.empty()) refuse("\"nodes\" and \"card_class\" exclude each other");
  if (classed) return lead::Audience::of_class(whole_number(object, "card_class", 1, UINT32_MAX));
  if (nodes.empty()) return lead::Audience::everyone();
  return lead::Audience::only(std::move(nodes));
}

void decode_message(const Json& object, Request& request) {
  request.kind = lead::MessageKind::kMessage;
  request.msg_class = whole_number(object, "class", 2, 5);
  request.bytes = cli::decode_base64(text(member(object, "data"), "data"));
  if (request.bytes.empty()) refuse("an empty message cannot be sent");
  if (request.bytes.size() > lead::kMaxMessageSize)
    refuse(fmt::format("the message is longer than {} bytes", lead::kMaxMessageSize));
  // To one node alone by its own stream: nobody else has to look at it.
  if (request.audience.nodes.size() == 1)
    request.audience = lead::Audience::one(request.audience.nodes[0]);
}

void decode_delete(const Json& object, Request& request) {
  request.kind = lead::MessageKind::kDelete;
  request.location = whole_number(object, "location", 1, 6);
  request.recursive = object.value("recursive", false);
  const Json& names = member(object, "names");
  if (!names.is_array() || names.empty() || names.size() > UINT16_MAX)
    refuse(fmt::format("\"names\" must be a list of 1 to {} names", UINT16_MAX));
  size_t size = 0;
  for (const Json& entry : names) {
    const std::vector<uint8_t> bytes = cli::decode_base64(text(entry, "names"));
    const std::string& name = request.names.emplace_back(bytes.begin(), bytes.end());
    if (name.starts_with('/')) refuse(slash_problem(name));
    if (const char* problem = lead::name_problem(name))
      refuse(fmt::format("'{}' cannot be deleted: {}", name, problem));
    constexpr size_t kOverhead = 2;
    size += name.size() + kOverhead;
  }
  constexpr size_t kHeader = 64;
  // Nodes are asked about the names in base64.
  if (size / 3 * 4 + kHeader > lead::kMaxMessageSize) refuse("the list of names is too long");
}

Json audience_fields(const Request& request) {
  Json nodes = Json::array();
  for (uint32_t node : request.audience.nodes) nodes.push_back(cli::format_address(node));
  Json fields{{"nodes", nodes}};
  if (nodes.empty() && request.audience.card_class != lead::kCardClassEveryone)
    fields["card_class"] = request.audience.card_class;
  return fields;
}

Json request_fields(const Request& request) {
  if (request.kind == lead::MessageKind::kMessage)
    return {{"class", request.msg_class}, {"data", cli::encode_base64(request.bytes)}};
  if (request.kind == lead::MessageKind::kCancel) return {{"transaction", request.transaction}};
  Json names = Json::array();
  for (const std::string& name : request.names) names.push_back(cli::encode_base64(name));
  return {{"location", request.location}, {"names", names}, {"recursive", request.recursive}};
}

}  // namespace

std::string encode_request(const Request& request) {
  Json object{{"command", kind_text(request.kind)}};
  object.update(request_fields(request));
  object.update(audience_fields(request));
  object["timeout"] = request.timeout_seconds;
  return object.dump() + '\n';
}

Request decode_request(const std::string& line) {
  const Json object = Json::parse(line, nullptr, false);
  if (!object.is_object()) refuse("the request is no JSON object");
  Request request;
  request.audience = decode_audience(object);
  if (const auto found = object.find("timeout"); found != object.end()) {
    if (!found->is_number()) refuse("\"timeout\" must be a number");
    request.timeout_seconds = found->get<double>();
  }
  if (!(request.timeout_seconds > 0) || request.timeout_seconds > kMaxTimeoutSeconds)
    refuse(fmt::format("\"timeout\" must be at most {} seconds", kMaxTimeoutSeconds));
  const std::string& command = text(member(object, "command"), "command");
  if (command == "message") {
    decode_message(object, request);
  } else if (command == "cancel") {
    request.kind = lead::MessageKind::kCancel;
    request.transaction = whole_number(object, "transaction", 1, UINT32_MAX);
  } else if (command == "delete") {
    decode_delete(object, request);
  } else {
    refuse("no such command");
  }
  return request;
}

std::string slash_problem(const std::string& name) {
  return fmt::format("'{}' begins with a slash: names are relative to the storage location", name);
}

const char* kind_text(lead::MessageKind kind) {
  constexpr std::array kTexts{"message", "cancel", "delete"};
  return kTexts[static_cast<size_t>(kind)];
}

const char* delivery_text(lead::Delivery delivery) {
  constexpr std::array kTexts{"pending",
                              "acknowledged",
                              "never heard",
                              "silent",
                              "restarted",
                              "no acknowledgement in time",
                              "uncertain: the node has gone past it",
                              "another lead has taken over"};
  return kTexts[static_cast<size_t>(delivery)];
}

}  // namespace pkgdist::lead_program
