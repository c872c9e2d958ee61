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

}  // namespace pkgdist::lead
