// get, send and status through the node that runs on this host.
#include <fmt/core.h>

#include <nlohmann/json.hpp>

#include "base64.h"
#include "commands.h"
#include "counted.h"
#include "printable.h"
#include "running_node.h"
#include "stop_signals.h"

namespace pkgdist::node_program {

namespace {

using Json = nlohmann::ordered_json;

constexpr double kAnswerSeconds = 15;

void print(const std::string& line) {
  cli::standard_output().line(line, cli::Output::Kind::kResult);
}

}  // namespace

std::optional<Json> next_line(cli::LineConnection& node) {
  std::optional<Json> line;
  try {
    line = node.next(-1);
  } catch (const std::runtime_error& error) {
    throw cli::NotDone(error.what());
  }
  if (line && line->value("event", "") == "error")
    throw std::runtime_error(line->value("text", "refused"));
  return line;
}

std::string no_node_text(const NodeOptions& options) {
  return fmt::format("no node runs here with {}:{}", cli::format_address(options.common.interface),
                     options.common.node_port);
}

int get_through(cli::LineConnection& node, const NodeOptions& options) {
  Json paths = Json::array();
  for (const std::string& path : options.paths) paths.push_back(cli::encode_base64(path));
  Json request{{"command", "get"},
               {"paths", paths},
               {"location", options.location},
               {"type", options.type},
               {"priority", options.priority},
               {"timeout", options.timeout_seconds}};
  const auto& locations = options.common.locations;
  if (const auto own = locations.find(options.location); own != locations.end())
    request["storage"] = cli::encode_base64(storage_of(own->second));
  node.send(request);
  EventPrinter printer(options);
  size_t ended = 0;
  while (const auto line = next_line(node)) {
    if (line->value("event", "") == "file") {
      ++ended;
      printer.file_told(line->at("status"), line->at("text"),
                        cli::decode_base64_text(line->at("path").get<std::string>()),
                        line->at("location"), line->at("transaction"));
      continue;
    }
    const auto left = line->at("left").get<size_t>();
    if (left != 0)
      printer.gave_up(fmt::format("{} of {} files have not arrived", left, options.paths.size()),
                      options.timeout_seconds);
    return left == 0 && line->at("failed") == 0 ? cli::kExitOk : cli::kExitFailure;
  }
  printer.gave_up(fmt::format("{} of {} files have not arrived; the node goes on",
                              options.paths.size() - ended, options.paths.size()),
                  options.timeout_seconds);
  return cli::kExitFailure;
}

int send_through(cli::LineConnection& node, const NodeOptions& options,
                 const std::string& message) {
  node.send({{"command", "send"},
             {"class", options.message_class},
             {"data", cli::encode_base64(std::string_view(message))},
             {"timeout", options.timeout_seconds}});
  EventPrinter printer(options);
  const auto line = next_line(node);
  if (!line || line->at("silent").get<bool>()) {
    printer.gave_up("the lead has not acknowledged the message", options.timeout_seconds);
    return cli::kExitFailure;
  }
  const auto status = line->at("status").get<uint64_t>();
  printer.message_outcome(status, line->at("text"));
  return status == 0 ? cli::kExitOk : cli::kExitFailure;
}

int status_command(const NodeOptions& options) {
  auto node = connect_to_node(options);
  if (!node) throw std::runtime_error(no_node_text(options));
  node->send({{"command", "status"}});
  Json status = node->answer(kAnswerSeconds);
  status.erase("event");
  const cli::JsonEvents json(options.common.json);
  json.print("status", status, cli::Output::Kind::kResult);
  if (json.enabled()) return cli::kExitOk;
  print(fmt::format("node {} ({}, process {}, version {})", status.value("address", ""),
                    status.value("node_id", ""), status.value("pid", 0),
                    status.value("version", "")));
  print(status.at("lead").is_string() ? "lead " + status.at("lead").get<std::string>()
                                      : std::string("no lead was heard"));
  for (const Json& location : status.at("locations"))
    print(fmt::format("location {}: {}{}", location.value("location", 0),
                      location.value("memory", false) ? "shared memory, names with " : "",
                      location.value("path", "")));
  print(cli::counted(status.at("transactions").size(), "transaction") + " under way");
  return cli::kExitOk;
}

}  // namespace pkgdist::node_program
