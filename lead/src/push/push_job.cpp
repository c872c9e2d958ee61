#include "push/push_job.h"

#include <algorithm>
#include <cerrno>

#include "pkgdist/status.h"
#include "pkgdist_lead/names.h"
#include "push/push_report.h"

namespace pkgdist::lead {

namespace {

// How long nodes that ask for files of a push that gathers its nodes are left to wait for it. They
// ask again within seconds, and give up after 21.
constexpr Time kRequestHold = 2 * kSecond;
// A process that ends more often in one push ends because of it.
constexpr uint32_t kMaxRestarts = 3;

bool audience_takes(const Audience& audience, const NodeInfo& node) {
  if (audience.unicast) return audience.nodes.front() == node.address;
  return audience.includes(node.address, node.card_class);
}

}  // namespace

PushJob::PushJob(PushRequest request, uint32_t xact, const NodeTable& nodes, ControlStream& control,
                 DataSender& data, Events& events)
    : plan_(std::move(request), xact),
      nodes_(nodes),
      data_(data),
      events_(events),
      members_(plan_),
      announcer_(plan_, members_, nodes, control),
      walk_(plan_, members_, announcer_, data),
      reachability_(members_, announcer_, nodes, data),
      patience_(plan_.request().node_timeout, 0) {
  summary_.files = plan_.files();
  summary_.bytes = plan_.bytes();
}

// --- The course ---

void PushJob::begin(Time now) {
  now_ = summary_.started_at = now;
  patience_ = Patience(node_timeout(), now);
  walk_.begin(now);
  if (plan_.request().max_time != 0) ends_at_ = now + plan_.request().max_time;
  for (NodeIndex i = 0; i < nodes_.size(); ++i)
    if (nodes_[i].info.pid != 0 && !nodes_[i].silent) on_node_fresh(i);
}

void PushJob::gather() {
  const bool gathered = members_.present() >= plan_.expected_nodes();
  patience_.note(members_.present(), now_);
  if (!gathered && !patience_.over(now_)) return;
  phase_ = Phase::kRunning;
  summary_.started = true;
  summary_.started_at = now_;
  events_.push_started(plan_.xact(), summary_.files, summary_.bytes,
                       static_cast<uint32_t>(members_.present()));
}

void PushJob::run(Time now) {
  now_ = now;
  if (!finished() && now >= ends_at_) {
    count_unfinished();
    return finish();
  }
  if (gathering()) gather();
  if (phase_ != Phase::kRunning) return;
  walk_.run(now);
  announcer_.run([this](uint32_t piece) { return walk_.in_transfer(piece); }, now);
  find_straggler();
  for (const auto& [node, status] : reachability_.look(now)) leave_out(node, status);
  walk_.feed(now);
  if (members_.unfinished() == 0) return_to_deferred();
  if (members_.unfinished() == 0) finish();
}

Time PushJob::next_deadline() const {
  if (finished()) return kNever;
  if (gathering()) return std::min(ends_at_, patience_.deadline());
  return std::min({ends_at_, walk_.next_deadline(), announcer_.next_deadline(now_)});
}

void PushJob::stop(Time now) {
  if (finished()) return;
  count_unfinished();
  data_.abandon(plan_.files());
  phase_ = Phase::kFinished;
  summary_.finished_at = now;
}

void PushJob::finish() {
  // What is still in transfer is for nodes outside of the push, who ask again.
  data_.abandon(plan_.files());
  phase_ = Phase::kFinished;
  summary_.finished_at = now_;
  events_.push_finished();
}

void PushJob::cancel(const Audience& audience, Time now) {
  if (finished()) return;
  now_ = now;
  for (NodeIndex node = 0; node < members_.size(); ++node)
    if (members_[node].known && audience_takes(audience, nodes_[node].info))
      give_up(node, PKGDIST_STATUS_CANCELLED);
  if (audience.nodes.empty() && audience.card_class == kCardClassEveryone) finish();
}

// --- Nodes ---

void PushJob::on_node_fresh(NodeIndex node, bool restarted) {
  const NodeInfo& info = nodes_[node].info;
  if (finished() || info.pid == 0 || !plan_.wants(info.address)) return;
  Member& fresh = members_.enter(node, info);
  if (fresh.report.deferred) return;
  set_present(fresh, true);
  announcer_.forget(node);
  walk_.go_round();
  if (phase_ != Phase::kRunning) return;
  if (restarted && ++fresh.restarts > kMaxRestarts)
    return give_up(node, PKGDIST_STATUS_FROM_ERRNO(ECONNRESET));
  announcer_.inform(node);
}

void PushJob::on_node_silent(NodeIndex node) {
  Member* gone = members_.find(node);
  if (gone == nullptr) return;
  if (gone->present) members_.count_unfinished(*gone, walk_.streamed());
  set_present(*gone, false);
  gone->report.silent = true;
  walk_.look_for_unneeded();
  announcer_.look_anew();
}

void PushJob::set_present(Member& member, bool present) {
  if (members_.set_present(member, present) && plan_.leveled()) walk_.go_round();
}

// What has not ended on the node ends so.
void PushJob::give_up(NodeIndex node, uint64_t status) {
  for (const uint32_t file : members_.lacking(members_[node], {0, plan_.files()})) {
    end_file(node, file, status);
    events_.file_ended(nodes_[node].info, plan_.name(file), status, false);
  }
  walk_.look_for_unneeded();
  announcer_.look_anew();
}

// A node that is dropped gets nothing more, one that is deferred gets its rest a little later: the
// first is told by a second, which a node that is busy with something else for a moment stands; the
// others do not wait that long for the second.
void PushJob::find_straggler() {
  constexpr Time kDropPatience = kSecond;
  constexpr Time kDeferPatience = 100 * kMillisecond;
  const SlowNodes policy = plan_.request().slow_nodes;
  if (policy == SlowNodes::kWait) return;
  const Time patience = policy == SlowNodes::kDrop ? kDropPatience : kDeferPatience;
  if (const NodeIndex slow = data_.take_straggler(now_, patience); slow != kNoNode)
    treat_straggler(slow);
}

// The last node that lacks something holds nobody up.
void PushJob::treat_straggler(NodeIndex node) {
  Member* const slow = members_.find(node);
  if (slow == nullptr || !slow->present || slow->left == 0 || members_.unfinished() < 2) return;
  if (plan_.request().slow_nodes == SlowNodes::kDrop)
    return leave_out(node, PKGDIST_STATUS_FROM_ERRNO(ETIME));
  slow->behind = slow->report.deferred = true;
  announcer_.cancel_again(node);
  set_present(*slow, false);
  walk_.look_for_unneeded();
  events_.node_deferred(nodes_[node].info);
  announcer_.look_anew();
  data_.drop_node(node);
}

// What the node lacks ends so, also on the node itself.
void PushJob::leave_out(NodeIndex node, uint64_t status) {
  members_[node].behind = true;
  announcer_.cancel_again(node);
  give_up(node, status);
  announcer_.dismiss(node, now_);
  data_.drop_node(node);
}

bool PushJob::leave_out_node(NodeIndex node, uint64_t status, Time now) {
  now_ = now;
  const Member* const one = members_.find(node);
  if (phase_ != Phase::kRunning || one == nullptr) return false;
  if (one->left != 0) leave_out(node, status);
  return true;
}

void PushJob::return_to_deferred() {
  for (NodeIndex node = 0; node < members_.size(); ++node) {
    Member& one = members_[node];
    if (!one.report.deferred || one.left == 0 || nodes_[node].silent) continue;
    one.behind = one.report.deferred = false;
    on_node_fresh(node);
  }
}

void PushJob::on_acknowledged(uint32_t sequence, NodeIndex node, bool direct) {
  using What = Announcer::Arrived::What;
  const Announcer::Arrived arrived = announcer_.on_acknowledged(sequence, node, direct, now_);
  if (arrived.what == What::kPlaces) walk_.go_round();
  if (arrived.what == What::kPiece) {
    walk_.go_round_for(arrived.piece);
    walk_.join_piece(arrived.piece, node, now_);
  }
  for (const uint32_t file : arrived.files) walk_.join(file, node, now_);
}

// --- Files ---

void PushJob::end_file(NodeIndex node, uint32_t file, uint64_t status) {
  if (!members_.end(members_[node], file, status, now_) || !plan_.leveled()) return;
  // The node may hear of what is perhaps on its way to others.
  walk_.go_round();
  announcer_.inform(node);
}

void PushJob::on_ended(const Transfer& transfer, NodeIndex node, uint64_t status, bool skipped) {
  const uint32_t file = file_of(transfer);
  Member* one = members_.find(node);
  if (one == nullptr || one->ended[file]) return;
  members_.count_end(*one, file, transfer, status, skipped);
  if (tries_.after_end(node, transfer, status)) {
    announcer_.tell_again(node, file);
    return walk_.go_round();
  }
  end_file(node, file, status);
  if (members_.needed(file) == 0 && transfer.open != 0) walk_.look_for_unneeded();
  events_.file_ended(nodes_[node].info, transfer.key.name, status, skipped);
}

void PushJob::on_received_elsewhere(const Transfer& transfer, NodeIndex node) {
  walk_.go_round();
  const std::optional<uint32_t> file = plan_.find(transfer.key.name);
  Member* one = members_.find(node);
  if (phase_ != Phase::kRunning || one == nullptr || !file) return;
  if (transfer.key.location != plan_.request().location || transfer.started < walk_.begun()) return;
  if (one->ended[*file] || !announcer_.has_heard(node, plan_.piece_of(*file))) return;
  members_.count_end(*one, *file, transfer, 0, false);
  end_file(node, *file, 0);
  events_.file_ended(nodes_[node].info, transfer.key.name, 0, false);
}

bool PushJob::on_unlisted(const Transfer& transfer, NodeIndex node) {
  const Member* one = members_.find(node);
  if (phase_ != Phase::kRunning || one == nullptr || !one->present) return false;
  if (!tries_.after_ignorance(node, file_of(transfer), now_)) return false;
  announcer_.tell_again(node, file_of(transfer));
  return true;
}

// What is cancelled in this push has ended here already.
bool PushJob::ends_unknown(const Transfer& transfer, uint64_t status) const {
  if (status == PKGDIST_STATUS_CANCELLED) return false;
  return status != PKGDIST_STATUS_DELETED || deleted_.contains(file_of(transfer));
}

void PushJob::note_deleted(uint32_t location, const std::vector<std::string>& names) {
  if (location != plan_.request().location) return;
  for (const std::string& name : names)
    if (const auto file = plan_.find(name)) deleted_.insert(*file);
}

bool PushJob::start_requested(const FileKey& key, NodeIndex node, Time now) {
  now_ = now;
  const std::optional<uint32_t> file = plan_.find(key.name);
  if (key.location != plan_.request().location || !file) return false;
  if (gathering())
    return plan_.wants(nodes_[node].info.address) &&
           elapsed(now, summary_.started_at) < kRequestHold;
  const Member* asking = members_.find(node);
  if (finished() || asking == nullptr || !asking->needs(*file)) return false;
  // The node asks again.
  if (!members_.may_hear(*asking, plan_.piece_of(*file)) || !announcer_.clear(node) ||
      data_.collides(key))
    return true;
  walk_.start_for(*file, node, now);
  return true;
}

bool PushJob::holds_back(const FileKey& key, NodeIndex node) const {
  const Member* asking = members_.find(node);
  if (phase_ != Phase::kRunning || asking == nullptr || key.location != plan_.request().location)
    return false;
  const std::string plain = plain_name(key.name);
  const std::vector<std::string_view> owners = owners_of_partial(plain);
  return std::any_of(owners.begin(), owners.end(), [&](std::string_view owner) {
    const std::optional<uint32_t> file = plan_.find(std::string(owner));
    return file && asking->needs(*file);
  });
}

// --- Reports ---

void PushJob::count_unfinished() {
  const std::vector<Streamed> in_transfer = walk_.streamed();
  for (NodeIndex node = 0; node < members_.size(); ++node)
    if (members_[node].present) members_.count_unfinished(members_[node], in_transfer);
}

PushReport PushJob::progress() const {
  PushReport report = summary_;
  report.finished = finished();
  report.waits_since = patience_.since();
  report.bytes_received = members_.bytes_received();
  add_nodes(report, plan_, members_, nodes_, data_, walk_.streamed());
  return report;
}

PushReport PushJob::report() const {
  PushReport report = progress();
  add_files(report, plan_, members_);
  return report;
}

}  // namespace pkgdist::lead
