#include "node_options.h"

#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>

#include "manifest.h"
#include "refusal.h"
#include "signatures.h"

namespace pkgdist::node_program {

namespace {

constexpr double kLongestTimeoutSeconds = 1e6;

void parse_node_id(const std::string& text, NodeOptions& options) {
  char rest = 0;
  uint32_t* id = options.node_id;
  if (std::sscanf(text.c_str(), "%3u/%3u/%3u%c", &id[0], &id[1], &id[2], &rest) != 3 ||
      id[0] > 255 || id[1] > 255 || id[2] > 255)
    throw CLI::ValidationError(fmt::format("--node-id: not A/B/C with 0 to 255 each: '{}'", text));
  options.node_id_given = true;
}

uint32_t parse_umask(const std::string& text) {
  constexpr uint32_t kMost = 0777;
  constexpr int kOctal = 8;
  uint32_t mask = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, mask, kOctal);
  if (result.ec != std::errc() || result.ptr != end || mask > kMost)
    throw CLI::ValidationError(fmt::format("--umask: not an octal number up to 777: '{}'", text));
  return mask;
}

// "NAME=DIR", or "2:NAME=DIR" for another location than 1.
void parse_releases(const std::string& text, ReleaseOptions& options) {
  constexpr uint32_t kLastLocation = 6;
  const size_t equals = text.find('=');
  const std::string head = text.substr(0, equals);
  const size_t colon = head.find(':');
  const size_t start = colon == std::string::npos ? 0 : colon + 1;
  bool good = equals != std::string::npos && equals + 1 < text.size() && start < head.size();
  if (start != 0) {
    const auto result = std::from_chars(head.data(), head.data() + colon, options.location);
    good = good && result.ec == std::errc() && result.ptr == head.data() + colon &&
           options.location >= 1 && options.location <= kLastLocation;
  }
  if (!good)
    throw CLI::ValidationError(
        fmt::format("--releases: not NAME=DIR or N:NAME=DIR with N from 1 to 6: '{}'", text));
  options.name = head.substr(start);
  options.place = text.substr(equals + 1);
  try {
    release::check_name(options.name);
  } catch (const release::Refused& refused) {
    throw CLI::ValidationError(fmt::format("--releases: {}", refused.what()));
  }
}

void add_timeout(CLI::App& command, NodeOptions& options, const std::string& help) {
  command.add_option("--timeout", options.timeout_seconds, help)
      ->type_name("SECONDS [60]")
      ->check(CLI::Range(0.1, kLongestTimeoutSeconds));
}

// What makes the node take signed releases and nothing else.
void add_release_mode(CLI::App& run, ReleaseOptions& options) {
  CLI::Option* releases = run.add_option_function<std::string>(
      "--releases", [&options](const std::string& text) { parse_releases(text, options); },
      "take signed releases of this name, nothing else, and install them in this directory");
  releases->type_name("[N:]NAME=DIR");
  CLI::Option* keys =
      run.add_option("--keys", options.keys,
                     "public key of minisign, or a directory of which all NAME.pub are trusted");
  keys->type_name("FILE|DIR");
  releases->needs(keys);
  const auto needing = [&](CLI::Option* option) { return option->needs(releases); };
  keys->needs(releases);
  needing(run.add_option("--threshold", options.threshold,
                         "take only what so many of these keys have signed"))
      ->type_name("N [1]")
      ->check(CLI::Range(size_t{1}, release::kMaxSignatures));
  needing(run.add_option("--state", options.state_directory,
                         "where the installed version is remembered; outside of the releases"))
      ->type_name("DIR [/var/lib/pkgdist/release, $STATE_DIRECTORY]");
  needing(run.add_flag("--hardlink", options.hard_links,
                       "releases share unchanged files: for trees that nobody writes"));
  needing(run.add_flag("--enforce-expiry", options.enforce_expiry,
                       "refuse releases that have expired by this host's clock"));
  needing(run.add_option("--health", options.health,
                         "shell command that decides whether an activated release stays; "
                         "PKGDIST_RELEASE_DIRECTORY, _NAME and _VERSION say which it is"))
      ->type_name("COMMAND");
  needing(run.add_option("--health-timeout", options.health_seconds,
                         "how long the command of --health may take"))
      ->type_name("SECONDS [60]")
      ->check(CLI::Range(0.1, 1e6));
}

void add_run(CLI::App& app, NodeOptions& options) {
  CLI::App* run = app.add_subcommand("run", "receive what the lead pushes until told to stop");
  run->fallthrough();
  run->add_option("--repair-interval", options.repair_interval_ms,
                  "time until missing segments are asked for again; grows with each repetition")
      ->type_name("MS [100]")
      ->check(CLI::Range(20, 10'000));
  cli::add_runner_options(*run, options.on_message,
                          "shell command to run for each message of the lead; the message is its "
                          "standard input, PKGDIST_MESSAGE_CLASS its class");
  cli::add_completion_options(
      *run, options.on_complete,
      "shell command to run when a push has ended; PKGDIST_NAMES_FILE is a file with the names of "
      "what this node has of it, each with a zero byte behind it, PKGDIST_STATUS is 0 when that is "
      "everything, otherwise 1, PKGDIST_TRANSACTION and PKGDIST_LOCATION are numbers");
  run->add_option(
         "--push-keys", options.push_keys,
         "what 'push --checksum' compares must be signed by such a public key of minisign, "
         "or one of a directory")
      ->type_name("FILE|DIR");
  add_release_mode(*run, options.releases);
  run->callback([&options] { options.command = Command::kRun; });
}

void add_get(CLI::App& app, NodeOptions& options) {
  CLI::App* get = app.add_subcommand("get", "ask the lead for files and wait for them");
  get->fallthrough();
  get->add_option("PATH", options.paths, "names relative to the storage location")->required();
  get->add_option("--to", options.location, "storage location")
      ->type_name("N [1]")
      ->check(CLI::Range(1, 6));
  get->add_option("--type", options.type, "file type; 6 transfers files that are present too")
      ->type_name("1..11 [1]")
      ->check(CLI::Range(1, 11));
  get->add_option("--priority", options.priority, "1 is the most urgent")
      ->type_name("1..4 [2]")
      ->check(CLI::Range(1, 4));
  add_timeout(*get, options,
              "give up when nothing was heard of the lead, or about the files, for so long");
  get->callback([&options] { options.command = Command::kGet; });
}

void add_send(CLI::App& app, NodeOptions& options) {
  CLI::App* send = app.add_subcommand("send", "send the lead a message and wait for its answer");
  send->fallthrough();
  send->add_option("--class", options.message_class, "message class")
      ->type_name("2..5 [2]")
      ->check(CLI::Range(2, 5));
  send->add_option("MESSAGE", options.message, "the text, or @FILE for the content of a file")
      ->required();
  add_timeout(*send, options, "give up when nothing was heard of the lead for so long");
  send->callback([&options] { options.command = Command::kSend; });
}

void add_status(CLI::App& app, NodeOptions& options) {
  CLI::App* status = app.add_subcommand("status", "show the state of the node of this host");
  status->fallthrough();
  status->callback([&options] { options.command = Command::kStatus; });
}

void add_release(CLI::App& app, NodeOptions& options) {
  CLI::App* release =
      app.add_subcommand("release", "show the state of releases on this host, activate, go back");
  release->fallthrough();
  release->require_subcommand(1);
  const auto add = [&](ReleaseCommand command, const char* help) {
    CLI::App* one =
        release->add_subcommand(kReleaseCommands.at(static_cast<size_t>(command)), help);
    one->fallthrough();
    one->callback([&options, command] {
      options.command = Command::kRelease;
      options.release_command = command;
    });
    return one;
  };
  add(ReleaseCommand::kStatus, "show which release is current, and which is coming");
  add(ReleaseCommand::kActivate, "switch to the release that is ready");
  add(ReleaseCommand::kRollback, "switch to the previous release, when it is as it was signed")
      ->add_flag("--force", options.release_force, "switch although it is not");
  add(ReleaseCommand::kVerify, "read every file of the current release again");
  add(ReleaseCommand::kDowngrade,
      "let this version be installed once, although it is older or has failed")
      ->add_option("VERSION", options.release_version, "version")
      ->required()
      ->check(CLI::PositiveNumber);
}

void add_firewall(CLI::App& app, NodeOptions& options) {
  CLI::App* firewall = app.add_subcommand(
      "firewall", "print rules for nft by which only these leads reach this host's node");
  firewall->fallthrough();
  firewall
      ->add_option_function<std::string>(
          "--lead",
          [&options](const std::string& text) { options.leads = cli::parse_addresses(text); },
          "addresses of the leads, standbys among them")
      ->required()
      ->type_name("ADDR[,ADDR...]");
  firewall->callback([&options] { options.command = Command::kFirewall; });
}

}  // namespace

std::array<uint32_t, 3> node_id_of(const NodeOptions& options) {
  if (options.node_id_given) return {options.node_id[0], options.node_id[1], options.node_id[2]};
  const uint32_t address = options.common.interface;
  return {address >> 16 & 255, address >> 8 & 255, address & 255};
}

void add_node_options(CLI::App& app, NodeOptions& options) {
  cli::add_common_options(app, options.common, true);
  app.add_option_function<std::string>(
         "--node-id", [&options](const std::string& text) { parse_node_id(text, options); },
         "identity of this node")
      ->type_name("A/B/C [from the address]");
  app.add_option("--card-class", options.card_class, "class of this node's card")
      ->type_name("K [3]");
  app.add_option_function<std::string>(
         "--umask", [&options](const std::string& text) { options.umask = parse_umask(text); },
         "permissions that received files and their directories do not get")
      ->type_name("OCTAL [022]");
  app.add_flag("--allow-setuid", options.allow_setuid,
               "files may get set-user-ID, set-group-ID and sticky bits");
  app.add_option("--control", options.control_path,
                 "socket through which a running node takes commands")
      ->type_name("PATH [by address and port]");
  app.require_subcommand(1);
  app.fallthrough();
  add_run(app, options);
  add_get(app, options);
  add_send(app, options);
  add_status(app, options);
  add_release(app, options);
  add_firewall(app, options);
}

}  // namespace pkgdist::node_program
