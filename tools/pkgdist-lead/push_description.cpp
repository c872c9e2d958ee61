#include "push_description.h"

#include <fmt/core.h>
#include <unistd.h>

#include <array>
#include <filesystem>

namespace pkgdist::lead_program {

namespace {

using Json = nlohmann::ordered_json;
using cli::format_address;

std::string host_name() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

std::string megabits(uint64_t bits) {
  return fmt::format("{:g}", static_cast<double>(bits) / 1e6);
}

const char* slow_nodes_text(lead::SlowNodes what) {
  return what == lead::SlowNodes::kDrop    ? "drop"
         : what == lead::SlowNodes::kAfter ? "after"
                                           : "wait";
}

// By name, with the values as they would be given; flags have none.
Json given_options(const LeadOptions& options) {
  const LeadOptions usual;
  Json given = Json::object();
  const auto note = [&](const char* name, const auto& value, const auto& other, auto&& text) {
    if (value != other) given[name] = text(value);
  };
  const auto number = [](auto value) { return fmt::format("{:g}", static_cast<double>(value)); };
  const auto flag = [](bool) { return std::string(); };
  note("--type", options.type, usual.type, number);
  note("--priority", options.priority, usual.priority, number);
  note("--rate", options.rate_bits, usual.rate_bits, megabits);
  note("--max-rate", options.max_rate_bits, usual.max_rate_bits, megabits);
  note("--timeout", options.timeout_seconds, usual.timeout_seconds, number);
  note("--max-time", options.max_seconds, usual.max_seconds, number);
  note("--slow-nodes", options.slow_nodes, usual.slow_nodes, slow_nodes_text);
  note("--durable", options.durable, usual.durable, flag);
  note("--durable-timeout", options.durable_seconds, usual.durable_seconds, number);
  note("--checksum", options.checksum, usual.checksum, flag);
  note("--keep-directory-links", options.keep_directory_links, usual.keep_directory_links, flag);
  note("--delete", options.mirror, usual.mirror, flag);
  note("--strict", options.strict, usual.strict, flag);
  note("--ttl", options.ttl, usual.ttl, number);
  note("--multi-homed", options.multi_homed, usual.multi_homed, flag);
  return given;
}

}  // namespace

Json push_description(const LeadOptions& options, const lead::PushRequest& request) {
  const cli::CommonOptions& common = options.common;
  uint64_t bytes = 0;
  for (const lead::PushFile& file : request.files) bytes += file.size;
  Json named = Json::array();
  for (const uint32_t node : request.nodes) named.push_back(format_address(node));
  return {{"version", cli::version()},
          {"host", host_name()},
          {"address", format_address(common.interface)},
          {"ctrl_group", cli::format_endpoint(common.ctrl_group)},
          {"data_group", cli::format_endpoint(common.data_group)},
          {"location", options.location},
          {"root", std::filesystem::absolute(common.locations.at(options.location).path).string()},
          {"paths", options.paths},
          {"files", request.files.size()},
          {"bytes", bytes},
          {"nodes", request.nodes.empty() ? request.node_count : request.nodes.size()},
          {"named_nodes", named},
          {"options", given_options(options)}};
}

}  // namespace pkgdist::lead_program
