#include "push_description.h"

#include <unistd.h>

#include <array>
#include <filesystem>
#include <nlohmann/json.hpp>

namespace pkgdist::lead_program {

namespace {

using Json = nlohmann::ordered_json;
using cli::format_address;

std::string host_name() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

Json encode(const GivenOptions& given) {
  Json options = Json::object();
  for (const auto& [name, value] : given) options[name] = value;
  return options;
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
          {"options", encode(options.given)}};
}

}  // namespace pkgdist::lead_program
