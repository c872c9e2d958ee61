#include "heard_nodes.h"

#include <algorithm>

namespace pkgdist::lead_program {

namespace {

bool contains(const std::vector<uint32_t>& nodes, uint32_t node) {
  return std::find(nodes.begin(), nodes.end(), node) != nodes.end();
}

}  // namespace

bool HeardNodes::has(const std::vector<uint32_t>& wanted, size_t count) const {
  return takers.size() >= count && std::all_of(wanted.begin(), wanted.end(), [&](uint32_t node) {
           return contains(takers, node) || contains(others, node);
         });
}

bool HeardNodes::takes(uint32_t node) const {
  return contains(takers, node);
}

std::string HeardNodes::lack(uint32_t node) const {
  if (takes(node)) return "";
  return contains(others, node) ? "takes no releases there" : "was not heard";
}

HeardNodes heard_nodes(const lead::Lead& lead, const NodePrograms& programs, uint32_t location) {
  HeardNodes heard;
  for (const lead::Lead::NodeView& node : lead.nodes()) {
    if (node.silent) continue;
    const cli::Introduction* introduction = programs.find(node.info);
    const auto name = introduction != nullptr ? introduction->releases(location) : std::nullopt;
    (introduction == nullptr || name ? heard.takers : heard.others).push_back(node.info.address);
    if (name) heard.names[node.info.address] = *name;
  }
  return heard;
}

}  // namespace pkgdist::lead_program
