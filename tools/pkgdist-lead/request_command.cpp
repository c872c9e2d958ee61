// message, cancel, delete: hands a request to the lead that runs on this host, shows what became of
// it, and exits by that.
#include <fmt/core.h>

#include <CLI/Error.hpp>
#include <algorithm>
#include <charconv>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>
#include <vector>

#include "commands.h"
#include "control_path.h"
#include "control_protocol.h"
#include "json_events.h"
#include "line_connection.h"
#include "reporter.h"
#include "stop_signals.h"

namespace pkgdist::lead_program {

namespace {

using Json = nlohmann::ordered_json;

// Beyond the wait for the nodes: the lead may have to listen for others first, and lists wait for
// those before them.
constexpr double kPatienceSeconds = 15;

// A transaction's number; a name that looks like one is taken for it when no push has the name.
std::optional<uint32_t> number_of(const std::string& text) {
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number == 0) return std::nullopt;
  return number;
}

Request make_request(const LeadOptions& options) {
  Request request;
  request.timeout_seconds = options.answer_seconds;
  if (!options.nodes.empty())
    request.audience = lead::Audience::only(options.nodes);
  else if (options.card_class != 0)
    request.audience = lead::Audience::of_class(options.card_class);
  if (options.command == Command::kCancel) {
    request.kind = lead::MessageKind::kCancel;
    request.transaction = number_of(options.cancelled).value_or(0);
  } else if (options.command == Command::kDelete) {
    for (const std::string& name : options.paths)
      if (name.starts_with('/')) throw CLI::ValidationError(slash_problem(name));
    request.kind = lead::MessageKind::kDelete;
    request.location = options.location;
    request.names = options.paths;
    request.recursive = options.recursive;
  } else {
    const std::string text = cli::message_bytes(options.message);
    if (text.empty()) throw CLI::ValidationError("an empty message cannot be sent");
    if (text.size() > lead::kMaxMessageSize)
      throw CLI::ValidationError(
          fmt::format("the message is longer than {} bytes", lead::kMaxMessageSize));
    request.msg_class = options.message_class;
    request.bytes.assign(text.begin(), text.end());
  }
  return request;
}

void print_answer(const std::string& line) {
  cli::standard_output().line(line, cli::Output::Kind::kResult);
}

// The tables of those who did not acknowledge, and of names that were not deleted: by the names of
// the nodes.
class Table {
 public:
  explicit Table(const std::map<uint32_t, std::string>& names) { names_.names = names; }

  void host(const Json& host) { names_.set_host(host.at("node"), host.at("name")); }

  void outcome(const Json& outcome) {
    const uint32_t node = cli::parse_address(outcome.value("node", ""));
    const Json names = outcome.value("names", Json::array());
    if (!outcome.value("acknowledged", false) && names.empty())
      rows_.push_back({outcome.value("cancelled", true) ? "not acknowledged" : "not cancelled",
                       node, outcome.value("text", "")});
    for (const Json& name : names)
      rows_.push_back({"not deleted", node,
                       fmt::format("{}: {}", name.value("name", ""), name.value("text", ""))});
  }

  void show() {
    const auto label = [&](const Row& row) { return names_.label(row.node); };
    std::stable_sort(rows_.begin(), rows_.end(), [&](const Row& a, const Row& b) {
      if (a.head != b.head) return a.head < b.head;
      return ::strverscmp(label(a).c_str(), label(b).c_str()) < 0;
    });
    size_t width = kLeastColumns;
    for (const Row& row : rows_) width = std::max(width, label(row).size());
    std::string head;
    for (const Row& row : rows_) {
      if (std::exchange(head, row.head) != row.head)
        print_answer(fmt::format("{:<{}}  {}", head, width, "why"));
      print_answer(fmt::format("{:<{}}  {}", label(row), width, row.why));
    }
  }

 private:
  static constexpr size_t kLeastColumns = 16;
  struct Row {
    std::string head;
    uint32_t node = 0;
    std::string why;
  };

  Reporter names_{false, 0};  // knows what nodes are called
  std::vector<Row> rows_;
};

void tell_end(const Json& end) {
  const auto acknowledged = end.value("acknowledged", uint64_t{0});
  const auto missing = end.value("missing", uint64_t{0});
  if (end.contains("deleted_on"))
    print_answer(fmt::format("deleted on {} of {} nodes", end.at("deleted_on").get<size_t>(),
                             acknowledged + missing));
  else if (!end.value("sent", true))
    print_answer("nothing was sent to the nodes");
  else if (acknowledged + missing == 0)
    print_answer("the lead knows no node that this is for");
  else
    print_answer(fmt::format("{} of {} nodes acknowledged", acknowledged, acknowledged + missing));
}

// Trouble after the first answer leaves something begun.
Json next_answer(cli::LineConnection& connection, double patience, bool begun) {
  try {
    return connection.answer(patience);
  } catch (const std::runtime_error& error) {
    if (begun || cli::stop_signal() != 0) throw cli::NotDone(error.what());
    throw;
  }
}

int show_answers(cli::LineConnection& connection, double patience, const LeadOptions& options) {
  const cli::JsonEvents json(options.common.json);
  Table table(options.node_names);
  for (bool sent = false;; sent = true) {
    Json answer = next_answer(connection, patience, sent);
    const std::string event = answer.value("event", "");
    answer.erase("event");
    if (event == "host") {
      table.host(answer);
      continue;
    }
    json.print(event, answer, cli::Output::Kind::kResult);
    if (event == "error") throw std::runtime_error(answer.value("text", "refused"));
    if (event == "outcome" && !json.enabled()) table.outcome(answer);
    if (event == "cancelled" && !json.enabled()) print_answer(answer.value("text", ""));
    if (event != "done") continue;
    table.show();
    if (!json.enabled() && answer.contains("missing")) tell_end(answer);
    return answer.value("complete", false) ? cli::kExitOk : cli::kExitFailure;
  }
}

Json encode(const LeadOptions& options) {
  Json line = Json::parse(encode_request(make_request(options)));
  if (options.command != Command::kCancel) return line;
  line["push"] = options.cancelled;
  if (line.at("transaction") == 0) line.erase("transaction");
  return line;
}

}  // namespace

int request_command(const LeadOptions& options) {
  const Json request = encode(options);
  cli::LineConnection connection = connect_to_lead(options);
  connection.send(request);
  return show_answers(connection, options.answer_seconds + kPatienceSeconds, options);
}

}  // namespace pkgdist::lead_program
