#include "push_queue.h"

#include <fmt/core.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "cli_common.h"

namespace pkgdist::lead_program {

namespace {

constexpr size_t kMaxWaiting = 32;
// With many nodes, telling how a push stands takes milliseconds.
constexpr lead::Time kTellManyPeriod = lead::kSecond;
constexpr size_t kManyNodes = 100;
constexpr auto kProgress = cli::Output::Kind::kProgress;

}  // namespace

PushQueue::PushQueue(lead::Lead& lead, lead::DirectoryStore& store, EventTee& events,
                     NodePrograms& programs, std::function<uint64_t()> send_errors)
    : lead_(lead),
      store_(store),
      events_(events),
      programs_(programs),
      send_errors_(std::move(send_errors)) {
  programs_.takes_message = [this](const lead::NodeInfo& node, uint32_t msg_class,
                                   std::span<const uint8_t> bytes) {
    return !waiting_.empty() && waiting_.front().after &&
           waiting_.front().after->on_message(node.address, msg_class, bytes);
  };
  programs_.on_host = [this](uint32_t node, const std::string& host) {
    if (!waiting_.empty() && waiting_.front().began_at != 0 && !waiting_.front().report)
      waiting_.front().client->say({{"event", "host"}, {"node", node}, {"name", host}});
  };
  programs_.on_location_missing = [this](uint32_t node, uint32_t location) {
    events_.location_missing(node, location);
  };
}

void PushQueue::add(QueuedPush push, Client client, lead::Time now) {
  if (waiting_.size() >= kMaxWaiting)
    throw std::runtime_error(fmt::format("{} pushes wait already", waiting_.size()));
  const std::vector<std::string> before = names();
  Entry& entry = waiting_.emplace_back();
  entry.number = ++last_number_;
  entry.push = std::move(push);
  entry.client = std::move(client);
  entry.queued_at = now;
  entry.client->begin(true);
  entry.client->say({{"event", "queued"}, {"number", entry.number}, {"before", before}});
}

void PushQueue::stop(const Client& client, lead::Time now) {
  for (Entry& entry : commands_)
    if (entry.client == client) entry.stopped = true;
  for (Entry& entry : waiting_) {
    if (entry.client != client) continue;
    entry.stopped = true;
    if (entry.began_at != 0 && lead_.push_running()) lead_.stop_push(now);
  }
}

void PushQueue::stop_for(const Client& client, uint32_t node, lead::Time now) {
  for (const Entry& entry : waiting_)
    if (entry.client == client && entry.began_at != 0 && !entry.report)
      (void)lead_.cancel_transaction(entry.transaction, lead::Audience::one(node), now);
}

std::optional<PushQueue::Cancelled> PushQueue::cancel(const std::string& which, lead::Time now) {
  const auto is = [&](uint32_t number, uint32_t transaction, const std::string& name) {
    return which == name || which == std::to_string(number) ||
           (transaction != 0 && which == std::to_string(transaction));
  };
  for (Entry& entry : waiting_) {
    if (!is(entry.number, entry.transaction, entry.push.name)) continue;
    const bool running = entry.began_at != 0 && !entry.report;
    if (running) (void)lead_.cancel_transaction(entry.transaction, lead::Audience::everyone(), now);
    entry.stopped = true;
    return Cancelled{true, fmt::format("push {} ({}) is cancelled{}", entry.number, entry.push.name,
                                       running ? "" : " before it began")};
  }
  for (auto past = past_.rbegin(); past != past_.rend(); ++past)
    if (is(past->number, past->transaction, past->name))
      return Cancelled{false,
                       fmt::format("push {} ({}) has ended already", past->number, past->name)};
  return std::nullopt;
}

// --- The one that runs ---

void PushQueue::begin(Entry& entry, lead::Time now) {
  if (entry.push.tree.only_list) {
    entry.began_at = now;
    programs_.push_begins(entry.push.request.location);
    entry.report = listed_nodes(lead_, entry.push.request);
    say_hosts(entry);
    entry.client->say({{"event", "listed"}, {"report", encode_report(*entry.report)}});
    begin_after(entry, *entry.report);
    return;
  }
  if (const char* problem = lead_.start_push(entry.push.request, now)) {
    entry.client->refuse(problem);
    waiting_.pop_front();
    return;
  }
  if (entry.push.own_root) {
    entry.usual_root = store_.root(entry.push.request.location);
    store_.set_root(entry.push.request.location, entry.push.root);
  }
  entry.began_at = now;
  entry.transaction = lead_.push_transaction();
  entry.before = lead_.counters();
  entry.send_errors_before = send_errors_();
  programs_.push_begins(entry.push.request.location);
  events_.show_to(entry.client);
  entry.client->say({{"event", "begins"}, {"transaction", entry.transaction}});
  say_hosts(entry);
}

void PushQueue::say_hosts(const Entry& entry) const {
  for (const auto& [node, host] : programs_.hosts())
    entry.client->say({{"event", "host"}, {"node", node}, {"name", host}});
}

void PushQueue::tell(Entry& entry, lead::Time now) {
  if (entry.client->gone()) return;
  const bool many = entry.told_at != 0 && lead_.node_counts().heard > kManyNodes;
  if (lead::elapsed(now, entry.told_at) < (many ? kTellManyPeriod : kTellPeriod)) return;
  entry.told_at = now;
  entry.client->say({{"event", "state"},
                     {"report", encode_report(lead_.push_progress())},
                     {"counters", encode_counters(difference(lead_.counters(), entry.before))},
                     {"rate_bits", lead_.rate_bits()}},
                    kProgress);
}

// A push waits for another lead to fall silent as long as it waits for nodes.
bool PushQueue::blocked(Entry& entry, lead::Time now) {
  if (lead_.role() != lead::Role::kStandingBy) {
    entry.blocked_at = 0;
    return false;
  }
  if (entry.blocked_at == 0) entry.blocked_at = now;
  return lead::elapsed(now, entry.blocked_at) >= entry.push.request.node_timeout;
}

void PushQueue::stream_ended(Entry& entry) {
  if (entry.push.own_root) store_.set_root(entry.push.request.location, entry.usual_root);
  entry.report = lead_.push_report();
  events_.show_to(nullptr);
  say_end(entry, difference(lead_.counters(), entry.before));
  // The manifest of a release says what its directories are.
  if (!entry.stopped && !entry.push.own_root) begin_after(entry, *entry.report);
}

void PushQueue::begin_after(Entry& entry, lead::PushReport report) {
  entry.after = std::make_unique<AfterPush>(
      lead_, programs_, entry.push, entry.transaction, std::move(report),
      [client = entry.client](const Json& line) { client->say(line); });
}

void PushQueue::say_end(Entry& entry, const lead::Counters& counted) {
  entry.client->say({{"event", "ended"},
                     {"began", entry.began_at != 0},
                     {"cancelled", entry.stopped},
                     {"blocked_by", entry.blocked_at != 0 ? lead_.other_lead() : 0},
                     {"report", encode_report(entry.report.value_or(lead::PushReport{}))},
                     {"counters", encode_counters(counted)},
                     {"nodes_heard", lead_.node_counts().heard},
                     {"send_errors", send_errors_() - entry.send_errors_before}});
}

void PushQueue::run(lead::Time now) {
  run_commands(now);
  drop_stopped(now);
  if (waiting_.empty()) return;
  Entry& entry = waiting_.front();
  if (entry.began_at == 0) return begin(entry, now);
  if (!entry.report) {
    tell(entry, now);
    if (lead_.push_running() && blocked(entry, now)) lead_.stop_push(now);
    if (lead_.push_running()) return;
    stream_ended(entry);
  }
  if (entry.after && !entry.stopped) {
    entry.after->run(now);
    if (entry.after->waits_for_commands()) {
      remember(entry, now);
      return commands_.splice(commands_.end(), waiting_, waiting_.begin());
    }
    if (!entry.after->ended()) return;
  }
  if (!entry.push.tree.only_list) remember(entry, now);
  finish(waiting_);
}

// Those that did not begin end at once, wherever they wait.
void PushQueue::drop_stopped(lead::Time now) {
  std::list<Entry> ended;
  for (auto entry = waiting_.begin(); entry != waiting_.end();) {
    const auto next = std::next(entry);
    if (entry->stopped && entry->began_at == 0) ended.splice(ended.end(), waiting_, entry);
    entry = next;
  }
  for (; !ended.empty(); finish(ended)) {
    say_end(ended.front(), {});
    remember(ended.front(), now);
  }
}

void PushQueue::run_commands(lead::Time now) {
  std::list<Entry> ended;
  for (auto entry = commands_.begin(); entry != commands_.end();) {
    const auto next = std::next(entry);
    entry->after->run(now);
    if (entry->stopped || entry->after->ended()) ended.splice(ended.end(), commands_, entry);
    entry = next;
  }
  while (!ended.empty()) finish(ended);
}

// The first of them.
void PushQueue::finish(std::list<Entry>& list) {
  list.front().client->finish({{"event", "done"}});
  list.pop_front();
}

}  // namespace pkgdist::lead_program
