#include "own_lead.h"

#include <CLI/Error.hpp>
#include <nlohmann/json.hpp>

#include "push_description.h"
#include "push_display.h"
#include "push_source.h"

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

// The push that this lead runs, as the views see it.
class OwnPush : public PushSource {
 public:
  explicit OwnPush(lead::Lead& lead) : lead_(lead), before_(lead.counters()) {}
  uint32_t push_transaction() const override { return lead_.push_transaction(); }
  lead::PushReport push_progress() const override { return lead_.push_progress(); }
  uint64_t rate_bits() const override { return lead_.rate_bits(); }
  const lead::Counters& counters() const override {
    return counted_ = difference(lead_.counters(), before_);
  }
  void stop_for(uint32_t node, lead::Time now) override {
    (void)lead_.cancel_transaction(push_transaction(), lead::Audience::one(node), now);
  }

 private:
  lead::Lead& lead_;
  const lead::Counters before_;
  mutable lead::Counters counted_;
};

}  // namespace

OwnLead::OwnLead(const LeadOptions& options, Reporter& reporter)
    : options_(options),
      reporter_(reporter),
      session_(open_session(options, reporter, reporter)),
      programs_(session_->lead(), reporter) {}

// When something is under way: what is refused at once opens nothing.
void OwnLead::open_doors() {
  if (std::exchange(open_, true)) return;
  (void)session_->hears_leads(reporter_);
  control_ = open_control(options_, *session_, programs_, reporter_);
  metrics_ = open_metrics(options_.metrics, reporter_);
}

bool OwnLead::run(const std::function<bool(lead::Time now)>& done, lead::Time tick) {
  return session_->run(
      [&](lead::Time now) {
        programs_.run(now);
        if (control_) control_->run(now);
        if (metrics_) metrics_->run(lead(), programs_, session_->transport().send_errors(), now);
        return done(now);
      },
      tick);
}

PushEnd OwnLead::push(const LeadOptions& options, const lead::PushRequest& request,
                      PushView& view) {
  OwnPush push(lead());
  const uint64_t send_errors = session_->transport().send_errors();
  if (const char* problem = lead().start_push(request, lead::monotonic_now()))
    throw CLI::ValidationError(problem);
  reporter_.json().print("push-requested", push_description(options, request),
                         cli::Output::Kind::kResult);
  programs_.push_begins(request.location);
  open_doors();
  const Course course(lead(), request.node_timeout);
  bool ran = false;
  {
    PushDisplay display(reporter_, view, options, request.node_timeout);
    ran = run(
        [&](lead::Time now) {
          display.run(push, now);
          return course.blocked(now) || (!lead().push_running() && !programs_.busy(now) &&
                                         (!control_ || !control_->busy()));
        },
        display.period());
  }
  const uint32_t in_the_way = course.in_the_way();
  if (lead().push_running()) lead().stop_push(lead::monotonic_now());
  return {.report = lead().push_report(),
          .counters = push.counters(),
          .send_errors = session_->transport().send_errors() - send_errors,
          .interrupted = !ran,
          .blocked_by = in_the_way,
          .nodes_heard = lead().node_counts().heard};
}

}  // namespace pkgdist::lead_program
