#include "lead_options.h"

#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <map>

#include "option_parts.h"

namespace pkgdist::lead_program {

namespace {

constexpr double kBitsPerMegabit = 1e6;
// Options of a push of which its description has the meaning, or that are none of its matter.
const std::vector<std::string> kToldOfPush{"--interface", "--ctrl-group", "--data-group",
                                           "--location",  "--to",         "--nodes",
                                           "--json",      "--control"};
const std::map<std::string, lead::SlowNodes> kSlowNodes{{"wait", lead::SlowNodes::kWait},
                                                        {"drop", lead::SlowNodes::kDrop},
                                                        {"after", lead::SlowNodes::kAfter}};

// "500M", "2.5G", "800K" in bits per second; a number alone is in Mbit/s.
uint64_t parse_rate(const std::string& text) {
  if (text == "auto") return 0;
  static const std::map<char, double> kUnits{{'K', 1e3}, {'M', 1e6}, {'G', 1e9}};
  constexpr double kLeast = 1e4, kMost = 1e12;  // bits per second
  const auto unit = text.empty() ? kUnits.end() : kUnits.find(text.back());
  const std::string number = unit == kUnits.end() ? text : text.substr(0, text.size() - 1);
  double value = 0;
  const bool numeric = CLI::detail::lexical_cast(number, value) && std::isfinite(value);
  const double bits = value * (unit == kUnits.end() ? kBitsPerMegabit : unit->second);
  if (!numeric || bits < kLeast || bits > kMost)
    throw CLI::ValidationError(
        fmt::format("not a rate like 500M or 2.5G, in Mbit/s, or 'auto': '{}'", text));
  return static_cast<uint64_t>(bits);
}

void add_stream_options(CLI::App& command, LeadOptions& options) {
  LeadOptions* o = &options;
  command
      .add_option_function<std::string>(
          "--rate", [o](const std::string& text) { o->rate_bits = parse_rate(text); },
          "rate of the data stream: 500M, 2.5G, a number for Mbit/s, or 'auto': as fast as the "
          "nodes "
          "take it")
      ->type_name("RATE [auto]");
  command
      .add_option_function<std::string>(
          "--max-rate", [o](const std::string& text) { o->max_rate_bits = parse_rate(text); },
          "never send faster than this; if both are given, --rate applies")
      ->type_name("RATE");
  command
      .add_option("--timeout", options.timeout_seconds,
                  "how long to wait for the next absent node, or a silent one, and a push for "
                  "another lead to end")
      ->type_name("SECONDS [30]")
      ->check(CLI::Range(0.1, 1e6));
  command
      .add_option_function<std::string>(
          "--metrics", [o](const std::string& text) { o->metrics = cli::parse_endpoint(text); },
          "serve numbers for Prometheus over HTTP at /metrics; ADDR is 127.0.0.1 unless given")
      ->type_name("[ADDR:]PORT");
  command.add_option("--ttl", options.ttl, "routers that the multicast may pass, plus one")
      ->type_name("N [1]")
      ->check(CLI::Range(1, 255));
  command.add_flag("--multi-homed", options.multi_homed,
                   "nodes send from other addresses than their --interface: take the address that "
                   "their datagrams name");
}

// What of the content travels.
void add_selection(CLI::App& push, LeadOptions& options) {
  push.add_option("--exclude", options.filter.exclude,
                  "leave out names that match this pattern of the shell, and what is in such "
                  "directories (repeatable)")
      ->type_name("PATTERN")
      ->allow_extra_args(false);
  push.add_option("--include", options.filter.include,
                  "but not those that match this one (repeatable)")
      ->type_name("PATTERN")
      ->allow_extra_args(false);
  push.add_option("--files-from", options.files_from,
                  "also the paths in this file, one in a line; - for standard input")
      ->type_name("FILE");
  push.add_flag("--delete", options.mirror,
                "when a node has everything, remove there what the lead does not have in the "
                "directories of the push; what --exclude leaves out stays");
  push.add_flag("--dry-run", options.dry_run,
                "send nothing, tell what would travel, and with --delete what would be removed; -v "
                "names it");
  push.add_flag("--quiet", options.quiet, "tell nothing but what went wrong");
  push.add_option("PATH", options.paths, "files or directories below the location's root");
}

void add_push(CLI::App& app, LeadOptions& options) {
  LeadOptions* o = &options;
  CLI::App* push = app.add_subcommand("push", "bring files to every node");
  push->fallthrough();
  push->footer(kNodesHelp);
  push->add_option_function<std::string>(
          "--nodes", [o](const std::string& text) { set_nodes(*o, parse_node_list(text)); },
          "which nodes, or how many to wait for: then every host that answers counts")
      ->required()
      ->type_name("N|NODE[,NODE...]");
  push->add_option("--name", options.push_name, "what the push is called in lists and by 'cancel'")
      ->type_name("NAME [its paths]");
  CLI::Option* type = push->add_option("--type", options.type, "file type")
                          ->type_name("1..11 [1]")
                          ->check(CLI::Range(1, 11));
  push->add_flag_callback(
          "--force", [o] { o->type = kTypeOfPresentFiles; },
          "send files that are present on the nodes, too; like --type 6")
      ->excludes(type);
  push->add_option("--priority", options.priority, "1 is the most urgent")
      ->type_name("1..4 [2]")
      ->check(CLI::Range(1, 4));
  add_location(*push, options);
  push->add_option("--max-time", options.max_seconds,
                   "end the push after so many seconds, whatever is left")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 1e7));
  push->add_option_function<std::string>(
          "--slow-nodes", [o](const std::string& text) { o->slow_nodes = kSlowNodes.at(text); },
          "a node at less than half the pace of the others: wait for it, drop it, or "
          "serve it after them")
      ->type_name("wait|drop|after [wait]")
      ->check(CLI::IsMember(kSlowNodes).description(""));
  push->add_flag("--durable", options.durable,
                 "end only when the nodes have written what they received to their disks");
  push->add_option("--durable-timeout", options.durable_seconds,
                   "how long a node may say nothing while it writes")
      ->type_name("SECONDS [60]")
      ->check(CLI::Range(0.1, 1e6));
  CLI::Option* checksum =
      push->add_flag("--checksum", options.checksum,
                     "nodes compare the content of every file of the push, those too that they "
                     "had, and receive again what differs");
  push->add_option("--checksum-key", options.checksum_key,
                   "sign what they compare with this secret key of minisign, without a password")
      ->type_name("FILE")
      ->needs(checksum);
  push->add_flag("--keep-directory-links", options.keep_directory_links,
                 "a link or file on a node stays where the tree has a directory, and links are "
                 "written through");
  push->add_flag("--strict", options.strict,
                 "push nothing when something of the tree cannot be sent, instead of the rest");
  push->add_flag("--top", options.top, "show the push full screen (see the command top)");
  add_selection(*push, options);
  add_release_options(*push, options);
  add_stream_options(*push, options);
  push->callback([o, push] {
    check_release_options(*push);
    o->given = given_options(*push, kToldOfPush);
    o->command = Command::kPush;
  });
}

void add_serve(CLI::App& app, LeadOptions& options) {
  LeadOptions* o = &options;
  CLI::App* serve = app.add_subcommand("serve", "answer the nodes' requests until interrupted");
  serve->fallthrough();
  serve->add_flag("--standby", options.standby,
                  "say nothing until other leads have been silent for the time of --takeover");
  serve
      ->add_option("--takeover", options.takeover_seconds,
                   "silence of another lead after which this one leads; nodes need 7.5")
      ->type_name("SECONDS [8]")
      ->check(CLI::Range(7.5, 1e6));
  cli::add_runner_options(
      *serve, options.on_message,
      "shell command to run for each message of a node; the message is its standard input, "
      "PKGDIST_MESSAGE_CLASS its class, PKGDIST_MESSAGE_NODE the node's address");
  add_stream_options(*serve, options);
  serve->callback([o] { o->command = Command::kServe; });
}

// What the commands to a running lead have in common.
void add_request_options(CLI::App& command, LeadOptions& options) {
  LeadOptions* o = &options;
  command.fallthrough();
  command.footer(kNodesHelp);
  command
      .add_option_function<std::string>(
          "--nodes", [o](const std::string& text) { set_nodes(*o, parse_node_names(text)); },
          "only to these nodes")
      ->type_name("NODE[,NODE...]");
  command
      .add_option("--timeout", options.answer_seconds,
                  "how long to wait for the next node's acknowledgement")
      ->type_name("SECONDS [10]")
      ->check(CLI::Range(0.1, 3600.0));
}

void add_requests(CLI::App& app, LeadOptions& options) {
  LeadOptions* o = &options;
  CLI::App* message = app.add_subcommand("message", "send nodes a message through a running lead");
  add_request_options(*message, options);
  message->add_option("--class", options.message_class, "message class")
      ->type_name("2..5 [2]")
      ->check(CLI::Range(2, 5));
  message->add_option("--card-class", options.card_class, "only to nodes of this card class")
      ->type_name("K")
      ->check(CLI::Range(1u, UINT32_MAX))
      ->excludes("--nodes");
  message->add_option("MESSAGE", options.message, "the text, or @FILE for the content of a file")
      ->required();
  message->callback([o] { o->command = Command::kMessage; });

  CLI::App* cancel =
      app.add_subcommand("cancel", "end a push, running or queued, or a transaction on the nodes");
  add_request_options(*cancel, options);
  cancel
      ->add_option("PUSH", options.cancelled,
                   "name or number of a push, or the number of its transaction")
      ->required();
  cancel->callback([o] { o->command = Command::kCancel; });

  CLI::App* remove =
      app.add_subcommand("delete", "delete files on the nodes, through a running lead");
  add_request_options(*remove, options);
  add_location(*remove, options);
  remove->add_flag("-r,--recursive", options.recursive,
                   "delete directories with all that is in them");
  remove
      ->add_option("PATH", options.paths,
                   "names relative to the storage location, without a slash before them")
      ->required();
  remove->callback([o] { o->command = Command::kDelete; });
}

// Lists that a running lead gives.
void add_lists(CLI::App& app, LeadOptions& options) {
  const auto add = [&](const char* name, const char* help, Command command) {
    CLI::App* list = app.add_subcommand(name, help);
    list->fallthrough();
    list->callback([o = &options, command] { o->command = command; });
  };
  add("status", "show the state of the running lead", Command::kStatus);
  add("nodes", "list the nodes that the running lead knows", Command::kNodes);
  add("pushes", "list the pushes of the running lead", Command::kPushes);
}

void add_report(CLI::App& app, LeadOptions& options) {
  LeadOptions* o = &options;
  CLI::App* report =
      app.add_subcommand("report", "make a page about a push of the events that it printed");
  report
      ->add_option("EVENTS", options.events_path,
                   "what 'push --json' has printed; - for standard input")
      ->required();
  report->add_option("-o,--output", options.page_path, "the page")
      ->type_name("FILE.html")
      ->required();
  report->callback([o] { o->command = Command::kReport; });
}

void add_top(CLI::App& app, LeadOptions& options) {
  LeadOptions* o = &options;
  CLI::App* top = app.add_subcommand(
      "top",
      "show full screen the pushes of the lead that runs here, or one from the events that it "
      "prints or has printed");
  top->fallthrough();
  CLI::Option* events =
      top->add_option("EVENTS", options.events_path,
                      "what 'push --json' prints, also while it grows; - for standard input");
  top->add_option("--replay", options.replay_speed,
                  "play the events back, so many times as fast as they came")
      ->type_name("SPEED")
      ->check(CLI::Range(0.01, 1000.0))
      ->needs(events);
  top->callback([o] { o->command = Command::kTop; });
}

}  // namespace

uint32_t require_interface(const LeadOptions& options) {
  if (options.common.interface == 0) throw CLI::RequiredError("--interface");
  return options.common.interface;
}

void add_lead_options(CLI::App& app, LeadOptions& options) {
  app.fallthrough();
  cli::add_common_options(app, options.common, false);
  // Commands to a running lead do without when they are told its socket.
  app.get_option("--interface")->required(false);
  app.add_option("--control", options.control_path,
                 "socket through which a running lead takes commands")
      ->type_name("PATH [by address and port]");
  app.require_subcommand(1);
  add_push(app, options);
  add_serve(app, options);
  add_requests(app, options);
  add_release_commands(app, options);
  add_lists(app, options);
  add_report(app, options);
  add_top(app, options);
}

}  // namespace pkgdist::lead_program
