#include "introduction.h"

#include "base64.h"
#include "program_messages.h"

namespace pkgdist::cli {

namespace {

using program_messages::Json;
using program_messages::line;
using program_messages::parse;
using program_messages::short_text;

constexpr size_t kMaxPlaces = 6;

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
    if (place.releases) entry["releases"] = *place.releases;
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
      if (entry.contains("releases")) place.releases = short_text(entry.at("releases"));
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
