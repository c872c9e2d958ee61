// How a node introduces itself to a lead, and the rest of what pkgdist-lead and pkgdist-node say to
// each other in reliable messages of class 5, beside the question of `push --durable`.
//
// Each is one line, "pkgdist-KIND 1 " and a JSON object; strings that need not be UTF-8 are in
// base64:
//   introduction  {"pid":7,"host":"web-3","version":"0.1.0","answers":true,"trees":true,
//                  "compares":true,"locations":[{"location":1,"memory":false,"free":123456,"releases":"base"}],
//                  "complete_seconds":300}
//                 of a node to each lead that it begins to follow; "answers": it answers questions,
//                 "trees": also directories and list; "compares": also compare; "complete_seconds":
//                 it has a command for the end of a push, which may take so long
//   question      {"number":3,"files":{"location":1,"names":[...]}}     what stands there?
//                 {"number":4,"remove":{"location":1,"names":[...]}}    remove directories, too;
//                              with "files":true files as well
//                 {"number":5,"transaction":2147483655}                 is it under way?
//                 {"number":6,"directories":{"location":1,"entries":[[NAME,MODE,MTIME],...]}}
//                              make them, give them mode and time; directories inside come first
//                 {"number":7,"list":{"location":1,"deep":false,"known":
//                              [{"directory":NAME,"after":NAME,"until":NAME,"names":[...]},...]}}
//                              which other names are there, behind "after" and not behind "until"?
//                              "." is the location; "deep": with all that is in other directories
//                 {"number":8,"complete":{"location":1,"transaction":2147483655,"status":0}}
//                              a push has ended; status 0: you have every file of it
//                 {"number":9,"compare":{"location":1,"manifest":TEXT,"signature":TEXT}}
//                              does the content of these files agree? What does not is received
//                              again first. The texts are those of push_manifest.h and of
//                              signatures; without "signature" nobody has signed
//   answer        {"number":3,"states":["file","directory","absent",...]}
//                 {"number":4,"states":["absent",...]}    what stands there now
//                 {"number":5,"states":["open"]}          or "unknown"
//                 {"number":6,"states":["done"],"problems":[[NAME,TEXT],...]}
//                 {"number":7,"states":["done"],"names":[[NAME,"directory"],...],"problems":[...],
//                  "piece":0,"pieces":3}                  pieces come in any order
//                 {"number":8,"states":["done"]}          when the command has ended, or why it
//                                                         has failed, in words
//                 {"number":9,"states":["done"],"names":[[NAME,"received again"],...],
//                  "problems":[[NAME,TEXT],...]}          these agree now, and these do not
//                 {"number":8,"states":[],"working":true}    to a question that is asked again
//                                                            while it is worked on
//   unset         {"location":3}    of a lead: it pushes to a location that the node has not set
// A question is asked again, with the same number, when a node has said nothing for a few seconds.
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
  bool trees = false;
  bool compares = false;
  std::optional<double> complete_seconds;
  std::vector<Place> places;

  // Null: not set there.
  const Place* place(uint32_t location) const;
  bool has(uint32_t location) const { return place(location) != nullptr; }
  // The name of the releases that the location takes.
  std::optional<std::string> releases(uint32_t location) const;
};

// A directory of a tree that is pushed.
struct TreeDirectory {
  std::string name;   // relative to the location, "." for the location itself
  uint32_t mode = 0;  // permissions and the three bits above them
  int64_t mtime = 0;  // seconds
  bool operator==(const TreeDirectory&) const = default;
};

// The names that the lead has in a directory: those behind `after` and not behind `until`, in the
// order of their bytes. Empty: from the first, to the last.
struct KnownNames {
  std::string directory;
  std::string after, until;
  std::vector<std::string> names;  // within the directory
  bool operator==(const KnownNames&) const = default;
};

struct NodeQuestion {
  enum class Kind : uint8_t {
    kFiles,
    kRemove,
    kTransaction,
    kDirectories,
    kList,
    kComplete,
    kCompare
  };
  uint32_t number = 0;
  Kind kind = Kind::kFiles;
  uint32_t location = 0;                   // of all but kTransaction
  std::vector<std::string> names;          // of kFiles and kRemove
  bool files_too = false;                  // of kRemove
  uint32_t transaction = 0;                // of kTransaction and kComplete
  uint32_t status = 0;                     // of kComplete
  std::vector<TreeDirectory> directories;  // of kDirectories
  std::vector<KnownNames> known;           // of kList
  bool deep = false;                       // the same
  std::string manifest, signature;         // of kCompare; no signature: empty
  bool operator==(const NodeQuestion&) const = default;
};

struct NamedText {
  std::string name;
  std::string text;
  bool operator==(const NamedText&) const = default;
};

struct NodeAnswer {
  uint32_t number = 0;
  std::vector<std::string> states = {};  // one for each name, or one
  std::vector<NamedText> names = {};     // of kList and kCompare, with what they are
  std::vector<NamedText> problems = {};  // what could not be done, and why
  uint32_t piece = 0;
  uint32_t pieces = 1;
  bool working = false;  // no answer yet; nothing else counts
};

// States of names in answers. What else is said is an error in words.
inline constexpr const char* kStateFile = "file";
inline constexpr const char* kStateDirectory = "directory";
inline constexpr const char* kStateAbsent = "absent";
inline constexpr const char* kStateReceivedAgain = "received again";
inline constexpr const char* kStateNoLocation = "no such location";
// Of whole questions.
inline constexpr const char* kStateDone = "done";
// And of transactions.
inline constexpr const char* kStateOpen = "open";
inline constexpr const char* kStateUnknown = "unknown";

// "files", "remove" and so on, as in the question.
const char* subject_text(NodeQuestion::Kind kind);

std::string introduction_text(const Introduction& introduction);
std::string question_text(const NodeQuestion& question);
std::string answer_text(const NodeAnswer& answer);
// That the question is worked on.
std::string working_text(uint32_t question);
std::string unset_text(uint32_t location);

// Nothing when the bytes are another message, or make no sense. Texts are cut to a sensible length.
std::optional<Introduction> parse_introduction(std::span<const uint8_t> bytes);
std::optional<NodeQuestion> parse_question(std::span<const uint8_t> bytes);
std::optional<NodeAnswer> parse_answer(std::span<const uint8_t> bytes);
std::optional<uint32_t> parse_unset(std::span<const uint8_t> bytes);

}  // namespace pkgdist::cli
