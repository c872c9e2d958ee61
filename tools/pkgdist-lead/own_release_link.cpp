#include "own_lead.h"
#include "pkgdist_lead/patience.h"
#include "release_link.h"

namespace pkgdist::lead_program {

namespace {

constexpr lead::Time kTick = 100 * lead::kMillisecond;

class OwnReleaseLink : public ReleaseLink {
 public:
  OwnReleaseLink(const LeadOptions& options, Reporter& reporter)
      : options_(options), reporter_(reporter), own_(options, reporter), view_(reporter) {
    own_.programs().on_release_state = [this](uint32_t node, const cli::ReleaseState& state) {
      changed_ = true;
      if (on_state) on_state(node, state);
    };
  }

  PushEnd push(const lead::PushRequest& request) override {
    PushEnd end = own_.push(options_, request, view_);
    (void)tell_end(options_, request, reporter_, view_, end);
    return end;
  }

  void order(const cli::ReleaseQuestion& question, const std::vector<uint32_t>& nodes) override {
    (void)own_.programs().order(cli::release_order_text(question), nodes, lead::monotonic_now());
  }

  bool wait(const std::function<bool()>& done, lead::Time until) override {
    changed_ = true;
    return own_.run(
        [&](lead::Time now) { return now >= until || (std::exchange(changed_, false) && done()); },
        kTick);
  }

  HeardNodes gather(const std::vector<uint32_t>& wanted, size_t count,
                    lead::Time silence) override {
    lead::Patience patience(silence, lead::monotonic_now());
    HeardNodes nodes;
    own_.run(
        [&](lead::Time now) {
          nodes = heard_nodes(own_.lead(), own_.programs(), options_.location);
          patience.note(nodes.count(), now);
          return patience.over(now) || nodes.has(wanted, count);
        },
        kTick);
    return nodes;
  }

 private:
  const LeadOptions& options_;
  Reporter& reporter_;
  OwnLead own_;
  PushView view_;
  bool changed_ = false;  // since wait() asked last
};

}  // namespace

std::unique_ptr<ReleaseLink> open_own_link(const LeadOptions& options, Reporter& reporter) {
  return std::make_unique<OwnReleaseLink>(options, reporter);
}

}  // namespace pkgdist::lead_program
