#include "push_wire.h"

#include <array>
#include <bit>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "base64.h"

namespace pkgdist::lead_program {

namespace {

constexpr size_t kNamesPerLine = 2000;
// Files by number in a report; the summary has no more names either.
constexpr size_t kMaxFiles = 100'000;

// 12 bytes of addresses and flags with their padding, and thirteen numbers.
constexpr size_t kNodeReportBytes = 16 + 13 * sizeof(uint64_t) +
                                    sizeof(lead::PushNodeReport::failed) +
                                    sizeof(lead::PushNodeReport::open);

using CounterValues = std::array<uint64_t, sizeof(lead::Counters) / sizeof(uint64_t)>;

template <class Entries, class Encode>
void in_lines(std::vector<Json>& lines, const char* key, const Entries& entries, Encode&& encode) {
  Json list = Json::array();
  for (const auto& entry : entries) {
    list.push_back(encode(entry));
    if (list.size() == kNamesPerLine) lines.push_back({{key, std::exchange(list, Json::array())}});
  }
  if (!list.empty()) lines.push_back({{key, list}});
}

Json encode_names(const std::vector<std::string>& names) {
  Json list = Json::array();
  for (const std::string& name : names) list.push_back(cli::encode_base64(name));
  return list;
}

std::vector<std::string> decode_names(const Json& list) {
  std::vector<std::string> names;
  for (const Json& name : list) names.push_back(cli::decode_base64_text(name.get<std::string>()));
  return names;
}

void decode_mirror(const Json& object, PushTree& tree) {
  tree.mirror = true;
  tree.only_list = object.at("only_list").get<bool>();
  tree.filter = {decode_names(object.at("exclude")), decode_names(object.at("include"))};
}

// Every number of a node's report, in one place for both directions. A field that is added there
// has to be added here: the size tells.
static_assert(sizeof(lead::PushNodeReport) == kNodeReportBytes);
template <class Node, class Visit>
void visit_numbers(Node& node, Visit&& visit) {
  visit(node.address);
  visit(node.node_id);
  visit(node.heard);
  visit(node.silent);
  visit(node.deferred);
  visit(node.files_done);
  visit(node.files_skipped);
  visit(node.files_failed);
  visit(node.files_left);
  visit(node.bytes_done);
  visit(node.bytes_skipped);
  visit(node.bytes_left);
  visit(node.bytes_in_transfer);
  visit(node.bytes_sent);
  visit(node.segments);
  visit(node.repairs);
  visit(node.finished_at);
  visit(node.last_heard);
}

template <class Report, class Visit>
void visit_totals(Report& report, Visit&& visit) {
  visit(report.started);
  visit(report.finished);
  visit(report.started_at);
  visit(report.waits_since);
  visit(report.finished_at);
  visit(report.files);
  visit(report.bytes);
  visit(report.bytes_received);
  visit(report.expected_nodes);
}

struct Append {
  Json& list;
  template <class Number>
  void operator()(const Number& number) const {
    list.push_back(static_cast<uint64_t>(number));
  }
};
struct Take {
  const Json& list;
  size_t at = 0;
  template <class Number>
  void operator()(Number& number) {
    number = static_cast<Number>(list.at(at++).template get<uint64_t>());
  }
};

Json encode_node_report(const lead::PushNodeReport& node, size_t& room) {
  Json numbers = Json::array(), failed = Json::array(), open = Json::array();
  visit_numbers(node, Append{numbers});
  for (const auto& [file, status] : node.failed) {
    if (room == 0) break;
    --room;
    failed.push_back({file, status});
  }
  for (const uint32_t file : node.open) {
    if (room == 0) break;
    --room;
    open.push_back(file);
  }
  Json object{{"n", numbers}};
  if (!failed.empty()) object["failed"] = failed;
  if (!open.empty()) object["open"] = open;
  return object;
}

lead::PushNodeReport decode_node_report(const Json& object) {
  lead::PushNodeReport node;
  visit_numbers(node, Take{object.at("n")});
  if (object.contains("failed"))
    for (const Json& pair : object.at("failed"))
      node.failed[pair.at(0).get<uint32_t>()] = pair.at(1).get<uint64_t>();
  if (object.contains("open"))
    for (const Json& file : object.at("open")) node.open.push_back(file.get<uint32_t>());
  return node;
}

}  // namespace

// --- What is asked for ---

std::vector<Json> encode_push(const QueuedPush& push) {
  const lead::PushRequest& request = push.request;
  Json head{{"command", "push"},
            {"name", cli::encode_base64(push.name)},
            {"root", cli::encode_base64(push.root)},
            {"location", request.location},
            {"type", request.type},
            {"priority", request.priority},
            {"nodes", request.nodes},
            {"node_count", request.node_count},
            {"node_timeout", request.node_timeout},
            {"max_time", request.max_time},
            {"slow_nodes", static_cast<unsigned>(request.slow_nodes)}};
  if (push.durable_seconds) head["durable"] = *push.durable_seconds;
  if (push.tree.mirror)
    head["mirror"] = {{"only_list", push.tree.only_list},
                      {"exclude", encode_names(push.tree.filter.exclude)},
                      {"include", encode_names(push.tree.filter.include)}};
  if (push.own_root) head["own_root"] = true;
  std::vector<Json> lines{head};
  in_lines(lines, "files", request.files, [](const lead::PushFile& file) {
    return Json{cli::encode_base64(file.name), file.size};
  });
  in_lines(lines, "directories", request.directories,
           [](const std::string& name) { return Json(cli::encode_base64(name)); });
  in_lines(lines, "tree", push.tree.directories, [](const cli::TreeDirectory& directory) {
    return Json{cli::encode_base64(directory.name), directory.mode, directory.mtime};
  });
  in_lines(lines, "others", push.tree.others,
           [](const std::string& name) { return Json(cli::encode_base64(name)); });
  for (const Checksums& part : push.tree.checksums)
    lines.push_back(
        {{"checksums",
          {cli::encode_base64(part.manifest), cli::encode_base64(part.signature), part.bytes}}});
  lines.push_back({{"start", true}});
  return lines;
}

bool PushReader::add(const Json& line) {
  lead::PushRequest& request = push_.request;
  if (!std::exchange(begun_, true)) {
    push_.name = cli::decode_base64_text(line.at("name").get<std::string>());
    push_.root = cli::decode_base64_text(line.at("root").get<std::string>());
    request.location = line.at("location").get<uint32_t>();
    request.type = line.at("type").get<uint32_t>();
    request.priority = line.at("priority").get<uint32_t>();
    request.nodes = line.at("nodes").get<std::vector<uint32_t>>();
    request.node_count = line.at("node_count").get<uint32_t>();
    request.node_timeout = line.at("node_timeout").get<lead::Time>();
    request.max_time = line.at("max_time").get<lead::Time>();
    const auto slow = line.at("slow_nodes").get<unsigned>();
    if (slow > static_cast<unsigned>(lead::SlowNodes::kAfter))
      throw std::runtime_error("no such way with slow nodes");
    request.slow_nodes = static_cast<lead::SlowNodes>(slow);
    push_.own_root = line.value("own_root", false);
    if (line.contains("durable")) push_.durable_seconds = line.at("durable").get<double>();
    if (line.contains("mirror")) decode_mirror(line.at("mirror"), push_.tree);
    return false;
  }
  if (line.contains("files"))
    for (const Json& file : line.at("files"))
      request.files.push_back(
          {cli::decode_base64_text(file.at(0).get<std::string>()), file.at(1).get<uint64_t>()});
  if (line.contains("directories"))
    for (const Json& name : line.at("directories"))
      request.directories.push_back(cli::decode_base64_text(name.get<std::string>()));
  if (line.contains("tree"))
    for (const Json& one : line.at("tree"))
      push_.tree.directories.push_back({cli::decode_base64_text(one.at(0).get<std::string>()),
                                        one.at(1).get<uint32_t>(), one.at(2).get<int64_t>()});
  if (line.contains("others"))
    for (std::string& name : decode_names(line.at("others")))
      push_.tree.others.push_back(std::move(name));
  if (line.contains("checksums")) {
    const Json& part = line.at("checksums");
    push_.tree.checksums.push_back({cli::decode_base64_text(part.at(0).get<std::string>()),
                                    cli::decode_base64_text(part.at(1).get<std::string>()),
                                    part.at(2).get<uint64_t>()});
  }
  return line.contains("start");
}

// --- How it stands ---

Json encode_report(const lead::PushReport& report) {
  size_t room = kMaxFiles;
  Json totals = Json::array(), nodes = Json::array();
  visit_totals(report, Append{totals});
  for (const lead::PushNodeReport& node : report.nodes)
    nodes.push_back(encode_node_report(node, room));
  return {{"totals", totals}, {"nodes", nodes}};
}

lead::PushReport decode_report(const Json& object) {
  lead::PushReport report;
  visit_totals(report, Take{object.at("totals")});
  for (const Json& node : object.at("nodes")) report.nodes.push_back(decode_node_report(node));
  return report;
}

Json encode_counters(const lead::Counters& counters) {
  return std::bit_cast<CounterValues>(counters);
}

lead::Counters decode_counters(const Json& values) {
  return std::bit_cast<lead::Counters>(values.get<CounterValues>());
}

lead::Counters difference(const lead::Counters& now, const lead::Counters& before) {
  auto values = std::bit_cast<CounterValues>(now);
  const auto earlier = std::bit_cast<CounterValues>(before);
  for (size_t i = 0; i < values.size(); ++i) values[i] -= earlier[i];
  return std::bit_cast<lead::Counters>(values);
}

Json encode_node(const lead::NodeInfo& node) {
  return {node.address, node.node_id, node.pid, node.card_class};
}

lead::NodeInfo decode_node(const Json& values) {
  return {.address = values.at(0).get<uint32_t>(),
          .node_id = values.at(1).get<uint32_t>(),
          .pid = values.at(2).get<uint32_t>(),
          .card_class = values.at(3).get<uint32_t>()};
}

}  // namespace pkgdist::lead_program
