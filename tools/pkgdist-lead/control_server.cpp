#include "control_server.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "cli_common.h"
#include "control_path.h"
#include "pkgdist_lead/udp_transport.h"

namespace pkgdist::lead_program {

namespace {

using Json = nlohmann::ordered_json;

double seconds(lead::Time time) {
  return cli::rounded(static_cast<double>(time) / static_cast<double>(lead::kSecond),
                      cli::kSecondDecimals);
}

const char* role_text(lead::Role role) {
  return role == lead::Role::kLeading      ? "leading"
         : role == lead::Role::kStandingBy ? "standing-by"
                                           : "listening";
}

}  // namespace

ControlServer::ControlServer(const std::string& path, const LeadOptions& options, Session& session,
                             NodePrograms& programs, Reporter& reporter, PushQueue* queue)
    : options_(options),
      session_(session),
      lead_(session.lead()),
      programs_(programs),
      reporter_(reporter),
      queue_(queue),
      watch_(lead_, programs_, queue),
      began_at_(lead::monotonic_now()),
      server_(
          path, session.poller(), kMaxRequestLine,
          [this](const Client& client, const std::string& line) { return on_line(client, line); },
          [this](const std::string& text) { reporter_.error(text); }) {
  if (queue_ != nullptr) releases_.emplace(lead_, programs_);
}

bool ControlServer::on_line(const Client& client, const std::string& line) {
  const Json request = Json::parse(line, nullptr, false);
  if (!request.is_object()) throw std::runtime_error("the request is no JSON object");
  if (readers_.contains(client)) {
    on_push_line(client, request);
    return true;
  }
  if (client->begun()) {
    if (watch_.on_line(client, request, now_)) return true;
    if (queue_ == nullptr || releases_->on_line(client, request, now_)) return true;
    if (request.contains("stop")) queue_->stop(client, now_);
    if (request.contains("stop_for"))
      queue_->stop_for(client, request.at("stop_for").get<uint32_t>(), now_);
    return true;
  }
  const auto command = request.find("command");
  return on_command(client,
                    command != request.end() && command->is_string() ? command->get<std::string>()
                                                                     : std::string(),
                    line);
}

void ControlServer::require_leading() const {
  if (lead_.role() != lead::Role::kStandingBy) return;
  throw std::runtime_error(
      fmt::format("this lead stands by{}",
                  lead_.other_lead() == 0
                      ? std::string()
                      : fmt::format(": {} leads", cli::format_address(lead_.other_lead()))));
}

bool ControlServer::on_command(const Client& client, const std::string& command,
                               const std::string& line) {
  if (command == "status" || command == "nodes" || command == "pushes") {
    if (command == "status")
      say_status(*client);
    else if (command == "nodes")
      say_nodes(*client);
    else
      say_pushes(*client);
    client->finish();
    return true;
  }
  if (command == "watch") {
    watch_.begin(client);
    return true;
  }
  if (lead_.role() == lead::Role::kListening) return false;  // decided in a moment
  require_leading();
  const Json request = Json::parse(line);
  if (command == "push") {
    if (queue_ == nullptr)
      throw std::runtime_error("this lead has a push of its own and takes no others");
    (void)readers_[client].add(request);
    return true;
  }
  if (command == "releases") {
    if (!releases_)
      throw std::runtime_error("this lead has a push of its own: ask when it has ended");
    releases_->begin(client);
    return true;
  }
  if (command == "cancel" && request.contains("push") && cancel_push(client, request)) return true;
  ControlRequest& entry =
      requests_.emplace_back(client, decode_request(line), lead_, programs_, reporter_);
  try {
    entry.start(now_);
  } catch (const std::exception&) {
    requests_.pop_back();
    throw;
  }
  return true;
}

// --- Pushes ---

void ControlServer::on_push_line(const Client& client, const Json& line) {
  PushReader& reader = readers_.at(client);
  try {
    if (!reader.add(line)) return;
    QueuedPush push = reader.take();
    check_root(push);
    queue_->add(std::move(push), client, now_);
  } catch (const std::exception&) {
    readers_.erase(client);
    throw;
  }
  readers_.erase(client);
}

void ControlServer::check_root(const QueuedPush& push) const {
  namespace fs = std::filesystem;
  if (push.own_root) {
    if (::access(push.root.c_str(), R_OK | X_OK) == 0) return;
    throw std::runtime_error(fmt::format("the lead that serves here cannot read {}: {}", push.root,
                                         std::strerror(errno)));
  }
  const std::string own = session_.store().root(push.request.location);
  std::error_code error;
  if (own.empty())
    throw std::runtime_error(
        fmt::format("the lead that serves here has no location {}", push.request.location));
  if (fs::weakly_canonical(own, error) != fs::weakly_canonical(push.root, error))
    throw std::runtime_error(fmt::format("the lead that serves here has location {} in {}, not {}",
                                         push.request.location, own, push.root));
}

// True when there is such a push.
bool ControlServer::cancel_push(const Client& client, const Json& request) {
  const std::string which = request.at("push").get<std::string>();
  if (!request.value("nodes", Json::array()).empty()) {
    if (request.contains("transaction")) return false;  // for these nodes alone
    throw std::runtime_error(
        "for some nodes, a push is cancelled by the number of its transaction");
  }
  const auto cancelled = queue_ != nullptr ? queue_->cancel(which, now_) : std::nullopt;
  if (!cancelled && request.contains("transaction")) return false;
  const std::string text =
      cancelled ? cancelled->text : fmt::format("no push is called '{}'", which);
  client->say({{"event", "cancelled"}, {"done", cancelled && cancelled->done}, {"text", text}});
  client->say({{"event", "done"}, {"complete", cancelled && cancelled->done}});
  client->finish();
  return true;
}

// --- Lists ---

void ControlServer::say_status(cli::LineClient& client) const {
  Json locations = Json::array();
  for (const auto& [number, location] : options_.common.locations)
    locations.push_back(
        {{"location", number}, {"path", std::filesystem::absolute(location.path).string()}});
  const lead::Lead::NodeCounts nodes = lead_.node_counts();
  const uint32_t other = lead_.other_lead();
  client.say({{"event", "status"},
              {"address", cli::format_address(options_.common.interface)},
              {"ctrl_group", cli::format_endpoint(options_.common.ctrl_group)},
              {"data_group", cli::format_endpoint(options_.common.data_group)},
              {"pid", ::getpid()},
              {"version", cli::version()},
              {"takes_pushes", queue_ != nullptr},
              {"role", role_text(lead_.role())},
              {"other", other != 0 ? Json(cli::format_address(other)) : Json()},
              {"seconds", seconds(lead::elapsed(lead::monotonic_now(), began_at_))},
              {"nodes", nodes.heard},
              {"nodes_silent", nodes.silent},
              {"rate_bits", lead_.rate_bits()},
              {"push_running", lead_.push_running()},
              {"locations", locations}});
}

void ControlServer::say_nodes(cli::LineClient& client) const {
  const lead::Time now = lead::monotonic_now();
  std::vector<lead::Lead::NodeView> nodes = lead_.nodes();
  std::sort(nodes.begin(), nodes.end(),
            [](const auto& a, const auto& b) { return a.info.address < b.info.address; });
  for (const lead::Lead::NodeView& node : nodes) {
    const cli::Introduction* who = programs_.find(node.info);
    const auto host = programs_.hosts().find(node.info.address);
    const std::string has = queue_ != nullptr ? queue_->last_complete(node.info.address) : "";
    Json line{{"event", "node"},
              {"node", cli::format_address(node.info.address)},
              {"name", who != nullptr                    ? Json(who->host)
                       : host != programs_.hosts().end() ? Json(host->second)
                                                         : Json()},
              {"node_id", node_id_text(node.info.node_id)},
              {"pid", node.info.pid},
              {"card_class", node.info.card_class},
              {"version", who != nullptr ? Json(who->version) : Json()},
              {"has", has.empty() ? Json() : Json(has)},
              {"state", node.silent ? "silent" : "heard"},
              {"heard_seconds_ago", seconds(lead::elapsed(now, node.last_heard))}};
    if (who != nullptr) line["locations"] = locations_of(*who);
    client.say(line);
  }
  client.say({{"event", "done"}, {"nodes", nodes.size()}});
}

void ControlServer::say_pushes(cli::LineClient& client) const {
  if (queue_ != nullptr)
    for (const Json& line : queue_->list(lead::monotonic_now())) client.say(line);
  client.say({{"event", "done"}});
}

// --- Time ---

void ControlServer::run(lead::Time now) {
  now_ = now;
  server_.run();
  watch_.run(now);  // before the queue lets go of a push that has ended
  if (queue_ != nullptr) queue_->run(now);
  if (releases_) releases_->run();
  for (ControlRequest& request : requests_) request.run(now);
  requests_.remove_if([](const ControlRequest& request) { return request.ended(); });
  server_.flush();
  std::erase_if(readers_, [](const auto& entry) { return entry.first->gone(); });
}

std::unique_ptr<ControlServer> open_control(const LeadOptions& options, Session& session,
                                            NodePrograms& programs, Reporter& reporter,
                                            PushQueue* queue) {
  const std::string path = control_path(options);
  try {
    return std::make_unique<ControlServer>(path, options, session, programs, reporter, queue);
  } catch (const cli::SocketTaken&) {
    throw;
  } catch (const std::runtime_error& error) {
    if (!options.control_path.empty()) throw;
    reporter.error(fmt::format("warning: takes no commands: {}", error.what()));
    return nullptr;
  }
}

}  // namespace pkgdist::lead_program
