#include "metrics.h"

#include <arpa/inet.h>
#include <fmt/core.h>
#include <prometheus/counter.h>
#include <prometheus/exposer.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <sys/socket.h>

#include <cstring>
#include <ctime>
#include <map>
#include <stdexcept>
#include <unordered_map>

#include "expiry.h"
#include "poller.h"
#include "printable.h"
#include "push_figures.h"
#include "release_counts.h"

namespace pkgdist::lead_program {

namespace {

constexpr lead::Time kPublishPeriod = lead::kSecond;
constexpr double kBitsPerByte = 8;
// Names and versions are what nodes say: a number that no fleet has.
constexpr size_t kMaxReleaseSeries = 1000;

struct CounterText {
  uint64_t lead::Counters::*value;
  const char* name;  // behind "pkgdist_lead_", before "_total"
  const char* help;
};

constexpr CounterText kCounters[] = {
    {&lead::Counters::bad_datagrams, "bad_datagrams", "Datagrams that made no sense."},
    {&lead::Counters::foreign_datagrams, "foreign_datagrams",
     "Datagrams that were not for this lead, or about transfers that are gone."},
    {&lead::Counters::control_sent, "control_datagrams_sent",
     "Datagrams sent on the control channel."},
    {&lead::Counters::control_resent, "control_datagrams_resent",
     "Of these, datagrams sent again."},
    {&lead::Counters::nacks_received, "nacks_received",
     "Negative acknowledgements of control messages."},
    {&lead::Counters::infos_sent, "infos_sent", "Announcements of files."},
    {&lead::Counters::segments_sent, "segments_sent", "Segments, repairs included."},
    {&lead::Counters::repairs_sent, "repairs_sent", "Of these, segments that nodes asked for."},
    {&lead::Counters::miss_done_sent, "miss_dones_sent", "Polls of nodes about a file."},
    {&lead::Counters::polls_sent, "polls_sent", "Polls of nodes about what they have handled."},
    {&lead::Counters::data_bytes_sent, "data_bytes_sent",
     "Bytes sent on the data channel, UDP payload."},
    {&lead::Counters::segments_requested, "segments_requested",
     "Segments that nodes asked for again, all nodes together."},
    {&lead::Counters::files_requested, "files_requested", "Requests of nodes for files."},
    {&lead::Counters::other_lead_heard, "other_lead_datagrams", "Datagrams of other leads."},
    {&lead::Counters::not_leading, "unheeded_datagrams",
     "Datagrams of nodes while this lead was not leading."},
    {&lead::Counters::misaddressed, "misaddressed_datagrams",
     "Datagrams that named another address than they came from, dropped."},
};

using Labels = prometheus::Labels;
using prometheus::Counter;
using prometheus::Gauge;

// A counter of the registry can only be added to.
void raise_to(Counter& counter, uint64_t value) {
  counter.Increment(static_cast<double>(value) - counter.Value());
}

std::string text_of(const cli::Endpoint& endpoint) {
  return fmt::format("{}:{}", cli::format_address(endpoint.address), endpoint.port);
}

// The HTTP server does not say why it cannot have an address.
void require_free(const cli::Endpoint& endpoint) {
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(endpoint.address);
  name.sin_port = htons(endpoint.port);
  const int on = 1;
  const cli::Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd && ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
      ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0 &&
      ::listen(fd.get(), 1) == 0)
    return;
  throw std::runtime_error(
      fmt::format("--metrics {}: {}", text_of(endpoint), std::strerror(errno)));
}

// A scraper that keeps its connection open must not keep the others out for long.
std::vector<std::string> server_options(const cli::Endpoint& endpoint) {
  return {"listening_ports", text_of(endpoint), "num_threads", "2", "request_timeout_ms", "5000"};
}

}  // namespace

class Metrics::Impl {
 public:
  explicit Impl(const cli::Endpoint& endpoint)
      : registry_(std::make_shared<prometheus::Registry>()) {
    for (const CounterText& text : kCounters)
      counters_.push_back(&counter(fmt::format("pkgdist_lead_{}_total", text.name), text.help));
    require_free(endpoint);
    try {
      exposer_ = std::make_unique<prometheus::Exposer>(server_options(endpoint));
    } catch (const std::exception& error) {
      throw std::runtime_error(fmt::format("--metrics {}: {}", text_of(endpoint), error.what()));
    }
    exposer_->RegisterCollectable(registry_);
  }
  // The server is left to the end of the process: its threads look every two seconds whether they
  // are to end, longer than a lead that is stopped may take. They find no numbers from now on.
  ~Impl() { (void)exposer_.release(); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void run(const lead::Lead& lead, const NodePrograms& programs, uint64_t send_errors,
           lead::Time now) {
    if (published_ != 0 && lead::elapsed(now, published_) < kPublishPeriod) return;
    published_ = now;
    for (size_t i = 0; i < counters_.size(); ++i)
      raise_to(*counters_[i], lead.counters().*kCounters[i].value);
    raise_to(send_errors_, send_errors);
    rate_.Set(static_cast<double>(lead.rate_bits()) / kBitsPerByte);
    leading_.Set(lead.role() == lead::Role::kLeading ? 1 : 0);
    const lead::Lead::NodeCounts nodes = lead.node_counts();
    heard_.Set(static_cast<double>(nodes.heard));
    silent_.Set(static_cast<double>(nodes.silent));
    publish_releases(programs);
    const lead::PushReport report = lead.push_progress();
    if (!report.started) return;
    if (!push_) push_.emplace(*this);
    push_->publish(report);
  }

 private:
  // What there is once a push has begun.
  struct Push {
    explicit Push(Impl& metrics)
        : files(metrics.gauge("pkgdist_push_files", "Files of the push.")),
          bytes(metrics.gauge("pkgdist_push_bytes", "Bytes of content of the push.")),
          received(metrics.gauge("pkgdist_push_received_bytes",
                                 "Of these, in files that some node has received, each once.")),
          expected(metrics.gauge("pkgdist_push_nodes_expected", "Nodes that the push is for.")),
          done(metrics.gauge("pkgdist_push_nodes_done", "Nodes on which every file has ended.")),
          complete(metrics.gauge("pkgdist_push_nodes_complete", "Nodes that have every file.")),
          silent(metrics.gauge("pkgdist_push_nodes_silent", "Nodes that have fallen silent.")),
          completion(prometheus::BuildHistogram()
                         .Name("pkgdist_push_completion_seconds")
                         .Help("Seconds from the start of the push until a node had every file.")
                         .Register(*metrics.registry_)
                         .Add({}, prometheus::Histogram::BucketBoundaries{0.1, 0.2, 0.5, 1, 2, 5,
                                                                          10, 20, 50, 100, 200, 500,
                                                                          1000, 2000, 5000})),
          node_files(metrics.gauges("pkgdist_push_node_files_done", "Files that the node has.")),
          node_failed(metrics.gauges("pkgdist_push_node_files_failed",
                                     "Files that ended with an error on the node.")),
          node_bytes(metrics.gauges("pkgdist_push_node_bytes_done",
                                    "Bytes of content in the files that the node has.")),
          node_transfer(
              metrics.gauges("pkgdist_push_node_bytes_in_transfer",
                             "Bytes that were sent of the files that the node is receiving.")),
          node_repairs(prometheus::BuildCounter()
                           .Name("pkgdist_push_node_repairs_total")
                           .Help("Segments that the node asked for again.")
                           .Register(*metrics.registry_)) {}

    void publish(const lead::PushReport& report) {
      files.Set(static_cast<double>(report.files));
      bytes.Set(static_cast<double>(report.bytes));
      received.Set(static_cast<double>(report.bytes_received));
      expected.Set(static_cast<double>(report.expected_nodes));
      size_t ended = 0, whole = 0, gone = 0;
      for (const lead::PushNodeReport& node : report.nodes) {
        ended += node.files_left == 0;
        whole += is_complete(node);
        gone += node.silent;
        publish_node(report, node);
      }
      done.Set(static_cast<double>(ended));
      complete.Set(static_cast<double>(whole));
      silent.Set(static_cast<double>(gone));
    }

   private:
    struct Node {
      Gauge *files, *failed, *bytes, *transfer;
      Counter* repairs;
      bool complete = false;
    };

    Node& node_of(uint32_t address) {
      if (const auto found = nodes.find(address); found != nodes.end()) return found->second;
      const Labels labels{{"node", cli::format_address(address)}};
      return nodes[address] = {&node_files.Add(labels), &node_failed.Add(labels),
                               &node_bytes.Add(labels), &node_transfer.Add(labels),
                               &node_repairs.Add(labels)};
    }

    void publish_node(const lead::PushReport& report, const lead::PushNodeReport& now) {
      Node& node = node_of(now.address);
      node.files->Set(static_cast<double>(now.files_done));
      node.failed->Set(static_cast<double>(now.files_failed));
      node.bytes->Set(static_cast<double>(now.bytes_done));
      node.transfer->Set(static_cast<double>(now.bytes_in_transfer));
      raise_to(*node.repairs, now.repairs);
      if (node.complete || !is_complete(now)) return;
      node.complete = true;
      completion.Observe(seconds_of(report, now));
    }

    Gauge &files, &bytes, &received, &expected, &done, &complete, &silent;
    prometheus::Histogram& completion;
    prometheus::Family<Gauge>&node_files, &node_failed, &node_bytes, &node_transfer;
    prometheus::Family<Counter>& node_repairs;
    std::unordered_map<uint32_t, Node> nodes;  // by address; as many as the lead can know
  };

  // One series for each release and state that any node has told of; 0 when none is left.
  void publish_releases(const NodePrograms& programs) {
    std::map<Labels, double> counts;
    for (const auto& [labels, gauge] : releases_) counts[labels] = 0;
    for (const auto& [place, state] : programs.releases())
      for (const ReleaseCount& one : release_counts(state))
        ++counts[{
            {"name", cli::printable(state.name)}, {"version", one.version}, {"state", one.state}}];
    for (const auto& [labels, count] : counts) {
      if (releases_.size() >= kMaxReleaseSeries && !releases_.contains(labels)) continue;
      if (!release_nodes_)
        release_nodes_ = &gauges("pkgdist_release_nodes",
                                 "Nodes by their current release, and by the state of the one that "
                                 "they prepare, as each told it last.");
      Gauge*& gauge = releases_[labels];
      if (gauge == nullptr) gauge = &release_nodes_->Add(labels);
      gauge->Set(count);
    }
    publish_expiries(programs);
  }

  // A node that is kept from newer releases shows as one whose release expires.
  void publish_expiries(const NodePrograms& programs) {
    for (const auto& [place, state] : programs.releases()) {
      const std::optional<std::time_t> end = cli::expiry_time(state.expires);
      if (!state.current || !end) continue;
      const Labels labels{{"name", cli::printable(state.name)},
                          {"version", std::to_string(state.current->version)}};
      if (expiries_.size() >= kMaxReleaseSeries && !expiries_.contains(labels)) continue;
      if (!release_expiry_)
        release_expiry_ = &gauges("pkgdist_release_expiry_timestamp_seconds",
                                  "When a release that some node runs or ran expires.");
      Gauge*& gauge = expiries_[labels];
      if (gauge == nullptr) gauge = &release_expiry_->Add(labels);
      gauge->Set(static_cast<double>(*end));
    }
  }

  prometheus::Family<Gauge>& gauges(const std::string& name, const std::string& help) {
    return prometheus::BuildGauge().Name(name).Help(help).Register(*registry_);
  }
  Gauge& gauge(const std::string& name, const std::string& help) {
    return gauges(name, help).Add({});
  }
  Counter& counter(const std::string& name, const std::string& help) {
    return prometheus::BuildCounter().Name(name).Help(help).Register(*registry_).Add({});
  }

  std::shared_ptr<prometheus::Registry> registry_;
  std::vector<Counter*> counters_;  // as kCounters
  Counter& send_errors_ =
      counter("pkgdist_lead_send_errors_total", "Datagrams that the system refused to send.");
  Gauge& rate_ = gauge("pkgdist_lead_rate_bytes_per_second", "Present rate of the data stream.");
  Gauge& leading_ = gauge("pkgdist_lead_leading", "1 while this lead leads, 0 while it listens.");
  Gauge& heard_ = gauge("pkgdist_lead_nodes_heard", "Nodes that were heard, silent ones included.");
  Gauge& silent_ = gauge("pkgdist_lead_nodes_silent", "Of these, nodes that have fallen silent.");
  prometheus::Family<Gauge>* release_nodes_ = nullptr;  // with the first node that takes releases
  std::map<Labels, Gauge*> releases_;
  prometheus::Family<Gauge>* release_expiry_ = nullptr;  // with the first release that expires
  std::map<Labels, Gauge*> expiries_;
  std::optional<Push> push_;
  lead::Time published_ = 0;
  std::unique_ptr<prometheus::Exposer> exposer_;  // the first to go
};

Metrics::Metrics(const cli::Endpoint& endpoint) : impl_(std::make_unique<Impl>(endpoint)) {}

Metrics::~Metrics() = default;

void Metrics::run(const lead::Lead& lead, const NodePrograms& programs, uint64_t send_errors,
                  lead::Time now) {
  impl_->run(lead, programs, send_errors, now);
}

std::unique_ptr<Metrics> open_metrics(const std::optional<cli::Endpoint>& endpoint,
                                      Reporter& reporter) {
  if (!endpoint) return nullptr;
  auto metrics = std::make_unique<Metrics>(*endpoint);
  reporter.say(fmt::format("metrics at http://{}/metrics", text_of(*endpoint)));
  return metrics;
}

}  // namespace pkgdist::lead_program
