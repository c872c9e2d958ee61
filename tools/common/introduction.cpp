#include "introduction.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "base64.h"
#include "program_messages.h"

namespace pkgdist::cli {

namespace {

using program_messages::Json;
using program_messages::line;
using program_messages::parse;
using program_messages::short_text;

constexpr size_t kMaxPlaces = 6;
constexpr double kMaxCommandSeconds = 1e6;

std::string name_in(const Json& object) {
  return decode_base64_text(object.get<std::string>());
}

Json encode_list(const std::vector<std::string>& names) {
  Json list = Json::array();
  for (const std::string& name : names) list.push_back(encode_base64(name));
  return list;
}

std::vector<std::string> decode_list(const Json& list) {
  std::vector<std::string> names;
  for (const Json& name : list) names.push_back(name_in(name));
  return names;
}

Json encode_texts(const std::vector<NamedText>& texts) {
  Json list = Json::array();
  for (const NamedText& entry : texts) list.push_back({encode_base64(entry.name), entry.text});
  return list;
}

std::vector<NamedText> decode_texts(const Json& object, const char* key) {
  std::vector<NamedText> texts;
  if (const auto found = object.find(key); found != object.end())
    for (const Json& entry : *found)
      texts.push_back({name_in(entry.at(0)), short_text(entry.at(1))});
  return texts;
}

// --- What a question is about ---

Json encode_directories(const std::vector<TreeDirectory>& directories) {
  Json list = Json::array();
  for (const TreeDirectory& one : directories)
    list.push_back({encode_base64(one.name), one.mode, one.mtime});
  return list;
}

Json encode_known(const std::vector<KnownNames>& known) {
  Json list = Json::array();
  for (const KnownNames& one : known)
    list.push_back({{"directory", encode_base64(one.directory)},
                    {"after", encode_base64(one.after)},
                    {"until", encode_base64(one.until)},
                    {"names", encode_list(one.names)}});
  return list;
}

constexpr std::array kSubjects{"files", "remove",   "transaction", "directories",
                               "list",  "complete", "compare"};

Json encode_subject(const NodeQuestion& question) {
  using Kind = NodeQuestion::Kind;
  if (question.kind == Kind::kTransaction) return question.transaction;
  Json subject{{"location", question.location}};
  switch (question.kind) {
    case Kind::kDirectories:
      subject["entries"] = encode_directories(question.directories);
      break;
    case Kind::kList:
      subject["deep"] = question.deep;
      subject["known"] = encode_known(question.known);
      break;
    case Kind::kComplete:
      subject["transaction"] = question.transaction;
      subject["status"] = question.status;
      break;
    case Kind::kCompare:
      subject["manifest"] = encode_base64(question.manifest);
      if (!question.signature.empty()) subject["signature"] = encode_base64(question.signature);
      break;
    default:
      subject["names"] = encode_list(question.names);
      if (question.files_too) subject["files"] = true;
  }
  return subject;
}

void decode_subject(const Json& subject, NodeQuestion& question) {
  using Kind = NodeQuestion::Kind;
  if (question.kind == Kind::kTransaction) {
    question.transaction = subject.get<uint32_t>();
    return;
  }
  question.location = subject.at("location").get<uint32_t>();
  switch (question.kind) {
    case Kind::kDirectories:
      for (const Json& entry : subject.at("entries"))
        question.directories.push_back(
            {name_in(entry.at(0)), entry.at(1).get<uint32_t>(), entry.at(2).get<int64_t>()});
      break;
    case Kind::kList:
      question.deep = subject.at("deep").get<bool>();
      for (const Json& entry : subject.at("known"))
        question.known.push_back({name_in(entry.at("directory")), name_in(entry.at("after")),
                                  name_in(entry.at("until")), decode_list(entry.at("names"))});
      break;
    case Kind::kComplete:
      question.transaction = subject.at("transaction").get<uint32_t>();
      question.status = subject.at("status").get<uint32_t>();
      break;
    case Kind::kCompare:
      question.manifest = name_in(subject.at("manifest"));
      if (subject.contains("signature")) question.signature = name_in(subject.at("signature"));
      break;
    default:
      question.names = decode_list(subject.at("names"));
      question.files_too = subject.value("files", false);
  }
}

}  // namespace

const Introduction::Place* Introduction::place(uint32_t location) const {
  for (const Place& place : places)
    if (place.location == location) return &place;
  return nullptr;
}

const char* subject_text(NodeQuestion::Kind kind) {
  return kSubjects[static_cast<size_t>(kind)];
}

std::optional<std::string> Introduction::releases(uint32_t location) const {
  const Place* found = place(location);
  return found != nullptr ? found->releases : std::nullopt;
}

std::string introduction_text(const Introduction& introduction) {
  Json places = Json::array();
  for (const Introduction::Place& place : introduction.places) {
    Json entry{{"location", place.location}, {"memory", place.memory}};
    if (place.free_bytes) entry["free"] = *place.free_bytes;
    if (place.releases) entry["releases"] = *place.releases;
    places.push_back(entry);
  }
  Json object{{"pid", introduction.pid},
              {"host", introduction.host},
              {"version", introduction.version},
              {"answers", introduction.answers},
              {"trees", introduction.trees},
              {"compares", introduction.compares},
              {"locations", places}};
  if (introduction.complete_seconds) object["complete_seconds"] = *introduction.complete_seconds;
  return line("introduction", object);
}

std::optional<Introduction> parse_introduction(std::span<const uint8_t> bytes) {
  return parse(bytes, "introduction", [](const Json& object) {
    Introduction found;
    found.pid = object.at("pid").get<uint32_t>();
    found.host = short_text(object.at("host"));
    found.version = short_text(object.at("version"));
    found.answers = object.value("answers", false);
    found.trees = object.value("trees", false);
    found.compares = object.value("compares", false);
    if (object.contains("complete_seconds"))
      found.complete_seconds =
          std::clamp(object.at("complete_seconds").get<double>(), 0.0, kMaxCommandSeconds);
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
  return line("question", {{"number", question.number},
                           {subject_text(question.kind), encode_subject(question)}});
}

std::optional<NodeQuestion> parse_question(std::span<const uint8_t> bytes) {
  return parse(bytes, "question", [](const Json& object) {
    NodeQuestion question;
    question.number = object.at("number").get<uint32_t>();
    size_t kind = 0;
    while (!object.contains(kSubjects.at(kind))) ++kind;  // throws when it is about something else
    question.kind = static_cast<NodeQuestion::Kind>(kind);
    decode_subject(object.at(kSubjects[kind]), question);
    return question;
  });
}

std::string answer_text(const NodeAnswer& answer) {
  Json object{{"number", answer.number}, {"states", answer.states}};
  if (!answer.names.empty()) object["names"] = encode_texts(answer.names);
  if (!answer.problems.empty()) object["problems"] = encode_texts(answer.problems);
  if (answer.working) object["working"] = true;
  if (answer.pieces > 1) object.update(Json{{"piece", answer.piece}, {"pieces", answer.pieces}});
  return line("answer", object);
}

std::string working_text(uint32_t question) {
  NodeAnswer answer;
  answer.number = question;
  answer.working = true;
  return answer_text(answer);
}

std::optional<NodeAnswer> parse_answer(std::span<const uint8_t> bytes) {
  return parse(bytes, "answer", [](const Json& object) {
    NodeAnswer answer;
    answer.number = object.at("number").get<uint32_t>();
    for (const Json& state : object.at("states")) answer.states.push_back(short_text(state));
    answer.names = decode_texts(object, "names");
    answer.problems = decode_texts(object, "problems");
    answer.piece = object.value("piece", 0u);
    answer.pieces = object.value("pieces", 1u);
    answer.working = object.value("working", false);
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
