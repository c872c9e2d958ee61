// What a push does about its tree beside the files: the nodes' programs compare contents with
// --checksum, make directories and set their modes and times, and with --delete remove what the
// lead does not have.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "introduction.h"
#include "pkgdist_lead/directory_store.h"
#include "push_selection.h"

namespace pkgdist::lead_program {

// A part of what the nodes' files are compared with (push_manifest.h of releases).
struct Checksums {
  std::string manifest;
  std::string signature;  // empty: none
  uint64_t bytes = 0;     // of the files
  bool operator==(const Checksums&) const = default;
};

struct PushTree {
  std::vector<cli::TreeDirectory> directories;  // that were walked, sorted by name
  // push --delete
  bool mirror = false;
  bool only_list = false;            // --dry-run: nothing is sent, nothing is removed
  std::vector<std::string> others;   // what the lead has in the directories and does not push
  NameFilter filter;                 // names that it leaves out stay on the nodes
  std::vector<Checksums> checksums;  // push --checksum
};

// `whole` is the tree before the filter, when `mirror`.
PushTree push_tree(const lead::FileTree& selected, const std::optional<lead::FileTree>& whole,
                   const NameFilter& filter);

// Bytes of a question, about: its datagrams leave in one burst.
inline constexpr size_t kQuestionBytes = 48'000;

// The questions with which nodes compare contents. Files of so many bytes in one question, or one
// that is larger: it is answered in some seconds.
inline constexpr size_t kChecksumBytes = 36'000;  // of a manifest, which travels in base64
inline constexpr uint64_t kComparedBytes = uint64_t{256} << 20;
std::vector<cli::NodeQuestion> compare_questions(const PushTree& tree, uint32_t location);

// The questions that set the directories, and those that ask for names which the lead does not
// have. Numbers are given later.
std::vector<cli::NodeQuestion> directory_questions(const PushTree& tree, uint32_t location);
std::vector<cli::NodeQuestion> list_questions(const PushTree& tree,
                                              const std::vector<lead::PushFile>& files,
                                              uint32_t location);
std::vector<cli::NodeQuestion> remove_questions(const std::vector<std::string>& names,
                                                uint32_t location);

// Of what a node has listed, the names that go: without those that the filter protects and the
// directories that hold one of them, and without what is in a directory that goes.
std::vector<std::string> names_to_remove(const std::vector<cli::NamedText>& listed,
                                         const NameFilter& filter);

}  // namespace pkgdist::lead_program
