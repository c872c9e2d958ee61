#include "introduction.h"

#include <fmt/core.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "base64.h"

namespace pkgdist::cli {

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kMaxText = 256;
constexpr size_t kMaxPlaces = 6;

std::string line(const char* kind, const Json& object) {
  return fmt::format("pkgdist-{} 1 {}\n", kind,
                     object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

// What `read` makes of the object in a message of this kind; nothing when it is another message or
// `read` throws.
template <class Read>
auto parse(std::span<const uint8_t> bytes, const char* kind, Read&& read)
    -> std::optional<decltype(read(Json()))> {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const std::string start = fmt::format("pkgdist-{} 1 ", kind);
  if (!text.starts_with(start) || !text.ends_with('\n')) return std::nullopt;
  const Json object = Json::parse(text.substr(start.size()), nullptr, false);
  if (!object.is_object()) return std::nullopt;
  try {
    return read(object);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::string short_text(const Json& value) {
  return value.get<std::string>().substr(0, kMaxText);
}

Json encode_names(const NodeQuestion& question) {
  Json names = Json::array();
  for (const std::string& name : question.names) names.push_back(encode_base64(name));
  return {{"location", question.location}, {"names", names}};
}

void decode_names(const Json& object, NodeQuestion& question) {
  question.location = object.at("location").get<uint32_t>();
  for (const Json& name : object.at("names"))
    question.names.push_back(decode_base64_text(name.get<std::string>()));
}

}  // namespace

bool Introduction::has(uint32_t location) const {
  for (const Place& place : places)
    if (place.location == location) return true;
  return false;
}

std::string introduction_text(const Introduction& introduction) {
  Json places = Json::array();
  for (const Introduction::Place& place : introduction.places) {
    Json entry{{"location", place.location}, {"memory", place.memory}};
    if (place.free_bytes) entry["free"] = *place.free_bytes;
    places.push_back(entry);
  }
  return line("introduction", {{"pid", introduction.pid},
                               {"host", introduction.host},
                               {"version", introduction.version},
                               {"answers", introduction.answers},
                               {"locations", places}});
}

std::optional<Introduction> parse_introduction(std::span<const uint8_t> bytes) {
  return parse(bytes, "introduction", [](const Json& object) {
    Introduction found;
    found.pid = object.at("pid").get<uint32_t>();
    found.host = short_text(object.at("host"));
    found.version = short_text(object.at("version"));
    found.answers = object.value("answers", false);
    for (const Json& entry : object.at("locations")) {
      if (found.places.size() == kMaxPlaces) break;
      Introduction::Place& place = found.places.emplace_back();
      place.location = entry.at("location").get<uint32_t>();
      place.memory = entry.value("memory", false);
      if (entry.contains("free")) place.free_bytes = entry.at("free").get<uint64_t>();
    }
    return found;
  });
}

std::string question_text(const NodeQuestion& question) {
  Json object{{"number", question.number}};
  if (question.kind == NodeQuestion::Kind::kTransaction)
    object["transaction"] = question.transaction;
  else
    object[question.kind == NodeQuestion::Kind::kFiles ? "files" : "remove"] =
        encode_names(question);
  return line("question", object);
}

std::optional<NodeQuestion> parse_question(std::span<const uint8_t> bytes) {
  return parse(bytes, "question", [](const Json& object) {
    NodeQuestion question;
    question.number = object.at("number").get<uint32_t>();
    if (object.contains("transaction")) {
      question.kind = NodeQuestion::Kind::kTransaction;
      question.transaction = object.at("transaction").get<uint32_t>();
    } else if (object.contains("remove")) {
      question.kind = NodeQuestion::Kind::kRemove;
      decode_names(object.at("remove"), question);
    } else {
      decode_names(object.at("files"), question);
    }
    return question;
  });
}

std::string answer_text(const NodeAnswer& answer) {
  return line("answer", {{"number", answer.number}, {"states", answer.states}});
}

std::optional<NodeAnswer> parse_answer(std::span<const uint8_t> bytes) {
  return parse(bytes, "answer", [](const Json& object) {
    NodeAnswer answer;
    answer.number = object.at("number").get<uint32_t>();
    for (const Json& state : object.at("states")) answer.states.push_back(short_text(state));
    return answer;
  });
}

std::string unset_text(uint32_t location) {
  return line("unset", {{"location", location}});
}

std::optional<uint32_t> parse_unset(std::span<const uint8_t> bytes) {
  return parse(bytes, "unset",
               [](const Json& object) { return object.at("location").get<uint32_t>(); });
}

}  // namespace pkgdist::cli
