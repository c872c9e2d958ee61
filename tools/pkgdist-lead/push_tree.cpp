#include "push_tree.h"

#include <algorithm>
#include <map>
#include <set>

namespace pkgdist::lead_program {

namespace {

using Question = cli::NodeQuestion;

constexpr size_t kEntryOverhead = 40;  // numbers, quotes, commas

size_t encoded_size(const std::string& name) {
  return name.size() * 4 / 3 + kEntryOverhead;
}

// Questions of limited size, of entries that are added one after the other.
class Questions {
 public:
  Questions(Question::Kind kind, uint32_t location, bool deep = false) {
    start_.kind = kind;
    start_.location = location;
    start_.deep = deep;
    start_.files_too = kind == Question::Kind::kRemove;
  }

  // The question that has room for so many bytes more.
  Question& with_room(size_t bytes) {
    if (all_.empty() || size_ + bytes > kQuestionBytes) {
      all_.push_back(start_);
      size_ = 0;
    }
    size_ += bytes;
    return all_.back();
  }
  bool begins_another(size_t bytes) const { return all_.empty() || size_ + bytes > kQuestionBytes; }
  std::vector<Question> take() { return std::move(all_); }

 private:
  Question start_;
  std::vector<Question> all_;
  size_t size_ = 0;
};

std::string directory_of(const std::string& name) {
  const size_t slash = name.rfind('/');
  return slash == std::string::npos ? "." : name.substr(0, slash);
}

// One directory: a question that is full is followed by another one about the names behind.
void ask_about(const std::string& directory, const std::set<std::string>& names,
               Questions& questions) {
  cli::KnownNames* part = nullptr;
  const auto begin = [&](size_t first_size) {
    const std::string after = part != nullptr ? part->names.back() : "";
    if (part != nullptr) part->until = after;
    Question& question =
        questions.with_room(encoded_size(directory) + encoded_size(after) + first_size);
    part = &question.known.emplace_back(cli::KnownNames{directory, after, "", {}});
  };
  if (names.empty()) begin(0);
  for (const std::string& name : names) {
    const size_t size = encoded_size(name);
    if (part == nullptr || questions.begins_another(size))
      begin(size);
    else
      (void)questions.with_room(size);
    part->names.push_back(name);
  }
}

}  // namespace

PushTree push_tree(const lead::FileTree& selected, const std::optional<lead::FileTree>& whole,
                   const NameFilter& filter) {
  PushTree tree;
  for (const lead::FileTree::Walked& walked : selected.walked)
    tree.directories.push_back({walked.name, walked.mode, walked.mtime});
  if (!whole) return tree;
  tree.mirror = true;
  tree.filter = filter;
  std::set<std::string> pushed;
  for (const lead::PushFile& file : selected.files) pushed.insert(file.name);
  for (const lead::FileTree::Walked& walked : selected.walked) pushed.insert(walked.name);
  const auto note = [&](const std::string& name) {
    if (!pushed.contains(name)) tree.others.push_back(name);
  };
  for (const lead::PushFile& file : whole->files) note(file.name);
  for (const lead::FileTree::Walked& walked : whole->walked) note(walked.name);
  for (const lead::FileTree::LeftOut& left_out : whole->left_out) note(left_out.name);
  return tree;
}

std::vector<Question> compare_questions(const PushTree& tree, uint32_t location) {
  std::vector<Question> questions;
  for (const Checksums& part : tree.checksums) {
    Question& question = questions.emplace_back();
    question.kind = Question::Kind::kCompare;
    question.location = location;
    question.manifest = part.manifest;
    question.signature = part.signature;
  }
  return questions;
}

// What is inside a directory comes before it.
std::vector<Question> directory_questions(const PushTree& tree, uint32_t location) {
  Questions questions(Question::Kind::kDirectories, location);
  for (auto one = tree.directories.rbegin(); one != tree.directories.rend(); ++one)
    if (one->name != ".") questions.with_room(encoded_size(one->name)).directories.push_back(*one);
  return questions.take();
}

std::vector<Question> list_questions(const PushTree& tree, const std::vector<lead::PushFile>& files,
                                     uint32_t location) {
  std::map<std::string, std::set<std::string>> known;
  for (const cli::TreeDirectory& directory : tree.directories) (void)known[directory.name];
  const auto note = [&](const std::string& name) {
    if (name == ".") return;
    const auto found = known.find(directory_of(name));
    if (found != known.end()) found->second.insert(name.substr(name.rfind('/') + 1));
  };
  for (const lead::PushFile& file : files) note(file.name);
  for (const cli::TreeDirectory& directory : tree.directories) note(directory.name);
  for (const std::string& other : tree.others) note(other);
  Questions questions(Question::Kind::kList, location, !tree.filter.exclude.empty());
  for (const auto& [directory, names] : known) ask_about(directory, names, questions);
  return questions.take();
}

std::vector<Question> remove_questions(const std::vector<std::string>& names, uint32_t location) {
  Questions questions(Question::Kind::kRemove, location);
  for (const std::string& name : names)
    questions.with_room(encoded_size(name)).names.push_back(name);
  return questions.take();
}

std::vector<std::string> names_to_remove(const std::vector<cli::NamedText>& listed,
                                         const NameFilter& filter) {
  std::set<std::string> kept;  // directories with something that stays
  for (const cli::NamedText& entry : listed) {
    if (filter.takes(entry.name)) continue;
    for (std::string above = directory_of(entry.name); above != "."; above = directory_of(above))
      if (!kept.insert(above).second) break;
  }
  std::set<std::string> going;
  for (const cli::NamedText& entry : listed)
    if (filter.takes(entry.name) && !kept.contains(entry.name)) going.insert(entry.name);
  std::vector<std::string> names;
  const auto goes_with_another = [&](const std::string& name) {
    for (std::string above = directory_of(name); above != "."; above = directory_of(above))
      if (going.contains(above)) return true;
    return false;
  };
  for (const std::string& name : going)
    if (!goes_with_another(name)) names.push_back(name);
  return names;
}

}  // namespace pkgdist::lead_program
