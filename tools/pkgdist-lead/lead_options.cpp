#include "lead_options.h"

#include <fmt/core.h>

#include <cmath>
#include <map>

namespace pkgdist::lead_program {

namespace {

constexpr double kBitsPerMegabit = 1e6;

// "3", or "10.0.0.2,10.0.0.3".
void parse_nodes(const std::string& text, LeadOptions& options) {
  if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos) {
    options.node_count = text.size() <= 4 ? static_cast<uint32_t>(std::stoul(text)) : 0;
    if (options.node_count == 0)
      throw CLI::ValidationError(fmt::format("--nodes: not a number of nodes: '{}'", text));
    return;
  }
  options.nodes = cli::parse_addresses(text);
}

uint64_t parse_rate(const std::string& text) {
  if (text == "auto") return 0;
  double megabits = 0;
  if (!CLI::detail::lexical_cast(text, megabits) || !std::isfinite(megabits) || megabits < 0.01 ||
      megabits > 1e6)
    throw CLI::ValidationError(fmt::format("not a rate in Mbit/s or 'auto': '{}'", text));
  return static_cast<uint64_t>(megabits * kBitsPerMegabit);
}

void add_stream_options(CLI::App& command, LeadOptions& options) {
  LeadOptions* o = &options;
  command
      .add_option_function<std::string>(
          "--rate", [o](const std::string& text) { o->rate_bits = parse_rate(text); },
          "rate of the data stream, or 'auto': as fast as the nodes take it")
      ->type_name("MBIT [auto]");
  command
      .add_option_function<std::string>(
          "--max-rate", [o](const std::string& text) { o->max_rate_bits = parse_rate(text); },
          "never send faster than this")
      ->type_name("MBIT");
  command
      .add_option("--timeout", options.timeout_seconds,
                  "how long to wait for absent or silent nodes, and a push for another lead to end")
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

CLI::Option* add_location(CLI::App& command, LeadOptions& options) {
  return command.add_option("--to", options.location, "storage location")
      ->type_name("1..6 [1]")
      ->check(CLI::Range(1, 6));
}

void add_push(CLI::App& app, LeadOptions& options) {
  LeadOptions* o = &options;
  CLI::App* push = app.add_subcommand("push", "bring files to every node");
  push->fallthrough();
  push->add_option_function<std::string>(
          "--nodes", [o](const std::string& text) { parse_nodes(text, *o); },
          "how many nodes to wait for, or which nodes")
      ->required()
      ->type_name("N|ADDR[,ADDR...]");
  push->add_option("--name", options.push_name, "what the push is called in lists and by 'cancel'")
      ->type_name("NAME [its paths]");
  push->add_option("--type", options.type, "file type")
      ->type_name("1..11 [1]")
      ->check(CLI::Range(1, 11));
  push->add_option("--priority", options.priority, "1 is the most urgent")
      ->type_name("1..4 [2]")
      ->check(CLI::Range(1, 4));
  add_location(*push, options);
  push->add_option("--max-time", options.max_seconds,
                   "end the push after so many seconds, whatever is left")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 1e7));
  using lead::SlowNodes;
  push->add_option("--slow-nodes", options.slow_nodes,
                   "a node at less than half the pace of the others: wait for it, drop it, or "
                   "serve it after them")
      ->type_name("wait|drop|after [wait]")
      ->transform(
          CLI::CheckedTransformer(std::map<std::string, SlowNodes>{{"wait", SlowNodes::kWait},
                                                                   {"drop", SlowNodes::kDrop},
                                                                   {"after", SlowNodes::kAfter}})
              .description(""));
  push->add_flag("--durable", options.durable,
                 "end only when the nodes have written what they received to their disks");
  push->add_option("--durable-timeout", options.durable_seconds,
                   "how long nodes may take to write it")
      ->type_name("SECONDS [60]")
      ->check(CLI::Range(0.1, 1e6));
  push->add_flag("--keep-directory-links", options.keep_directory_links,
                 "a link or file on a node stays where the tree has a directory, and links are "
                 "written through");
  push->add_flag("--strict", options.strict,
                 "push nothing when something of the tree cannot be sent, instead of the rest");
  push->add_option("PATH", options.paths, "files or directories below the location's root")
      ->required();
  add_stream_options(*push, options);
  push->callback([o] { o->command = Command::kPush; });
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
  command
      .add_option_function<std::string>(
          "--nodes", [o](const std::string& text) { o->nodes = cli::parse_addresses(text); },
          "only to these nodes")
      ->type_name("ADDR[,ADDR...]");
  command
      .add_option("--timeout", options.answer_seconds,
                  "how long to wait for the nodes' acknowledgements")
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
  remove->add_option("PATH", options.paths, "names relative to the storage location")->required();
  remove->callback([o] { o->command = Command::kDelete; });
}

// Lists that a running lead gives.
void add_lists(CLI::App& app, LeadOptions& options) {
  const auto add = [&](const char* name, const char* help, Command command) {
    CLI::App* list = app.add_subcommand(name, help);
    list->fallthrough();
    list->callback([o = &options, command] { o->command = command; });
  };
  add("status", "tell how the running lead stands", Command::kStatus);
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
  add_lists(app, options);
  add_report(app, options);
}

}  // namespace pkgdist::lead_program
