#include "push_watch.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "cli_common.h"
#include "push_wire.h"

namespace pkgdist::lead_program {

namespace {

// With many nodes, telling how a push stands takes milliseconds, in which nothing is sent.
constexpr lead::Time kManyPeriod = lead::kSecond;
constexpr size_t kManyToWatch = 100;

}  // namespace

void PushWatch::begin(const Client& client) {
  client->begin(true);
  client->say({{"event", "watching"}, {"version", cli::version()}});
  watchers_.push_back({client});
  told_at_ = 0;
}

bool PushWatch::on_line(const Client& client, const Json& line, lead::Time now) {
  if (std::none_of(watchers_.begin(), watchers_.end(),
                   [&](const Watcher& watcher) { return watcher.client == client; }))
    return false;
  if (line.contains("stop_for") && lead_.push_running())
    (void)lead_.cancel_transaction(lead_.push_transaction(),
                                   lead::Audience::one(line.at("stop_for").get<uint32_t>()), now);
  return true;
}

// The lead counts since its start, a view since the beginning of the push.
void PushWatch::follow_push() {
  if (!lead_.push_running() || lead_.push_transaction() == transaction_) return;
  transaction_ = lead_.push_transaction();
  before_ = lead_.counters();
}

Json PushWatch::state() const {
  return {{"event", "state"},
          {"names", names()},
          {"transaction", transaction_},
          {"report", encode_report(lead_.push_progress())},
          {"counters", encode_counters(difference(lead_.counters(), before_))},
          {"rate_bits", lead_.rate_bits()}};
}

Json PushWatch::idle() const {
  const lead::Lead::NodeCounts nodes = lead_.node_counts();
  return {{"event", "idle"}, {"names", names()}, {"nodes", nodes.heard - nodes.silent}};
}

Json PushWatch::names() const {
  return queue_ != nullptr ? Json(queue_->names()) : Json::array();
}

void PushWatch::tell_hosts(Watcher& watcher) const {
  for (const auto& [node, host] : programs_.hosts()) {
    std::string& told = watcher.hosts[node];
    if (told == host) continue;
    told = host;
    watcher.client->say({{"event", "host"}, {"node", node}, {"name", host}},
                        cli::Output::Kind::kEvent);
  }
}

bool PushWatch::due(lead::Time now) const {
  if (watchers_.empty()) return false;
  if (lead_.push_running() != ran_ || told_at_ == 0) return true;
  const bool many = lead_.node_counts().heard > kManyToWatch;
  return lead::elapsed(now, told_at_) >= (many ? kManyPeriod : PushQueue::kTellPeriod);
}

void PushWatch::run(lead::Time now) {
  follow_push();
  watchers_.remove_if([](const Watcher& watcher) { return watcher.client->gone(); });
  if (!due(now)) return;
  told_at_ = now;
  // A push that has just ended is told once more.
  const bool runs = lead_.push_running();
  const Json line = std::exchange(ran_, runs) || runs ? state() : idle();
  for (Watcher& watcher : watchers_) {
    tell_hosts(watcher);
    watcher.client->say(line, cli::Output::Kind::kProgress);
  }
}

}  // namespace pkgdist::lead_program
