#include "push/push_report.h"

#include <algorithm>

namespace pkgdist::lead {

namespace {

// Bytes of the file that have arrived on the node.
uint64_t arrived(const Streamed& part, NodeIndex node, const DataSender& data) {
  const Transfer& transfer = *part.transfer;
  const uint64_t segments = data.arrived_segments(transfer, node);
  return std::min(part.bytes, transfer.attributes.size * segments / transfer.segments);
}

void add_member(PushReport& report, NodeIndex index, const Member& member, const DataSender& data,
                const std::vector<Streamed>& in_transfer) {
  PushNodeReport& node = report.nodes.emplace_back(member.report);
  node.files_failed = member.failed.size();
  node.files_left = member.left;
  if (member.left == 0 || !member.present) return;
  for (const Streamed& part : in_transfer) {
    if (member.ended[part.file]) continue;
    node.bytes_sent += part.bytes;
    node.bytes_in_transfer += arrived(part, index, data);
    node.segments += part.segments;
  }
}

}  // namespace

void add_nodes(PushReport& report, const PushPlan& plan, const Members& members,
               const NodeTable& nodes, const DataSender& data,
               const std::vector<Streamed>& in_transfer) {
  report.expected_nodes = plan.expected_nodes();
  report.nodes.reserve(members.size());
  for (NodeIndex node = 0; node < members.size(); ++node) {
    if (!members[node].known) continue;
    add_member(report, node, members[node], data, in_transfer);
    report.nodes.back().last_heard = nodes[node].last_heard;
  }
  for (const uint32_t address : plan.request().nodes) {
    if (members.find(nodes.find(address)) != nullptr) continue;
    PushNodeReport& absent = report.nodes.emplace_back();
    absent.address = address;
    absent.files_left = plan.files();
    absent.bytes_left = plan.bytes();
  }
}

void add_files(PushReport& report, const PushPlan& plan, const Members& members) {
  auto node = report.nodes.begin();
  for (NodeIndex index = 0; index < members.size(); ++index) {
    const Member& member = members[index];
    if (!member.known) continue;
    for (const auto& [file, status] : member.failed) node->failed[plan.original(file)] = status;
    if (member.left != 0) node->open = members.lacking(member, {0, plan.files()});
    for (uint32_t& file : node->open) file = plan.original(file);
    ++node;
  }
}

bool PushReport::complete() const {
  if (!finished || nodes.size() < expected_nodes) return false;
  return std::all_of(nodes.begin(), nodes.end(), [&](const PushNodeReport& node) {
    return node.heard && node.files_failed == 0 && node.files_left == 0 && node.files_done == files;
  });
}

}  // namespace pkgdist::lead
