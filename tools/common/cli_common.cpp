#include "cli_common.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <sstream>

#include "network_interface.h"
#include "output.h"
#include "stop_signals.h"

namespace pkgdist::cli {

namespace {

constexpr uint32_t kLocations = 6;
constexpr const char* kMemoryPrefix = "mem:";

[[noreturn]] void refuse(const std::string& what, const std::string& value) {
  throw CLI::ValidationError(fmt::format("{}: '{}'", what, value));
}

template <class Number>
bool parse_number(const std::string& text, Number& value) {
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  return result.ec == std::errc() && result.ptr == end;
}

// An option whose value a parser turns into something else.
template <class Parse, class Store>
CLI::Option* add_parsed(CLI::App& app, const std::string& names, const std::string& help,
                        const std::string& type, const std::string& preset, Parse parse,
                        Store store) {
  CLI::Option* option = app.add_option_function<std::string>(
      names, [parse, store](const std::string& text) { store(parse(text)); }, help);
  option->type_name(preset.empty() ? type : fmt::format("{} [{}]", type, preset));
  return option;
}

// A program that is started without standard streams must not write into the first sockets that it
// opens.
void keep_standard_descriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    if (::fcntl(fd, F_GETFD) < 0) (void)!::open("/dev/null", O_RDWR);
}

int parse_and_run(CLI::App& app, int argc, char** argv, const std::function<int()>& main) {
  try {
    app.parse(argc, argv);
    return main();
  } catch (const CLI::Success& success) {
    std::ostringstream out, err;
    const int status = app.exit(success, out, err);
    standard_output().write(out.str(), Output::Kind::kResult);
    return status;
  } catch (const CLI::Error& error) {
    complain(error.what());
    return kExitUsage;
  } catch (const NotDone& error) {
    complain(error.what());
    return kExitFailure;
  } catch (const std::exception& error) {
    complain(error.what());
    return kExitNotStarted;
  }
}

}  // namespace

std::string format_address(uint32_t address) {
  return fmt::format("{}.{}.{}.{}", address >> 24, address >> 16 & 255, address >> 8 & 255,
                     address & 255);
}

std::string format_endpoint(const Endpoint& endpoint) {
  return fmt::format("{}:{}", format_address(endpoint.address), endpoint.port);
}

uint32_t parse_address(const std::string& text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) refuse("not an IPv4 address", text);
  return ntohl(address.s_addr);
}

uint32_t parse_interface(const std::string& text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) == 1) return ntohl(address.s_addr);
  const std::optional<uint32_t> own = address_of_interface(text);
  if (!own) refuse("neither an IPv4 address nor an interface that has one", text);
  return *own;
}

std::vector<uint32_t> parse_addresses(const std::string& text) {
  std::vector<uint32_t> addresses;
  for (size_t start = 0; start <= text.size();) {
    const size_t end = std::min(text.find(',', start), text.size());
    const uint32_t address = parse_address(text.substr(start, end - start));
    if (std::find(addresses.begin(), addresses.end(), address) == addresses.end())
      addresses.push_back(address);
    start = end + 1;
  }
  return addresses;
}

std::string message_bytes(const std::string& argument) {
  if (argument.empty() || argument.front() != '@') return argument;
  std::ifstream file(argument.substr(1), std::ios::binary);
  if (!file) throw std::runtime_error(fmt::format("'{}' cannot be read", argument.substr(1)));
  return {std::istreambuf_iterator<char>(file), {}};
}

uint16_t parse_port(const std::string& text) {
  uint16_t port = 0;
  if (!parse_number(text, port) || port == 0) refuse("not a port from 1 to 65535", text);
  return port;
}

Endpoint parse_group(const std::string& text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos) refuse("not GROUP:PORT", text);
  const Endpoint group{parse_address(text.substr(0, colon)), parse_port(text.substr(colon + 1))};
  constexpr uint32_t kMulticast = 0xE;  // 224.0.0.0/4
  if (group.address >> 28 != kMulticast) refuse("not a multicast group", text);
  return group;
}

Endpoint parse_endpoint(const std::string& text) {
  constexpr uint32_t kLoopback = 0x7F000001;
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos) return {kLoopback, parse_port(text)};
  return {parse_address(text.substr(0, colon)), parse_port(text.substr(colon + 1))};
}

std::string version() {
  return PKGDIST_VERSION;
}

Location parse_location(const std::string& text) {
  Location location;
  const size_t equals = text.find('=');
  if (equals == std::string::npos || !parse_number(text.substr(0, equals), location.number) ||
      location.number == 0 || location.number > kLocations || equals + 1 == text.size())
    refuse("not N=DIR with N from 1 to 6", text);
  location.path = text.substr(equals + 1);
  location.memory = location.path.rfind(kMemoryPrefix, 0) == 0;
  if (location.memory) location.path.erase(0, std::string(kMemoryPrefix).size());
  return location;
}

void add_common_options(CLI::App& app, CommonOptions& options, bool memory) {
  CommonOptions* o = &options;
  add_parsed(app, "--interface", "own IPv4 address, or the interface that has it", "ADDR|NAME", "",
             parse_interface, [o](uint32_t address) { o->interface = address; })
      ->required();
  add_parsed(app, "--ctrl-group", "multicast group of the control channel", "GROUP:PORT",
             format_endpoint(options.ctrl_group), parse_group,
             [o](Endpoint group) { o->ctrl_group = group; });
  add_parsed(app, "--data-group", "multicast group of the data channel", "GROUP:PORT",
             format_endpoint(options.data_group), parse_group,
             [o](Endpoint group) { o->data_group = group; });
  add_parsed(app, "--lead-port", "the lead's control port", "PORT",
             std::to_string(options.lead_port), parse_port,
             [o](uint16_t port) { o->lead_port = port; });
  add_parsed(app, "--node-port", "the nodes' control port", "PORT",
             std::to_string(options.node_port), parse_port,
             [o](uint16_t port) { o->node_port = port; });
  add_parsed(app, "--req-port", "the lead's port for data requests", "PORT",
             std::to_string(options.req_port), parse_port,
             [o](uint16_t port) { o->req_port = port; });
  app.add_option_function<std::vector<std::string>>(
         "--location",
         [o, memory](const std::vector<std::string>& texts) {
           for (const std::string& text : texts) {
             const Location location = parse_location(text);
             if (location.memory && !memory) refuse("not a directory", text);
             o->locations[location.number] = location;
           }
         },
         memory ? "storage location N, a directory or mem:/PREFIX (repeatable)"
                : "content root of storage location N (repeatable)")
      ->type_name("N=DIR")
      ->allow_extra_args(false);
  app.add_flag("--json", options.json, "one JSON object per event instead of lines for people");
  app.add_flag("-v", options.verbosity, "tell more (repeatable)");
  app.set_version_flag("--version", version());
}

// For the help of programs that have no more to say about it.
constexpr const char* kExitStatusHelp =
    "Exit status: 0 done; 1 not done, or not all of it; 2 an argument is wrong;\n"
    "3 nothing could be started.";

int run_cli(CLI::App& app, int argc, char** argv, const std::function<int()>& main, int failure) {
  keep_standard_descriptors();
  set_program_name(app.get_name());
  if (app.get_footer().empty()) app.footer(kExitStatusHelp);
  watch_stop_signals(app.get_name(), failure);
  const int status = parse_and_run(app, argc, argv, main);
  return finish_output(status, failure);
}

}  // namespace pkgdist::cli
