#include "session.h"

#include <fmt/core.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "control_socket.h"
#include "stop_signals.h"

namespace pkgdist::lead_program {

namespace {

lead::UdpSettings udp_settings(const LeadOptions& options) {
  const cli::CommonOptions& common = options.common;
  return {.address = common.interface,
          .ctrl_group = common.ctrl_group.address,
          .ctrl_port = common.ctrl_group.port,
          .data_group = common.data_group.address,
          .data_port = common.data_group.port,
          .lead_port = common.lead_port,
          .node_port = common.node_port,
          .req_port = common.req_port,
          .ttl = static_cast<uint8_t>(options.ttl)};
}

lead::Settings lead_settings(const LeadOptions& options) {
  lead::Settings settings;
  settings.address = options.common.interface;
  settings.pid = static_cast<uint32_t>(::getpid());
  settings.rate_bits = options.rate_bits;
  settings.max_rate_bits = options.max_rate_bits;
  settings.listen = lead::kDefaultListen;
  settings.multi_homed = options.multi_homed;
  settings.standby = options.standby;
  settings.takeover = static_cast<lead::Time>(options.takeover_seconds * 1e9);
  settings.wall_seconds =
      static_cast<uint64_t>(std::time(nullptr)) - lead::monotonic_now() / lead::kSecond;
  settings.node_timeout = static_cast<lead::Time>(options.timeout_seconds * 1e9);
  if (::getrandom(&settings.seed, sizeof settings.seed, 0) != sizeof settings.seed)
    settings.seed = lead::monotonic_now();
  return settings;
}

}  // namespace

Session::Session(const LeadOptions& options, Reporter& reporter, lead::Events& events)
    : reporter_(reporter),
      interface_(options.common.interface),
      transport_(udp_settings(options)),
      lead_(std::make_unique<lead::Lead>(lead_settings(options), transport_, store_, events)) {
  for (const auto& [number, location] : options.common.locations)
    store_.set_root(number, location.path);
  poller_.add(cli::stop_fd(), EPOLLIN, [this] { stopped_ = true; });
  if (interface_.fd() >= 0)
    poller_.add(interface_.fd(), EPOLLIN, [this, &reporter] { follow_interface(reporter); });
}

std::unique_ptr<Session> open_session(const LeadOptions& options, Reporter& reporter,
                                      lead::Events& events) {
  try {
    return std::make_unique<Session>(options, reporter, events);
  } catch (const std::system_error& error) {
    if (error.code().value() != EADDRINUSE) throw;
    const cli::CommonOptions& common = options.common;
    for (const uint16_t port : {common.lead_port, common.req_port})
      if (const auto owner = cli::port_owner(common.interface, port))
        throw std::runtime_error(
            fmt::format("a lead runs with this address and port already: {} has {}",
                        cli::process_text(*owner), cli::format_endpoint({common.interface, port})));
    throw;
  }
}

void Session::follow_interface(Reporter& reporter) {
  const std::optional<cli::InterfaceChange> change = interface_.take();
  if (!change) return;
  reporter.interface_changed(*change);
  if (change->now.works() && !transport_.renew())
    reporter.error(fmt::format("the interface cannot be used: {}", std::strerror(errno)));
}

// Each reason once. Those of an interface that is down or gone are told with it.
void Session::tell_send_error() {
  const int error = transport_.last_send_error();
  if (error == 0 || error == ENETDOWN || error == ENETUNREACH || error == ENODEV ||
      error == EADDRNOTAVAIL || !told_errors_.insert(error).second)
    return;
  reporter_.error(fmt::format("sendmmsg: {}: datagrams are not sent{}", std::strerror(error),
                              error == EPERM ? "; a packet filter of this host drops them" : ""));
}

bool Session::hears_leads(Reporter& reporter) const {
  if (transport_.hears_group()) return true;
  reporter.error("warning: other leads cannot be heard: another user has the control group");
  return false;
}

bool Session::run(const std::function<bool(lead::Time now)>& done, lead::Time tick) {
  for (;;) {
    const lead::Time now = lead::monotonic_now();
    transport_.receive(*lead_, now);
    lead_->run(now);
    transport_.flush();
    if (done(now)) return true;
    transport_.flush();
    tell_send_error();
    if (transport_.wait(std::min(lead_->next_deadline(now), now + tick), poller_.fd()))
      poller_.dispatch();
    if (stopped_) return false;
  }
}

}  // namespace pkgdist::lead_program
