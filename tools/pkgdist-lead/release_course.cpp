#include "release_course.h"

#include <fmt/core.h>

#include "pkgdist_lead/udp_transport.h"
#include "push_figures.h"
#include "status_text.h"

namespace pkgdist::lead_program {

namespace {

using Action = ReleasePush::Action;
using Phase = ReleasePush::Phase;

// Why a node lacks something of a push; empty when it has everything.
std::string lack(const lead::PushNodeReport& node) {
  if (is_complete(node)) return "";
  if (!node.heard) return "was never heard";
  if (!node.failed.empty()) return cli::status_text(node.failed.begin()->second);
  return node.silent ? "fell silent" : "did not get the manifest";
}

uint64_t bytes_of(const std::vector<lead::PushFile>& files) {
  uint64_t bytes = 0;
  for (const lead::PushFile& file : files) bytes += file.size;
  return bytes;
}

}  // namespace

ReleaseCourse::ReleaseCourse(const LeadOptions& options, const ReleaseSource* source,
                             ReleaseLink& link, ReleasePush& push, ReleaseView& view)
    : options_(options), source_(source), link_(link), push_(push), view_(view) {
  link_.on_state = [this](uint32_t node, const cli::ReleaseState& state) {
    if (!push_.nodes().contains(node) || state.location != options_.location) return;
    view_.state(node, state);
    push_.on_state(node, state, lead::monotonic_now());
    changed_ = true;
  };
}

ReleaseCourse::~ReleaseCourse() {
  link_.on_state = nullptr;
}

bool ReleaseCourse::run() {
  for (;;) {
    const ReleasePush::Step step = push_.next(lead::monotonic_now());
    if (step.action == Action::kEnd) return true;
    if (!take(step)) return false;
  }
}

bool ReleaseCourse::take(const ReleasePush::Step& step) {
  switch (step.action) {
    case Action::kPushDescription:
      return push_description(step);
    case Action::kPushFiles:
      return push_files(step);
    case Action::kOrder:
      tell_order(step);
      link_.order(step.question, step.nodes);
      return true;
    case Action::kWait:
      changed_ = false;
      return link_.wait([this] { return changed_; }, step.until);
    case Action::kEnd:
      break;
  }
  return true;
}

void ReleaseCourse::tell_order(const ReleasePush::Step& step) {
  if (std::exchange(told_, push_.phase()) == push_.phase()) return;
  view_.phase({.phase = push_.phase(), .nodes = step.nodes.size()});
}

// --- Pushes ---

lead::PushRequest ReleaseCourse::request(const std::vector<uint32_t>& nodes) const {
  lead::PushRequest request;
  request.location = options_.location;
  request.type = options_.type;
  request.priority = options_.priority;
  request.nodes = nodes;
  request.node_timeout = static_cast<lead::Time>(options_.timeout_seconds * 1e9);
  request.slow_nodes = options_.slow_nodes;
  request.max_time = static_cast<lead::Time>(options_.max_seconds * 1e9);
  return request;
}

PushEnd ReleaseCourse::push(lead::PushRequest request) {
  told_ = push_.phase();
  view_.phase({.phase = told_,
               .nodes = request.nodes.empty() ? request.node_count : request.nodes.size(),
               .files = request.files.size(),
               .bytes = bytes_of(request.files),
               .all = source_->files.size()});
  PushEnd end = link_.push(request);
  bytes_sent_ += end.counters.data_bytes_sent;
  return end;
}

bool ReleaseCourse::push_description(const ReleasePush::Step& step) {
  lead::PushRequest wanted = request(step.nodes);
  wanted.files = source_->description;
  wanted.type = kTypeOfPresentFiles;
  wanted.node_count = options_.node_count;
  const PushEnd end = push(std::move(wanted));
  if (end.interrupted) return false;
  std::map<uint32_t, std::string> lacks;
  for (const lead::PushNodeReport& node : end.report.nodes) lacks[node.address] = lack(node);
  const HeardNodes heard = link_.gather({}, 0, 0);
  // A number of nodes means nodes that take releases.
  if (options_.nodes.empty())
    for (const uint32_t node : heard.others) lacks.erase(node);
  for (auto& [node, why] : lacks)
    if (why.empty() && !heard.takes(node)) why = heard.lack(node);
  push_.described(lacks);
  return true;
}

bool ReleaseCourse::push_files(const ReleasePush::Step& step) {
  lead::PushRequest wanted = request(step.nodes);
  for (const uint32_t file : step.files) wanted.files.push_back(source_->files.at(file));
  const PushEnd end = push(std::move(wanted));
  push_.fetched();
  return !end.interrupted;
}

}  // namespace pkgdist::lead_program
