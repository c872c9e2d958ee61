// A push in a lead of this process.
#include <fmt/core.h>

#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>

#include "after_push.h"
#include "after_report.h"
#include "node_programs.h"
#include "own_lead.h"
#include "pkgdist_lead/patience.h"
#include "push_display.h"
#include "push_run.h"
#include "session.h"

namespace pkgdist::lead_program {

namespace {

// Runs a lead until the function says so; false when a signal came first.
using Run = std::function<bool(const std::function<bool(lead::Time)>&, lead::Time tick)>;

// What comes behind the files. True when everything was done.
bool do_the_rest(const QueuedPush& push, lead::PushReport report, lead::Lead& lead,
                 NodePrograms& programs, Reporter& reporter, const Run& run) {
  AfterReport shown(reporter, push.tree.only_list);
  AfterPush after(lead, programs, push, lead.push_transaction(), std::move(report),
                  [&](const Json& line) { shown.line(line); });
  programs.takes_message = [&](const lead::NodeInfo& node, uint32_t msg_class,
                               std::span<const uint8_t> bytes) {
    return after.on_message(node.address, msg_class, bytes);
  };
  const bool ran = run(
      [&](lead::Time now) {
        after.run(now);
        return after.ended();
      },
      lead::kSecond / 10);
  programs.takes_message = nullptr;
  return shown.finish() && ran;
}

// A push that sends nothing waits for its nodes as others do, as far as the display is concerned.
class Gathering : public PushSource {
 public:
  Gathering(lead::Lead& lead, const lead::PushRequest& request, const lead::Patience& patience)
      : lead_(lead), request_(request), patience_(patience), began_at_(patience.since()) {}
  uint32_t push_transaction() const override { return 0; }
  lead::PushReport push_progress() const override {
    lead::PushReport report = listed_nodes(lead_, request_);
    report.started_at = began_at_;
    report.waits_since = patience_.since();
    return report;
  }
  uint64_t rate_bits() const override { return 0; }
  const lead::Counters& counters() const override { return nothing_; }
  void stop_for(uint32_t, lead::Time) override {}

 private:
  lead::Lead& lead_;
  const lead::PushRequest& request_;
  const lead::Patience& patience_;
  const lead::Time began_at_;
  const lead::Counters nothing_;
};

// Waits for the nodes of a push that sends nothing, as a push waits for them.
bool gather(const lead::PushRequest& request, Session& session, NodePrograms& programs,
            PushDisplay& display) {
  lead::Patience patience(request.node_timeout, lead::monotonic_now());
  Gathering gathering(session.lead(), request, patience);
  return session.run(
      [&](lead::Time now) {
        display.run(gathering, now);
        const lead::PushReport report = gathering.push_progress();
        std::vector<lead::NodeInfo> heard;
        for (const lead::Lead::NodeView& node : session.lead().nodes()) heard.push_back(node.info);
        const size_t wanted =
            request.nodes.empty() ? std::max(1u, request.node_count) : request.nodes.size();
        const auto here = static_cast<size_t>(std::count_if(
            report.nodes.begin(), report.nodes.end(), [](const auto& node) { return node.heard; }));
        patience.note(here, now);
        programs.heard(heard, now);
        return patience.over(now) ||
               (here >= wanted &&
                programs.introduced(heard, now, NodePrograms::kIntroductionPatience));
      },
      lead::kSecond / 10);
}

// True when no signal came.
bool gather_shown(const LeadOptions& options, const lead::PushRequest& request, Session& session,
                  NodePrograms& programs, Reporter& reporter) {
  LeadOptions shown = options;
  shown.top = false;  // there is nothing to see
  PushView view(reporter);
  PushDisplay display(reporter, view, shown, request.node_timeout);
  return gather(request, session, programs, display);
}

}  // namespace

bool list_here(const LeadOptions& options, const QueuedPush& push, Reporter& reporter) {
  const std::unique_ptr<Session> session = open_session(options, reporter, reporter);
  (void)session->hears_leads(reporter);
  NodePrograms programs(session->lead(), reporter);
  programs.push_begins(push.request.location);
  if (!gather_shown(options, push.request, *session, programs, reporter)) return false;
  const lead::PushReport report = listed_nodes(session->lead(), push.request);
  const bool listed =
      do_the_rest(push, report, session->lead(), programs, reporter,
                  [&](const auto& done, lead::Time tick) { return session->run(done, tick); });
  return !tell_absent(reporter, report, options.common) && listed;
}

bool push_here(const LeadOptions& options, const QueuedPush& push, Reporter& reporter) {
  OwnLead own(options, reporter);
  PushView view(reporter);
  const PushEnd end = own.push(options, push.request, view);
  const bool complete = tell_end(options, push.request, reporter, view, end);
  const bool rest =
      !end.interrupted && end.blocked_by == 0 &&
      do_the_rest(push, end.report, own.lead(), own.programs(), reporter,
                  [&](const auto& done, lead::Time tick) { return own.run(done, tick); });
  return complete && rest;
}

}  // namespace pkgdist::lead_program
