#include "node.h"

#include <fmt/core.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <utility>

#include "control_socket.h"
#include "last_error.h"
#include "link_directories.h"
#include "platform/inst_common.h"
#include "status_text.h"
#include "stop_signals.h"

namespace pkgdist::node_program {

namespace {

using Clock = std::chrono::steady_clock;

// The library says no more than that an address is in use.
void require_free_ports(const cli::CommonOptions& common) {
  if (const auto owner = cli::port_owner(common.interface, common.node_port))
    throw std::runtime_error(fmt::format(
        "a node runs with this address and port already: {} has {}", cli::process_text(*owner),
        cli::format_endpoint({common.interface, common.node_port})));
}

void start_control(const NodeOptions& options) {
  const cli::CommonOptions& common = options.common;
  require(instcomm_pkgdist_ctrl_recv_init(common.ctrl_group.address, common.ctrl_group.port,
                                          common.lead_port, common.node_port, options.card_class,
                                          common.interface, 0),
          "starting the control side (is the address this host's, is another node running?)");
}

void start_data(const NodeOptions& options) {
  const cli::CommonOptions& common = options.common;
  require(instcomm_pkgdist_data_recv_init(common.data_group.address, common.data_group.port,
                                          common.req_port),
          "starting the data side");
}

nodeid_handle_t make_identity(const NodeOptions& options) {
  const std::array<uint32_t, 3> id = node_id_of(options);
  nodeid_handle_t nodeid = nullptr;
  if (nodeid_create(id[0], id[1], id[2], &nodeid) != 0)
    throw std::runtime_error("out of memory for the node's identity");
  return nodeid;
}

}  // namespace

void require(PkgdistStatus status, const char* what) {
  if (status == 0) return;
  // The status of failed system calls does not say which; the library's trace does.
  const bool unnamed = status == PKGDIST_ERR_SYSTEM || status == PKGDIST_ERR_SEND;
  const std::string reason = unnamed ? last_error(ErrorOf::kThisThread) : "";
  throw std::runtime_error(
      fmt::format("{}: {}", what, reason.empty() ? cli::status_text(status) : reason));
}

void set_time_outs(uint32_t repair_interval_ms) {
  constexpr uint64_t kMillisecond = 1'000'000;
  G_data_rto.timer_period = 20 * kMillisecond;
  G_data_rto.segment_timeout = repair_interval_ms * kMillisecond;
  G_data_rto.max_retries = 24;            // time-outs grow: 17 s pass with the usual interval
  G_ctrl_rto.rx_select_timeout = 50'000;  // microseconds
  G_ctrl_rto.scan_interval = 50 * kMillisecond;
  G_ctrl_rto.lead_ack_timeout = 100 * kMillisecond;
  G_ctrl_rto.segment_timeout = 100 * kMillisecond;
  G_ctrl_rto.max_retries = 13;  // 10 s pass until a message is given up
}

Node::Node(const NodeOptions& options)
    : loop_(levm_create()),
      nodeid_(make_identity(options)),
      interface_(options.common.interface),
      membership_({options.common.ctrl_group.address, options.common.data_group.address}),
      keeps_partial_files_(!options.releases.name.empty()) {
  if (loop_ == nullptr) throw std::runtime_error("no event loop could be created");
  if (options.common.verbosity > 1)
    g_inst_common_debug_verbosity_level = options.common.verbosity - 1;
  (void)umask(options.umask);
  constexpr uint32_t kPermissions = 0777;
  if (!options.allow_setuid) G_data_recv_mode_mask = kPermissions;
  require_free_ports(options.common);
  start_control(options);
  joined_ = cli::find_interface(options.common.interface).value_or(cli::NetworkInterface{}).index;
  require(instcomm_pkgdist_ctrl_recv_set_nodeid(nodeid_.get()), "setting the node's identity");
  start_data(options);
  for (const auto& [number, location] : options.common.locations) set_location(location);
}

Node::~Node() {
  if (!keeps_partial_files_) partial_files_.remove_open();
}

// A directory is made if it is missing, and ends with a slash; a memory prefix is taken as it is.
void Node::set_location(const cli::Location& location) {
  std::string path = location.path;
  if (!location.memory) {
    std::filesystem::create_directories(path);
    if (path.back() != '/') path += '/';
    make_directories_of_links_below(path);
    flush_service_.add_location(location.number, path);
    partial_files_.add_location(location.number, path);
  }
  storage_trouble_.add_location(location.number, path, location.memory);
  require(instcomm_pkgdist_set_recv_repository(path.c_str(), location.number, location.memory),
          fmt::format("setting location {} to '{}'", location.number, path).c_str());
}

bool Node::run_until(const std::function<bool()>& done, double silence_seconds,
                     const std::function<uint64_t()>& heard) {
  constexpr double kLookSeconds = 0.25;  // at what was heard
  const auto silence =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(silence_seconds));
  auto end = Clock::now() + silence;
  for (uint64_t count = heard ? heard() : 0; !done() && !interrupted();) {
    const double left = std::chrono::duration<double>(end - Clock::now()).count();
    if (left <= 0) return false;
    run_once(heard ? std::min(left, kLookSeconds) : left);
    const uint64_t now = heard ? heard() : count;
    if (std::exchange(count, now) != now) end = Clock::now() + silence;
  }
  return done();
}

void Node::run_once(double seconds) {
  constexpr double kLongestSeconds = 3600;
  constexpr double kBesideSeconds = 1;
  if (run_beside_) seconds = seconds < 0 ? kBesideSeconds : std::min(seconds, kBesideSeconds);
  const int timeout_ms =
      seconds < 0 ? -1 : static_cast<int>(std::ceil(std::min(seconds, kLongestSeconds) * 1000));
  pollfd ready[] = {{levm_fd(loop_.get()), POLLIN, 0},
                    {interface_.fd(), POLLIN, 0},
                    {cli::stop_fd(), POLLIN, 0},
                    {beside_ != nullptr ? beside_->fd() : -1, POLLIN, 0}};
  (void)::poll(ready, std::size(ready), timeout_ms);
  if (ready[1].revents != 0) follow_interface();
  (void)levm_run_once(loop_.get(), 0);
  if (beside_ != nullptr) beside_->dispatch();
  if (run_beside_) run_beside_();
}

std::string Node::file_ended(uint32_t location, const std::string& name, uint64_t status) {
  std::string text = storage_trouble_.text(location, name, status);
  partial_files_.on_ended(location, name, status);
  return text;
}

// What came back with the number that it had is still joined.
void Node::follow_interface() {
  const std::optional<cli::InterfaceChange> change = interface_.take();
  if (!change) return;
  if (on_interface) on_interface(*change);
  if (!change->now.works() || change->now.index == joined_) return;
  joined_ = change->now.index;
  if (!membership_.join(joined_) && on_trouble)
    on_trouble(fmt::format("the groups cannot be joined: {}", std::strerror(errno)));
}

// Reports of small files come by the thousand. Waking up for each of them would take as much of the
// processor as it takes to receive a segment or two, so those of a moment are handled together.
void Node::run() {
  constexpr auto kMoment = std::chrono::milliseconds(2);
  while (!interrupted()) {
    run_once(-1);
    std::this_thread::sleep_for(kMoment);
  }
}

bool Node::interrupted() {
  return cli::stop_signal() != 0;
}

}  // namespace pkgdist::node_program
