// Orders and states go over one connection to the lead that serves here (release_relay.h), each
// push over one of its own.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

#include "control_path.h"
#include "line_connection.h"
#include "pkgdist_lead/patience.h"
#include "pkgdist_lead/udp_transport.h"
#include "release_link.h"
#include "stop_signals.h"

namespace pkgdist::lead_program {

namespace {

constexpr lead::Time kGatherPeriod = lead::kSecond / 5;
constexpr lead::Time kAnswerPatience = 15 * lead::kSecond;  // of the lead, about what it knows

class RemoteReleaseLink : public ReleaseLink {
 public:
  RemoteReleaseLink(const LeadOptions& options, Reporter& reporter)
      : options_(options), reporter_(reporter), connection_(connect_to_lead(options)) {
    connection_.send({{"command", "releases"}});
  }

  PushEnd push(const lead::PushRequest& request) override {
    return push_through(options_,
                        {.name = options_.push_name,
                         .root = options_.common.locations.at(options_.location).path,
                         .own_root = true,
                         .request = request,
                         .durable_seconds = std::nullopt},
                        reporter_);
  }

  void order(const cli::ReleaseQuestion& question, const std::vector<uint32_t>& nodes) override {
    connection_.send({{"order", cli::release_order_text(question)}, {"nodes", nodes}});
  }

  bool wait(const std::function<bool()>& done, lead::Time until) override {
    while (!done()) {
      const lead::Time now = lead::monotonic_now();
      if (now >= until) return true;
      const auto line =
          connection_.next(static_cast<double>(until - now) / static_cast<double>(lead::kSecond));
      if (line) take(*line);
      if (cli::stop_signal() != 0) return false;
    }
    return true;
  }

  HeardNodes gather(const std::vector<uint32_t>& wanted, size_t count,
                    lead::Time silence) override {
    lead::Patience patience(silence, lead::monotonic_now());
    for (;;) {
      heard_.reset();
      connection_.send({{"heard", options_.location}});
      const bool went_on =
          wait([&] { return heard_.has_value(); }, lead::monotonic_now() + kAnswerPatience);
      HeardNodes nodes = heard_.value_or(HeardNodes());
      const lead::Time now = lead::monotonic_now();
      patience.note(nodes.count(), now);
      if (!went_on || patience.over(now) || nodes.has(wanted, count)) return nodes;
      const lead::Time next = std::min(patience.deadline(), now + kGatherPeriod);
      if (!wait([] { return false; }, next)) return nodes;
    }
  }

 private:
  void take(const Json& line) {
    const std::string event = line.value("event", "");
    if (event == "error") throw std::runtime_error(line.value("text", "refused"));
    if (event == "heard")
      heard_ = HeardNodes{line.at("takers").get<std::vector<uint32_t>>(),
                          line.at("others").get<std::vector<uint32_t>>(),
                          line.at("names").get<std::map<uint32_t, std::string>>()};
    if (event != "release-told") return;
    const std::string text = line.at("state").get<std::string>();
    const auto state =
        cli::parse_release_state({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
    if (state && on_state) on_state(line.at("node").get<uint32_t>(), *state);
  }

  const LeadOptions& options_;
  Reporter& reporter_;
  cli::LineConnection connection_;
  std::optional<HeardNodes> heard_;
};

}  // namespace

std::unique_ptr<ReleaseLink> open_remote_link(const LeadOptions& options, Reporter& reporter) {
  return std::make_unique<RemoteReleaseLink>(options, reporter);
}

}  // namespace pkgdist::lead_program
