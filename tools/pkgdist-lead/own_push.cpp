// A push in a lead of this process.
#include <fmt/core.h>

#include <CLI/Error.hpp>
#include <algorithm>

#include "after_push.h"
#include "after_report.h"
#include "control_server.h"
#include "metrics.h"
#include "node_programs.h"
#include "push_description.h"
#include "push_display.h"
#include "push_run.h"
#include "session.h"

namespace pkgdist::lead_program {

namespace {

// Whether another lead is in the way. A push waits for it to fall silent, as long as it waits for
// nodes, and is given up when a lead that began earlier turns up.
class Course {
 public:
  Course(const lead::Lead& lead, lead::Time patience)
      : lead_(lead), until_(lead::monotonic_now() + patience) {}

  bool blocked(lead::Time now) const { return stands_by() && now >= until_; }
  // The other lead; 0: none.
  uint32_t in_the_way() const { return stands_by() ? lead_.other_lead() : 0; }

 private:
  bool stands_by() const { return lead_.role() == lead::Role::kStandingBy; }

  const lead::Lead& lead_;
  lead::Time until_;
};

// What comes behind the files. True when everything was done.
bool do_the_rest(
    const QueuedPush& push, lead::PushReport report, Session& session, NodePrograms& programs,
    Reporter& reporter, const std::function<void(lead::Time)>& beside = [](lead::Time) {}) {
  lead::Lead& lead = session.lead();
  AfterReport shown(reporter, push.tree.only_list);
  AfterPush after(lead, programs, push, lead.push_transaction(), std::move(report),
                  [&](const Json& line) { shown.line(line); });
  programs.takes_message = [&](const lead::NodeInfo& node, uint32_t msg_class,
                               std::span<const uint8_t> bytes) {
    return after.on_message(node.address, msg_class, bytes);
  };
  const bool ran = session.run(
      [&](lead::Time now) {
        after.run(now);
        beside(now);
        return after.ended();
      },
      lead::kSecond / 10);
  programs.takes_message = nullptr;
  return shown.finish() && ran;
}

// Waits for the nodes of a push that sends nothing, as long as a push waits for them.
bool gather(const lead::PushRequest& request, Session& session, NodePrograms& programs) {
  const lead::Time until = lead::monotonic_now() + request.node_timeout;
  return session.run(
      [&](lead::Time now) {
        const lead::PushReport report = listed_nodes(session.lead(), request);
        std::vector<lead::NodeInfo> heard;
        for (const lead::Lead::NodeView& node : session.lead().nodes()) heard.push_back(node.info);
        const size_t wanted =
            request.nodes.empty() ? std::max(1u, request.node_count) : request.nodes.size();
        const auto here = std::count_if(report.nodes.begin(), report.nodes.end(),
                                        [](const auto& node) { return node.heard; });
        return now >= until ||
               (static_cast<size_t>(here) >= wanted && programs.introduced(heard, now));
      },
      lead::kSecond / 10);
}

}  // namespace

bool list_here(const LeadOptions& options, const QueuedPush& push, Reporter& reporter) {
  const std::unique_ptr<Session> session = open_session(options, reporter, reporter);
  (void)session->hears_leads(reporter);
  NodePrograms programs(session->lead(), reporter);
  programs.push_begins(push.request.location);
  if (!gather(push.request, *session, programs)) return false;
  const lead::PushReport report = listed_nodes(session->lead(), push.request);
  const bool listed = do_the_rest(push, report, *session, programs, reporter);
  if (report.nodes.size() >= report.expected_nodes) return listed;
  reporter.say(fmt::format("{} of {} nodes never appeared",
                           report.expected_nodes - report.nodes.size(), report.expected_nodes),
               cli::Output::Kind::kResult);
  return false;
}

bool push_here(const LeadOptions& options, const QueuedPush& push, Reporter& reporter) {
  const lead::PushRequest& request = push.request;
  const std::unique_ptr<Session> opened = open_session(options, reporter, reporter);
  Session& session = *opened;
  lead::Lead& lead = session.lead();
  if (const char* problem = lead.start_push(request, lead::monotonic_now()))
    throw CLI::ValidationError(problem);
  reporter.json().print("push-requested", push_description(options, request),
                        cli::Output::Kind::kResult);
  (void)session.hears_leads(reporter);
  NodePrograms programs(lead, reporter);
  programs.push_begins(request.location);
  const std::unique_ptr<ControlServer> control = open_control(options, session, programs, reporter);
  const std::unique_ptr<Metrics> metrics = open_metrics(options.metrics, reporter);
  const Course course(lead, request.node_timeout);
  OwnPush own(lead);
  PushView view(reporter);
  const auto beside = [&](lead::Time now) {
    programs.run(now);
    if (control) control->run(now);
    if (metrics) metrics->run(lead, session.transport().send_errors(), now);
  };
  bool ran = false;
  {
    PushDisplay display(reporter, view, options, request.node_timeout);
    ran = session.run(
        [&](lead::Time now) {
          display.run(own, now);
          beside(now);
          return course.blocked(now) ||
                 (!lead.push_running() && !programs.busy(now) && (!control || !control->busy()));
        },
        display.period());
  }
  const uint32_t in_the_way = course.in_the_way();
  if (lead.push_running()) lead.stop_push(lead::monotonic_now());
  const bool complete = tell_end(options, request, reporter, view,
                                 {.report = lead.push_report(),
                                  .counters = lead.counters(),
                                  .send_errors = session.transport().send_errors(),
                                  .interrupted = !ran,
                                  .blocked_by = in_the_way,
                                  .nodes_heard = lead.node_counts().heard});
  const bool rest = ran && in_the_way == 0 &&
                    do_the_rest(push, lead.push_report(), session, programs, reporter, beside);
  return complete && rest;
}

}  // namespace pkgdist::lead_program
