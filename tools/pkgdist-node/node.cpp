#include "node.h"

#include <fmt/core.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "link_directories.h"
#include "platform/inst_common.h"
#include "status_text.h"

namespace pkgdist::node_program {

namespace {

using Clock = std::chrono::steady_clock;

volatile std::sig_atomic_t stop_requested = 0;
levm_handle_t loop_to_stop = nullptr;

// levm_stop() may be called from a signal handler.
extern "C" void request_stop(int) {
  stop_requested = 1;
  levm_stop(loop_to_stop);
}

void install_signal_handlers(levm_handle_t loop) {
  loop_to_stop = loop;
  struct sigaction action {};
  action.sa_handler = request_stop;
  (void)sigaction(SIGINT, &action, nullptr);
  (void)sigaction(SIGTERM, &action, nullptr);
  (void)std::signal(SIGPIPE, SIG_IGN);
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
  const uint32_t address = options.common.interface;
  const uint32_t derived[3] = {address >> 16 & 255, address >> 8 & 255, address & 255};
  const uint32_t* id = options.node_id_given ? options.node_id : derived;
  nodeid_handle_t nodeid = nullptr;
  if (nodeid_create(id[0], id[1], id[2], &nodeid) != 0)
    throw std::runtime_error("out of memory for the node's identity");
  return nodeid;
}

}  // namespace

void require(PkgdistStatus status, const char* what) {
  if (status != 0) throw std::runtime_error(fmt::format("{}: {}", what, cli::status_text(status)));
}

void set_repair_interval(uint32_t milliseconds) {
  constexpr uint64_t kNanosecondsPerMillisecond = 1'000'000;
  constexpr uint64_t kTimerPeriodMs = 20;
  constexpr uint32_t kRetries = 24;  // time-outs grow: 17 s pass with the usual interval
  G_data_rto.timer_period = kTimerPeriodMs * kNanosecondsPerMillisecond;
  G_data_rto.segment_timeout = milliseconds * kNanosecondsPerMillisecond;
  G_data_rto.max_retries = kRetries;
}

Node::Node(const NodeOptions& options) : loop_(levm_create()), nodeid_(make_identity(options)) {
  if (loop_ == nullptr) throw std::runtime_error("no event loop could be created");
  if (options.common.verbosity > 1)
    g_inst_common_debug_verbosity_level = options.common.verbosity - 1;
  (void)umask(options.umask);
  constexpr uint32_t kPermissions = 0777;
  if (!options.allow_setuid) G_data_recv_mode_mask = kPermissions;
  install_signal_handlers(loop_.get());
  start_control(options);
  require(instcomm_pkgdist_ctrl_recv_set_nodeid(nodeid_.get()), "setting the node's identity");
  start_data(options);
  for (const auto& [number, location] : options.common.locations) set_location(location);
}

Node::~Node() {
  partial_files_.remove_open();
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
  require(instcomm_pkgdist_set_recv_repository(path.c_str(), location.number, location.memory),
          fmt::format("setting location {} to '{}'", location.number, path).c_str());
}

bool Node::run_until(const std::function<bool()>& done, double seconds) {
  const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(seconds));
  while (!done() && !interrupted()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return false;
    constexpr int64_t kLongestWaitMs = 3'600'000;
    (void)levm_run_once(loop_.get(),
                        static_cast<int>(std::min<int64_t>(left.count(), kLongestWaitMs)));
  }
  return done();
}

// Reports of small files come by the thousand. Waking up for each of them would take as much of the
// processor as it takes to receive a segment or two, so those of a moment are handled together.
void Node::run() {
  constexpr auto kMoment = std::chrono::milliseconds(2);
  while (!interrupted()) {
    (void)levm_run_once(loop_.get(), -1);
    std::this_thread::sleep_for(kMoment);
  }
}

bool Node::interrupted() {
  return stop_requested != 0;
}

}  // namespace pkgdist::node_program
