#include "push_selection.h"

#include <fmt/core.h>
#include <fnmatch.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fstream>
#include <iostream>
#include <set>

namespace pkgdist::lead_program {

namespace {

// Calls look(part) for the name and each of its directories, or for each component, until it says
// yes.
template <class Look>
bool any_part(const std::string& name, bool components, Look&& look) {
  for (size_t start = 0;;) {
    const size_t end = std::min(name.find('/', start), name.size());
    if (look(components ? name.substr(start, end - start) : name.substr(0, end))) return true;
    if (end == name.size()) return false;
    start = end + 1;
  }
}

bool matches(const std::string& pattern, const std::string& name) {
  std::string plain = pattern;
  while (plain.size() > 1 && plain.ends_with('/')) plain.pop_back();
  const bool whole = plain.find('/') != std::string::npos;
  if (plain.starts_with('/')) plain.erase(0, 1);
  return any_part(name, !whole, [&](const std::string& part) {
    return ::fnmatch(plain.c_str(), part.c_str(), FNM_PATHNAME) == 0;
  });
}

bool any_matches(const std::vector<std::string>& patterns, const std::string& name) {
  return std::any_of(patterns.begin(), patterns.end(),
                     [&](const std::string& pattern) { return matches(pattern, name); });
}

std::set<std::string> directories_of(const std::vector<lead::PushFile>& files) {
  std::set<std::string> directories;
  for (const lead::PushFile& file : files)
    for (size_t end = file.name.rfind('/'); end != std::string::npos && end != 0;
         end = file.name.rfind('/', end - 1))
      if (!directories.insert(file.name.substr(0, end)).second) break;
  return directories;
}

}  // namespace

bool NameFilter::takes(const std::string& name) const {
  return !any_matches(exclude, name) || any_matches(include, name);
}

void select(lead::FileTree& tree, const NameFilter& filter) {
  if (filter.exclude.empty()) return;
  const auto unwanted = [&](const auto& one) { return !filter.takes(one.name); };
  std::erase_if(tree.files, unwanted);
  std::erase_if(tree.left_out, unwanted);
  std::erase_if(tree.walked, unwanted);
  std::set<std::string> directories = directories_of(tree.files);
  for (const lead::FileTree::Walked& walked : tree.walked) directories.insert(walked.name);
  std::erase_if(tree.directories,
                [&](const std::string& name) { return !directories.contains(name); });
}

std::vector<std::string> names_from(const std::string& path) {
  std::ifstream file;
  if (path != "-") file.open(path);
  std::istream& in = path == "-" ? std::cin : file;
  std::vector<std::string> names;
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) names.push_back(line);
  if (in.bad() || (path != "-" && !file.is_open()))
    throw CLI::ValidationError(fmt::format("--files-from: '{}' cannot be read", path));
  return names;
}

}  // namespace pkgdist::lead_program
