#include "push/push_plan.h"

#include <algorithm>
#include <numeric>

namespace pkgdist::lead {

namespace {

// Files of lower levels first; says where each stood before when that changes anything.
PushRequest in_levels(PushRequest request, std::vector<uint32_t>& levels,
                      std::vector<uint32_t>& original) {
  const std::vector<uint32_t> given = levels_of(request.files);
  levels = given;
  if (std::is_sorted(levels.begin(), levels.end())) return request;
  original.resize(levels.size());
  std::iota(original.begin(), original.end(), 0u);
  std::stable_sort(original.begin(), original.end(),
                   [&](uint32_t a, uint32_t b) { return given[a] < given[b]; });
  std::vector<PushFile> files;
  files.reserve(original.size());
  for (const uint32_t file : original) files.push_back(std::move(request.files[file]));
  request.files = std::move(files);
  std::sort(levels.begin(), levels.end());
  return request;
}

}  // namespace

PushPlan::PushPlan(PushRequest request, uint32_t xact)
    : request_(in_levels(std::move(request), levels_, original_)),
      xact_(xact),
      pieces_(cut_file_list(request_.files, levels_)) {
  for (uint32_t file = 0; file < files(); ++file) {
    by_name_.emplace(name(file), file);
    bytes_ += size(file);
  }
}

std::optional<uint32_t> PushPlan::find(const std::string& name) const {
  const auto found = by_name_.find(name);
  return found == by_name_.end() ? std::nullopt : std::optional(found->second);
}

uint32_t PushPlan::piece_of(uint32_t file) const {
  const auto after = std::upper_bound(pieces_.begin(), pieces_.end(), file,
                                      [](uint32_t f, FileRange range) { return f < range.end; });
  return static_cast<uint32_t>(after - pieces_.begin());
}

uint64_t PushPlan::bytes_of(FileRange range) const {
  uint64_t bytes = 0;
  for (uint32_t file = range.first; file < range.end; ++file) bytes += size(file);
  return bytes;
}

bool PushPlan::wants(uint32_t address) const {
  const std::vector<uint32_t>& nodes = request_.nodes;
  return nodes.empty() || std::find(nodes.begin(), nodes.end(), address) != nodes.end();
}

}  // namespace pkgdist::lead
