// A push that runs in the lead that serves on this host, seen from `pkgdist-lead push`.
#include <fmt/core.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "after_report.h"
#include "cli_common.h"
#include "control_path.h"
#include "counted.h"
#include "lead_events.h"
#include "line_connection.h"
#include "pkgdist_lead/udp_transport.h"
#include "push_description.h"
#include "push_display.h"
#include "push_run.h"
#include "stop_signals.h"

namespace pkgdist::lead_program {

namespace {

// After SIGINT: the lead says how the push stands, or the program ends without.
constexpr double kStopPatienceSeconds = 1.2;

class RemotePush : public PushSource {
 public:
  // `description` is told when the lead has taken the push.
  RemotePush(cli::LineConnection connection, QueuedPush push, Json description, Reporter& reporter)
      : connection_(std::move(connection)),
        push_(std::move(push)),
        description_(std::move(description)),
        reporter_(reporter) {}

  // Shows the push until it has ended in the lead.
  PushEnd run(PushDisplay& display);
  // What comes behind the files.
  void show_rest(AfterReport& report);
  // Of a push that only lists: nothing comes before that.
  void send_only() {
    for (const Json& line : encode_push(push_)) connection_.send(line);
  }

  uint32_t push_transaction() const override { return transaction_; }
  lead::PushReport push_progress() const override { return report_; }
  uint64_t rate_bits() const override { return rate_bits_; }
  const lead::Counters& counters() const override { return counters_; }
  void stop_for(uint32_t node, lead::Time) override { connection_.send({{"stop_for", node}}); }

 private:
  std::optional<Json> wait(double seconds);
  bool take(const Json& line);
  void note_end(const Json& line);

  cli::LineConnection connection_;
  const QueuedPush push_;
  const Json description_;
  Reporter& reporter_;
  uint32_t transaction_ = 0;
  lead::PushReport report_;
  lead::Counters counters_;
  uint64_t rate_bits_ = 0;
  PushEnd end_;
  bool taken_ = false;  // by the lead
  bool asked_to_stop_ = false;
};

// The next line. A stop signal is handed on once; then the lead has a moment to answer.
std::optional<Json> RemotePush::wait(double seconds) {
  if (cli::stop_signal() != 0 && !std::exchange(asked_to_stop_, true)) {
    connection_.outlast_stop();
    connection_.send({{"stop", true}});
  }
  if (asked_to_stop_ && cli::seconds_since_stop() > kStopPatienceSeconds)
    throw cli::NotDone(cli::stop_text() + ": the lead has not told the state of the push");
  try {
    return connection_.next(seconds);
  } catch (const std::runtime_error& error) {
    if (taken_) throw cli::NotDone(error.what());
    throw;
  }
}

void RemotePush::note_end(const Json& line) {
  end_.report = decode_report(line.at("report"));
  end_.counters = decode_counters(line.at("counters"));
  end_.send_errors = line.at("send_errors").get<uint64_t>();
  end_.blocked_by = line.at("blocked_by").get<uint32_t>();
  end_.nodes_heard = line.at("nodes_heard").get<size_t>();
  end_.interrupted = asked_to_stop_;
  end_.began = line.at("began").get<bool>();
  if (!end_.began) reporter_.say("the push had not begun");
  if (line.at("cancelled").get<bool>() && !asked_to_stop_)
    reporter_.error("the push was cancelled");
}

// True with the last line of the stream.
bool RemotePush::take(const Json& line) {
  const std::string event = line.value("event", "");
  if (event == "error") throw std::runtime_error(line.value("text", "refused"));
  if (event == "ended") {
    note_end(line);
    return true;
  }
  if (event == "state") {
    report_ = decode_report(line.at("report"));
    counters_ = decode_counters(line.at("counters"));
    rate_bits_ = line.at("rate_bits").get<uint64_t>();
  } else if (event == "queued") {
    taken_ = true;
    reporter_.json().print("push-requested", description_, cli::Output::Kind::kResult);
    reporter_.push_queued(line.at("number"), line.at("before"));
  } else if (event == "begins") {
    transaction_ = line.at("transaction").get<uint32_t>();
  } else if (event == "host") {
    reporter_.set_host(line.at("node"), line.at("name"));
  } else if (event == "location-missing") {
    reporter_.location_missing(line.at("node"), line.at("location"));
  } else {
    (void)replay_event(line, reporter_);
  }
  return false;
}

PushEnd RemotePush::run(PushDisplay& display) {
  for (const Json& line : encode_push(push_)) connection_.send(line);
  for (;;) {
    const double period =
        static_cast<double>(display.period()) / static_cast<double>(lead::kSecond);
    if (const auto line = wait(period); line && take(*line)) return end_;
    display.run(*this, lead::monotonic_now());
  }
}

void RemotePush::show_rest(AfterReport& report) {
  for (bool done = false; !done;) {
    const auto line = wait(1.0);
    if (!line) continue;
    const std::string event = line->value("event", "");
    done = event == "done";
    if (event == "host") reporter_.set_host(line->at("node"), line->at("name"));
    if (event == "listed") report_ = decode_report(line->at("report"));
    if (event == "error") throw std::runtime_error(line->value("text", "refused"));
    if (event == "left-out") {
      cli::print_left_out(line->at("progress"), line->at("events"));
      reporter_.error(fmt::format("{} of progress and {} of the push were left out",
                                  cli::counted(line->at("progress").get<uint64_t>(), "line"),
                                  cli::counted(line->at("events").get<uint64_t>(), "event")));
    }
    report.line(*line);
  }
}

cli::LineConnection connect(const LeadOptions& options) {
  auto socket = cli::connect_to(control_path(options), !options.control_path.empty());
  if (!socket) throw std::runtime_error("the lead that served here has ended");
  return {std::move(*socket), "lead"};
}

}  // namespace

std::string ServingLead::root(uint32_t location) const {
  for (const Json& entry : status.at("locations"))
    if (entry.at("location") == location) return entry.at("path").get<std::string>();
  return {};
}

uint32_t ServingLead::address() const {
  return cli::parse_address(status.at("address").get<std::string>());
}

cli::Endpoint ServingLead::group(const char* which) const {
  return cli::parse_group(status.at(which).get<std::string>());
}

std::optional<ServingLead> find_serving_lead(const LeadOptions& options) {
  auto socket = cli::connect_to(control_path(options), !options.control_path.empty());
  if (!socket) return std::nullopt;
  const std::string process = cli::process_text(cli::peer_process(*socket));
  cli::LineConnection connection(std::move(*socket), "lead");
  connection.send({{"command", "status"}});
  ServingLead lead{connection.answer(kAnswerSeconds)};
  if (!lead.status.value("takes_pushes", false))
    throw std::runtime_error(
        fmt::format("another push runs with this address and port: {}", process));
  if (lead.status.value("version", "") != cli::version())
    throw std::runtime_error(fmt::format("the lead that serves here has version {}, this is {}: {}",
                                         lead.status.value("version", ""), cli::version(),
                                         process));
  return lead;
}

const char* setting_of_the_lead(const LeadOptions& options) {
  const LeadOptions usual;
  return options.rate_bits != 0       ? "--rate"
         : options.max_rate_bits != 0 ? "--max-rate"
         : options.metrics            ? "--metrics"
         : options.ttl != usual.ttl   ? "--ttl"
         : options.multi_homed        ? "--multi-homed"
                                      : nullptr;
}

LeadOptions with_settings_of(const ServingLead& lead, LeadOptions options) {
  cli::CommonOptions& common = options.common;
  common.interface = lead.address();
  common.ctrl_group = lead.group("ctrl_group");
  common.data_group = lead.group("data_group");
  if (const std::string root = lead.root(options.location);
      common.locations.count(options.location) == 0 && !root.empty())
    common.locations[options.location] = {.number = options.location, .path = root};
  return options;
}

bool list_through(const LeadOptions& options, QueuedPush push, Reporter& reporter) {
  Json description = push_description(options, push.request);
  RemotePush remote(connect(options), std::move(push), std::move(description), reporter);
  AfterReport after(reporter, true);
  remote.send_only();
  remote.show_rest(after);
  const bool listed = after.finish();
  return !tell_absent(reporter, remote.push_progress(), options.common) && listed;
}

PushEnd push_through(const LeadOptions& options, QueuedPush push, Reporter& reporter) {
  const lead::PushRequest request = push.request;
  RemotePush remote(connect(options), std::move(push), push_description(options, request),
                    reporter);
  PushView view(reporter);
  PushEnd end;
  {
    PushDisplay display(reporter, view, options, request.node_timeout);
    end = remote.run(display);
  }
  (void)tell_end(options, request, reporter, view, end);
  AfterReport after(reporter, false);
  remote.show_rest(after);
  end.rest = after.finish() && !end.interrupted;
  return end;
}

}  // namespace pkgdist::lead_program
