// status, nodes, pushes: what a lead that runs on this host tells of itself.
#include <fmt/core.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "control_path.h"
#include "counted.h"
#include "json_events.h"
#include "reporter.h"

namespace pkgdist::lead_program {

namespace {

using Json = nlohmann::ordered_json;

void print(const std::string& line) {
  cli::standard_output().line(line, cli::Output::Kind::kResult);
}

std::string value_text(const Json& value) {
  return value.is_string() ? value.get<std::string>() : "-";
}

std::string size_text(const Json& value) {
  return format_bytes(value.get<double>());
}

std::string node_line(const Json& node) {
  return fmt::format(
      "{:<16}{:<20}{:<13}{:<10}{:<24}{:<12}{}", node.value("node", ""), value_text(node.at("name")),
      node.value("node_id", ""), value_text(node.at("version")), value_text(node.at("has")),
      fmt::format("{:.0f} s ago", node.value("heard_seconds_ago", 0.0)), node.value("state", ""));
}

std::string push_line(const Json& push) {
  return fmt::format("{:>4}  {:<24}{:<18}{:>8}{:>11}  {:<10}{:>9}  {}", push.value("number", 0u),
                     push.value("name", ""), push.value("state", ""),
                     push.value("files", uint64_t{0}), size_text(push.at("bytes")),
                     fmt::format("{} of {}", push.value("nodes_complete", uint64_t{0}),
                                 push.value("nodes", uint64_t{0})),
                     format_duration(push.value("seconds", 0.0)), push.value("transaction", 0u));
}

void print_status(const Json& status) {
  const std::string role = status.value("role", "");
  print(fmt::format("lead {} (process {}, version {}), {}{}, for {}", status.value("address", ""),
                    status.value("pid", 0), status.value("version", ""), role,
                    status.at("other").is_string() && role == "standing-by"
                        ? ": " + value_text(status.at("other")) + " leads"
                        : "",
                    format_duration(status.value("seconds", 0.0))));
  print(fmt::format("{} heard, {} silent; {}",
                    cli::counted(status.value("nodes", uint64_t{0}), "node"),
                    status.value("nodes_silent", uint64_t{0}),
                    !status.value("takes_pushes", false)  ? "pushes, and takes no other pushes"
                    : status.value("push_running", false) ? "a push runs"
                                                          : "no push runs"));
  for (const Json& location : status.at("locations"))
    print(
        fmt::format("location {}: {}", location.value("location", 0), location.value("path", "")));
}

class Lines {
 public:
  void line(const std::string& event, const Json& fields) {
    if (event == "status") return print_status(fields);
    if (event == "node") {
      head(fmt::format("{:<16}{:<20}{:<13}{:<10}{:<24}{:<12}{}", "node", "name", "id", "version",
                       "has", "heard", "state"));
      return print(node_line(fields));
    }
    if (event != "push") return;
    head(fmt::format("{:>4}  {:<24}{:<18}{:>8}{:>11}  {:<10}{:>9}  {}", "no.", "name", "state",
                     "files", "bytes", "nodes", "time", "transaction"));
    print(push_line(fields));
  }
  bool empty() const { return !begun_; }

 private:
  void head(const std::string& text) {
    if (!std::exchange(begun_, true)) print(text);
  }

  bool begun_ = false;
};

}  // namespace

int list_command(const LeadOptions& options) {
  const bool status = options.command == Command::kStatus;
  const bool nodes = options.command == Command::kNodes;
  cli::LineConnection connection = connect_to_lead(options);
  connection.send({{"command", status ? "status" : nodes ? "nodes" : "pushes"}});
  const cli::JsonEvents json(options.common.json);
  Lines lines;
  for (;;) {
    Json answer = connection.answer(kAnswerSeconds);
    const std::string event = answer.value("event", "");
    answer.erase("event");
    if (event == "error") throw cli::NotDone(answer.value("text", "refused"));
    if (event == "done") break;
    json.print(event, answer, cli::Output::Kind::kResult);
    if (!json.enabled()) lines.line(event, answer);
    if (status) return cli::kExitOk;
  }
  if (lines.empty() && !json.enabled()) print(nodes ? "no node was heard" : "there was no push");
  return cli::kExitOk;
}

}  // namespace pkgdist::lead_program
