#include "running_node.h"

#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "base64.h"
#include "last_error.h"
#include "release_report.h"

namespace pkgdist::node_program {

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

// The longest request: a message of the greatest size in base64, or as many names.
constexpr size_t kMaxLine = size_t{2} << 20;

std::string path_for(const NodeOptions& options) {
  return cli::control_socket_path(options.control_path, "pkgdist-node", options.common.interface,
                                  options.common.node_port);
}

// Tells when nothing was heard for a time.
class Silence {
 public:
  Silence(double seconds, uint64_t (*heard)())
      : limit_(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))),
        heard_(heard),
        count_(heard()) {}

  bool over() {
    if (const uint64_t now = heard_(); std::exchange(count_, now) != now) since_ = Clock::now();
    return Clock::now() - since_ >= limit_;
  }

 private:
  const Clock::duration limit_;
  uint64_t (*const heard_)();
  uint64_t count_;
  Clock::time_point since_ = Clock::now();
};

double timeout_of(const Json& request) {
  constexpr double kLongestSeconds = 1e6;
  const double seconds = request.value("timeout", 60.0);
  if (!(seconds > 0) || seconds > kLongestSeconds)
    throw std::runtime_error("\"timeout\" is out of range");
  return seconds;
}

}  // namespace

// What a client has asked for. Lives until the library calls it back no more.
class RunningNode::Job {
 public:
  explicit Job(Client client) : client_(std::move(client)) { client_->begin(); }
  virtual ~Job() = default;
  // Goes on when a lead is known.
  virtual void run(bool lead_is_known) = 0;
  virtual bool called_back() const = 0;
  bool ended() const { return client_->finished() || client_->gone(); }

 protected:
  Client client_;
};

class RunningNode::GetJob : public Job {
 public:
  GetJob(Client client, const Json& request, const NodeOptions& options, Node& node,
         const EventPrinter& printer)
      : Job(std::move(client)),
        files_(wanted(request, options), node.loop(),
               [this, &node, &printer](uint64_t status, const char* path, uint32_t location,
                                       uint32_t number) {
                 const std::string text = node.file_ended(location, path, status);
                 if (printer.on_file_ended)
                   printer.on_file_ended(location, path, status == 0 ? "" : text);
                 client_->say({{"event", "file"},
                               {"path", cli::encode_base64(std::string_view(path))},
                               {"location", location},
                               {"transaction", number},
                               {"status", status},
                               {"text", text}});
               }),
        silence_(timeout_of(request), heard_about_files) {}

  void run(bool lead_is_known) override {
    if (ended()) return;
    const bool done = lead_is_known && files_.run();
    const bool silent = !done && silence_.over();
    if (!done && !silent) return;
    client_->finish({{"event", "done"},
                     {"left", files_.left()},
                     {"failed", files_.failed()},
                     {"silent", silent}});
  }
  bool called_back() const override { return files_.waits(); }

 private:
  static Wanted wanted(const Json& request, const NodeOptions& options) {
    Wanted wanted;
    wanted.location = request.at("location").get<uint32_t>();
    wanted.type = request.at("type").get<uint32_t>();
    wanted.priority = request.at("priority").get<uint32_t>();
    for (const Json& path : request.at("paths"))
      wanted.paths.push_back(cli::decode_base64_text(path.get<std::string>()));
    check_storage(request, options, wanted.location);
    return wanted;
  }

  static void check_storage(const Json& request, const NodeOptions& options, uint32_t number) {
    const auto own = options.common.locations.find(number);
    if (own == options.common.locations.end())
      throw std::runtime_error(fmt::format("the node that runs here has no location {}", number));
    if (!request.contains("storage")) return;
    const auto asked = cli::decode_base64_text(request.at("storage").get<std::string>());
    if (asked != storage_of(own->second))
      throw std::runtime_error(fmt::format("the node that runs here has location {} in {}, not {}",
                                           number, storage_of(own->second), asked));
  }

  FileRequests files_;
  Silence silence_;
};

class RunningNode::SendJob : public Job {
 public:
  SendJob(Client client, const Json& request, Node& node)
      : Job(std::move(client)),
        loop_(node.loop()),
        class_(request.at("class").get<uint32_t>()),
        bytes_(cli::decode_base64(request.at("data").get<std::string>())),
        silence_(timeout_of(request), heard_about_messages) {}

  void run(bool lead_is_known) override {
    if (ended()) return;
    if (lead_is_known && !std::exchange(sent_, true)) {
      waits_ = true;
      const PkgdistStatus status = instcomm_pkgdist_ctrl_send_lead_msg(
          bytes_.data(), bytes_.size(), class_, loop_, on_status, this);
      if (status != 0) on_status(status, this);
    }
    if (!ended() && silence_.over()) end(PKGDIST_STATUS_FROM_ERRNO(ETIMEDOUT), true);
  }
  bool called_back() const override { return waits_; }

 private:
  static void on_status(uint64_t status, void* ctx) {
    auto& self = *static_cast<SendJob*>(ctx);
    self.waits_ = false;
    self.end(status, false);
  }
  void end(uint64_t status, bool silent) {
    client_->finish({{"event", "done"},
                     {"status", status},
                     {"text", message_text(status)},
                     {"silent", silent}});
  }

  const levm_handle_t loop_;
  const uint32_t class_;
  const std::vector<uint8_t> bytes_;
  Silence silence_;
  bool sent_ = false;
  bool waits_ = false;
};

class RunningNode::ReleaseJob : public Job {
 public:
  ReleaseJob(Client client, const Json& request, ReleaseService* service)
      : Job(std::move(client)), done_(ask(request, service)) {}

  void run(bool) override {
    if (ended() || done_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) return;
    try {
      Json answer{{"event", "installation"}};
      answer.update(release_fields(done_.get()));
      client_->finish(answer);
    } catch (const std::future_error&) {
      client_->refuse("the node ends");
    }
  }
  bool called_back() const override { return false; }

 private:
  static std::future<cli::ReleaseState> ask(const Json& request, ReleaseService* service) {
    if (service == nullptr)
      throw std::runtime_error("the node that runs here takes no releases (--releases)");
    const std::string what = request.at("what").get<std::string>();
    const auto found = std::find(std::begin(kReleaseCommands), std::end(kReleaseCommands), what);
    if (found == std::end(kReleaseCommands)) throw std::runtime_error("no such release command");
    const auto command = static_cast<ReleaseCommand>(found - std::begin(kReleaseCommands));
    if (command != ReleaseCommand::kStatus)
      return service->command(
          {command, request.value("version", uint64_t{0}), request.value("force", false)});
    std::promise<cli::ReleaseState> now;
    now.set_value(service->state());
    return now.get_future();
  }

  std::future<cli::ReleaseState> done_;
};

// --- The node's side ---

RunningNode::RunningNode(const NodeOptions& options, Node& node, EventPrinter& printer,
                         const LeadTalk& talk, ReleaseService* releases)
    : options_(options),
      node_(node),
      printer_(printer),
      talk_(talk),
      releases_(releases),
      server_(
          path_for(options), poller_, kMaxLine,
          [this](const Client& client, const std::string& line) { return on_line(client, line); },
          [this](const std::string& text) { printer_.error(text); }) {
  if (releases_ != nullptr)
    poller_.add(releases_->wake_fd(), EPOLLIN, [this] { releases_->take_wake(); });
  node_.run_beside(&poller_, [this] { run(); });
}

RunningNode::~RunningNode() {
  node_.run_beside(nullptr, nullptr);
}

bool RunningNode::on_line(const Client& client, const std::string& line) {
  if (client->begun()) return true;
  const Json request = Json::parse(line, nullptr, false);
  if (!request.is_object()) throw std::runtime_error("the request is no JSON object");
  const std::string command = request.value("command", "");
  if (command == "status") {
    say_status(*client);
    client->finish();
  } else if (command == "get") {
    jobs_.push_back(std::make_unique<GetJob>(client, request, options_, node_, printer_));
  } else if (command == "send") {
    jobs_.push_back(std::make_unique<SendJob>(client, request, node_));
  } else if (command == "release") {
    jobs_.push_back(std::make_unique<ReleaseJob>(client, request, releases_));
  } else {
    throw std::runtime_error("no such command");
  }
  return true;
}

void RunningNode::say_status(cli::LineClient& client) const {
  Json status{{"event", "status"}, {"pid", ::getpid()}, {"version", cli::version()}};
  status.update(identity_fields(options_));
  status["lead"] = printer_.lead_is_known() ? Json(cli::format_address(printer_.lead())) : Json();
  status["transactions"] = talk_.open_transactions();
  client.say(status);
}

void RunningNode::run() {
  server_.run();
  for (const auto& job : jobs_) job->run(printer_.lead_is_known());
  jobs_.remove_if([](const auto& job) { return job->ended() && !job->called_back(); });
  server_.flush();
}

std::unique_ptr<RunningNode> open_control(const NodeOptions& options, Node& node,
                                          EventPrinter& printer, const LeadTalk& talk,
                                          ReleaseService* releases) {
  try {
    return std::make_unique<RunningNode>(options, node, printer, talk, releases);
  } catch (const cli::SocketTaken&) {
    throw;
  } catch (const std::runtime_error& error) {
    if (!options.control_path.empty()) throw;
    printer.error(fmt::format("warning: takes no commands: {}", error.what()));
    return nullptr;
  }
}

std::string storage_of(const cli::Location& location) {
  if (location.memory) return "mem:" + location.path;
  std::error_code error;
  const std::filesystem::path place = std::filesystem::absolute(location.path);
  const std::filesystem::path resolved = std::filesystem::weakly_canonical(place, error);
  return error ? place.string() : resolved.string();
}

std::optional<cli::LineConnection> connect_to_node(const NodeOptions& options) {
  auto socket = cli::connect_to(path_for(options), !options.control_path.empty());
  if (!socket) return std::nullopt;
  return cli::LineConnection(std::move(*socket), "node");
}

}  // namespace pkgdist::node_program
