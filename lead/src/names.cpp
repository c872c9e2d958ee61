#include "pkgdist_lead/names.h"

#include <algorithm>

namespace pkgdist::lead {

const char* name_problem(std::string_view name) {
  if (name.empty()) return "the name is empty";
  if (name.size() > kMaxNameLength) return "the name is longer than 240 bytes";
  if (name.find('\0') != std::string_view::npos) return "the name holds a zero byte";
  if (name.back() == '/') return "the name ends with a slash";
  for (size_t start = 0; start <= name.size();) {
    const size_t end = std::min(name.find('/', start), name.size());
    if (name.substr(start, end - start) == "..") return "the name holds a '..' component";
    start = end + 1;
  }
  return nullptr;
}

std::string plain_name(std::string_view name) {
  std::string plain;
  plain.reserve(name.size());
  for (size_t start = 0; start < name.size();) {
    const size_t end = std::min(name.find('/', start), name.size());
    const std::string_view component = name.substr(start, end - start);
    start = end + 1;
    if (component.empty() || component == ".") continue;
    if (!plain.empty()) plain += '/';
    plain += component;
  }
  return plain;
}

std::vector<std::string_view> owners_of_partial(std::string_view plain) {
  constexpr std::string_view kSuffix = ".tmp";
  std::vector<std::string_view> owners;
  for (size_t at = plain.find(kSuffix); at != std::string_view::npos;
       at = plain.find(kSuffix, at + 1)) {
    const size_t end = at + kSuffix.size();
    const bool ends_component = end == plain.size() || plain[end] == '/';
    if (ends_component && at != 0 && plain[at - 1] != '/') owners.push_back(plain.substr(0, at));
  }
  return owners;
}

}  // namespace pkgdist::lead
