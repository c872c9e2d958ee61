// Compares manifests with trees and with each other.
#include <fmt/core.h>

#include <set>

#include "tree.h"

namespace pkgdist::release {

namespace {

// What the first thing is in which two entries of one path differ; null when they are equal.
const char* difference(const Entry& said, const Entry& found) {
  if (said.kind != found.kind) return "kind";
  if (said.size != found.size) return "size";
  if (said.digest != found.digest) return "content";
  if (said.target != found.target) return "target";
  if (said.mode != found.mode) return "mode";
  if (said.mtime != found.mtime) return "time";
  return nullptr;
}

// Walks two sorted lists together. `one_side` or `other_side` is null where a path is missing.
template <class Visit>
void walk_both(const std::vector<Entry>& one, const std::vector<Entry>& other, Visit visit) {
  auto a = one.begin();
  auto b = other.begin();
  while (a != one.end() || b != other.end()) {
    if (b == other.end() || (a != one.end() && a->path < b->path)) {
      visit(&*a++, nullptr);
    } else if (a == one.end() || b->path < a->path) {
      visit(nullptr, &*b++);
    } else {
      visit(&*a++, &*b++);
    }
  }
}

}  // namespace

std::vector<std::string> differences(const Manifest& manifest, const ScannedTree& tree) {
  std::vector<std::string> texts;
  walk_both(manifest.entries, tree.entries, [&](const Entry* said, const Entry* found) {
    if (said == nullptr)
      texts.push_back("not in the manifest: " + found->path);
    else if (found == nullptr)
      texts.push_back("missing: " + said->path);
    else if (const char* what = difference(*said, *found); what != nullptr)
      texts.push_back(fmt::format("{} differs: {}", what, said->path));
  });
  return texts;
}

Update compare(const Manifest& before, const Manifest& after) {
  Update update;
  std::set<Digest> present;
  for (const Entry& entry : before.entries)
    if (entry.kind == Kind::kFile) present.insert(entry.digest);
  walk_both(before.entries, after.entries, [&](const Entry* old_entry, const Entry* new_entry) {
    if (new_entry == nullptr) return update.removed.push_back(old_entry);
    if (old_entry == nullptr)
      update.added.push_back(new_entry);
    else if (difference(*old_entry, *new_entry) != nullptr)
      update.changed.push_back(new_entry);
    if (new_entry->kind != Kind::kFile || present.contains(new_entry->digest)) return;
    update.sent.push_back(new_entry);
    update.bytes += new_entry->size;
  });
  return update;
}

}  // namespace pkgdist::release
