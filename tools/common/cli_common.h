// Option types and common options of the programs. Every parser throws CLI::ValidationError with a
// text that names the value, which run_cli() prints as one line.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "pkgdist/defaults.h"

namespace CLI {
class App;  // the header is a large one: who builds an App includes it
}

namespace pkgdist::cli {

// Exit statuses of all programs.
inline constexpr int kExitOk = 0;          // done
inline constexpr int kExitFailure = 1;     // not done, or not all of it
inline constexpr int kExitUsage = 2;       // an argument is wrong
inline constexpr int kExitNotStarted = 3;  // nothing could be started

// Thrown when something was begun and not done; other exceptions mean that nothing was begun.
struct NotDone : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// "10.0.0.1" for the address in host byte order, and back.
std::string format_address(uint32_t address);
uint32_t parse_address(const std::string& text);
// The same, or the address of an interface of this name.
uint32_t parse_interface(const std::string& text);
uint16_t parse_port(const std::string& text);

// "10.0.0.2,10.0.0.3", each address once.
std::vector<uint32_t> parse_addresses(const std::string& text);

struct Endpoint {
  uint32_t address = 0;  // host byte order
  uint16_t port = 0;
};
// "239.255.71.1:7100"; the address must be a multicast group.
Endpoint parse_group(const std::string& text);
std::string format_endpoint(const Endpoint& endpoint);
// "192.0.2.1:9471" or "9471": where to listen, on 127.0.0.1 when there is only a port.
Endpoint parse_endpoint(const std::string& text);

std::string version();

// Where the files of a storage location are: a directory, or names with a prefix in shared memory.
struct Location {
  uint32_t number = 0;
  std::string path;
  bool memory = false;
};
// "N=DIR" or "N=mem:/prefix".
Location parse_location(const std::string& text);

struct CommonOptions {
  uint32_t interface = 0;
  Endpoint ctrl_group{PKGDIST_DEFAULT_CONTROL_GROUP, PKGDIST_DEFAULT_CONTROL_PORT};
  Endpoint data_group{PKGDIST_DEFAULT_DATA_GROUP, PKGDIST_DEFAULT_DATA_PORT};
  uint16_t lead_port = PKGDIST_DEFAULT_LEAD_PORT;
  uint16_t node_port = PKGDIST_DEFAULT_NODE_PORT;
  uint16_t req_port = PKGDIST_DEFAULT_REQUEST_PORT;
  std::map<uint32_t, Location> locations;
  bool json = false;
  int verbosity = 0;
};

// The bytes of a message argument: a text, or the content of FILE for "@FILE". Throws
// std::runtime_error when the file cannot be read.
std::string message_bytes(const std::string& argument);

// Adds the options to a program. `memory`: locations in shared memory are allowed.
void add_common_options(CLI::App& app, CommonOptions& options, bool memory);

// Parses, then calls `main`, whose result is the exit status. --help and --version end with 0,
// usage errors with kExitUsage and one line, NotDone with kExitFailure, other exceptions with
// kExitNotStarted and one line. Ends when
// all output is written; with `failure` instead of 0 when it could not be (output.h), and when a
// stop signal did not end the program in time (stop_signals.h).
int run_cli(CLI::App& app, int argc, char** argv, const std::function<int()>& main,
            int failure = kExitFailure);

}  // namespace pkgdist::cli
