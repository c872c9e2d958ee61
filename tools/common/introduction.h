// How a node introduces itself to a lead, and the rest of what pkgdist-lead and pkgdist-node say to
// each other in reliable messages of class 5, beside the question of `push --durable`.
//
// Each is one line, "pkgdist-KIND 1 " and a JSON object; strings that need not be UTF-8 are in
// base64:
//   introduction  {"pid":7,"host":"web-3","version":"0.1.0","answers":true,
//                  "locations":[{"location":1,"memory":false,"free":123456,"releases":"base"}]}
//                 of a node to each lead that it begins to follow; "answers": it answers questions
//   question      {"number":3,"files":{"location":1,"names":[...]}}     what stands there?
//                 {"number":4,"remove":{"location":1,"names":[...]}}    remove directories, too
//                 {"number":5,"transaction":2147483655}                 is it under way?
//   answer        {"number":3,"states":["file","directory","absent",...]}
//                 {"number":4,"states":["absent",...]}    what stands there now
//                 {"number":5,"states":["open"]}          or "unknown"
//   unset         {"location":3}    of a lead: it pushes to a location that the node has not set
// A program that does not know them takes them for messages like any other.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cli_common.h"

namespace pkgdist::cli {

inline constexpr uint32_t kProgramClass = 5;

struct Introduction {
  struct Place {
    uint32_t location = 0;
    bool memory = false;
    std::optional<uint64_t> free_bytes;   // that this user may write
    std::optional<std::string> releases;  // takes signed releases of this name, nothing else
  };
  uint32_t pid = 0;
  std::string host;
  std::string version;
  bool answers = false;
  std::vector<Place> places;

  bool has(uint32_t location) const;
};

struct NodeQuestion {
  enum class Kind : uint8_t { kFiles, kRemove, kTransaction };
  uint32_t number = 0;
  Kind kind = Kind::kFiles;
  uint32_t location = 0;           // of kFiles and kRemove
  std::vector<std::string> names;  // the same
  uint32_t transaction = 0;
};

struct NodeAnswer {
  uint32_t number = 0;
  std::vector<std::string> states;  // one for each name, or one
};

// States of names in answers. What else is said is an error in words.
inline constexpr const char* kStateFile = "file";
inline constexpr const char* kStateDirectory = "directory";
inline constexpr const char* kStateAbsent = "absent";
inline constexpr const char* kStateNoLocation = "no such location";
// And of transactions.
inline constexpr const char* kStateOpen = "open";
inline constexpr const char* kStateUnknown = "unknown";

std::string introduction_text(const Introduction& introduction);
std::string question_text(const NodeQuestion& question);
std::string answer_text(const NodeAnswer& answer);
std::string unset_text(uint32_t location);

// Nothing when the bytes are another message, or make no sense. Texts are cut to a sensible length.
std::optional<Introduction> parse_introduction(std::span<const uint8_t> bytes);
std::optional<NodeQuestion> parse_question(std::span<const uint8_t> bytes);
std::optional<NodeAnswer> parse_answer(std::span<const uint8_t> bytes);
std::optional<uint32_t> parse_unset(std::span<const uint8_t> bytes);

}  // namespace pkgdist::cli
