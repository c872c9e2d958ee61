// Rule for a way on which something is missing: nothing is said before three probes should have
// come, a way on which none came is blocked, and one that carries short probes but none of the
// full length has too small an MTU.
#include "network_checks.h"

#include <fmt/core.h>

#include <cstring>
#include <set>

namespace pkgdist::doctor {

namespace {

using cli::format_address;

constexpr uint64_t kEnoughProbes = 3;
// A datagram or two may be on the way when the counts are compared.
constexpr uint64_t kOnTheWay = 2;
constexpr double kTolerableLoss = 0.02;
// Queriers ask every 125 s unless told otherwise.
constexpr double kQueryInterval = 125;

std::string endpoint_text(cli::Endpoint endpoint) {
  return fmt::format("{}:{}", format_address(endpoint.address), endpoint.port);
}

// One way from a sender to a receiver, seen from either end.
struct Way {
  Path path;
  bool incoming;
  uint64_t expected;
  uint64_t heard;

  bool known() const { return expected >= kEnoughProbes; }
  bool silent() const { return known() && heard == 0; }
  double loss() const {
    const uint64_t arrived = heard + kOnTheWay;
    return arrived >= expected ? 0
                               : 1 - static_cast<double>(arrived) / static_cast<double>(expected);
  }
};

class NetworkReport {
 public:
  NetworkReport(const NetworkEvidence& evidence, Findings& findings)
      : e_(evidence), common_(evidence.options.common), findings_(findings) {}

  void tell() {
    deaf_ways();
    sending();
    size_t heard = 0;
    for (const Peer& peer : e_.talk.peers()) heard += other_side(peer) && peer.first != 0 ? 1 : 0;
    if (heard == 0 && e_.options.peers.empty()) nobody();
    for (const Peer& peer : e_.talk.peers())
      if (other_side(peer)) ways_of(peer);
    filter();
    leads();
    duplicates();
    querier();
  }

 private:
  bool is_lead() const { return e_.options.role == Role::kLead; }
  bool other_side(const Peer& peer) const { return peer.role != e_.options.role; }
  static const char* name_of(const Peer& peer) { return role_name(peer.role); }

  std::vector<Path> incoming_paths() const {
    if (is_lead()) return {kControl, kUnicast, kUnicastFull, kRequest};
    return {kControl, kControlFull, kData, kDataFull, kUnicast, kUnicastFull};
  }
  std::vector<Path> outgoing_paths() const {
    if (!is_lead()) return {kControl, kUnicast, kUnicastFull, kRequest};
    return {kControl, kControlFull, kData, kDataFull, kUnicast, kUnicastFull};
  }

  // Where the datagrams of a path go, for people.
  std::string place(Path path, bool to_lead) const {
    switch (path) {
      case kControl:
      case kControlFull:
        return endpoint_text(common_.ctrl_group);
      case kData:
      case kDataFull:
        return endpoint_text(common_.data_group);
      case kRequest:
        return fmt::format("port {}", common_.req_port);
      default:
        return fmt::format("port {}", to_lead ? common_.lead_port : common_.node_port);
    }
  }

  void problem(const char* check, const std::string& what, const std::string& why,
               const std::string& mend) {
    findings_.add({Level::kProblem, check, what, why, mend});
  }

  void deaf_ways() {
    std::set<std::string> told;
    for (const Path path : incoming_paths()) {
      const std::string& reason = e_.talk.deaf(path);
      if (!reason.empty() && told.insert(reason).second)
        findings_.note("ports",
                       fmt::format("{} was not checked: {}", place(path, is_lead()), reason),
                       "end it for the time of the examination");
    }
  }

  void sending() {
    for (const Path path : outgoing_paths()) {
      const int error = e_.talk.send_error(path);
      if (error == 0 || (path >= kGroupPaths && error == ENETUNREACH)) continue;  // see check_route
      const std::string to = place(path, !is_lead());
      if (error == EMSGSIZE)
        problem("mtu", fmt::format("1,472 bytes to {} do not fit a packet", to),
                "the longest datagrams have this length; cut in two, each loss costs both parts",
                fmt::format("ip link set dev {} mtu 1500", e_.interface.name));
      else
        problem("send", fmt::format("sending to {}: {}", to, std::strerror(error)),
                error == EPERM ? "this host's packet filter refuses it" : "nothing goes out",
                error == EPERM
                    ? "nft list ruleset; accept UDP to this port in the output chain"
                    : fmt::format("ip route get {}", format_address(common_.ctrl_group.address)));
    }
  }

  void nobody() {
    findings_.add({Level::kWarning, "network", "no doctor of the other side was heard",
                   "whether multicast passes can only be told with one at each end",
                   is_lead() ? "pkgdist-doctor --interface ADDR node, on a node at the same time; "
                               "--wait 60 gives time to start it"
                             : "pkgdist-doctor --interface ADDR lead, on the lead at the same "
                               "time; --wait 60 gives time to start it"});
  }

  void ways_of(const Peer& peer) {
    const std::string who = fmt::format("{} {}", name_of(peer), format_address(peer.address));
    if (peer.first == 0) {
      problem("network", fmt::format("nothing was heard of {}", who),
              "no datagram of it came, neither to a group nor to this host's own ports",
              fmt::format("look whether its doctor runs; ping {}; then the packet filters and "
                          "switches between",
                          format_address(peer.address)));
      return;
    }
    bool good = true;
    size_t ways = 0;
    const Counts expected = peer.expected();
    for (const Path path : incoming_paths())
      if (e_.talk.deaf(path).empty())
        good = judge(who, {path, true, expected[path], peer.heard[path]},
                     peer.heard[short_of(path)] != 0, ways) &&
               good;
    for (const Path path : outgoing_paths())
      if ((peer.listens >> path & 1) != 0 && peer.told)
        good = judge(who, {path, false, peer.tally.expected[path], peer.tally.heard[path]},
                     peer.tally.heard[short_of(path)] != 0, ways) &&
               good;
    if (!peer.told) good = judge_untold(who);
    if (good)
      findings_.ok("network",
                   fmt::format("probes pass between here and {} on all {} ways", who, ways));
    if (peer.source != 0)
      findings_.add({Level::kWarning, "route",
                     fmt::format("datagrams of {} come from {}", who, format_address(peer.source)),
                     "it answers by another interface than the one that pkgdist was told",
                     "ip route get " + format_address(common_.interface) + ", there"});
  }

  // The same way with short probes.
  static Path short_of(Path path) {
    return path == kControlFull   ? kControl
           : path == kDataFull    ? kData
           : path == kUnicastFull ? kUnicast
                                  : path;
  }

  bool judge_untold(const std::string& who) {
    problem("network", fmt::format("{} is heard here, but has not heard this host", who),
            "what goes one way only is of no use: every file needs answers",
            "look at its own findings; the packet filter there: nft list ruleset");
    return false;
  }

  // False when there is something to say.
  bool judge(const std::string& who, const Way& way, bool short_ones_come, size_t& ways) {
    ++ways;
    const bool full = short_of(way.path) != way.path;
    const std::string to = place(way.path, way.incoming == is_lead());
    const std::string route =
        way.incoming ? fmt::format("of {} to {}", who, to) : fmt::format("to {} of {}", to, who);
    if (way.silent() && full && short_ones_come) {
      problem("mtu",
              fmt::format("short probes {} come, none of {} with 1,472 bytes", route, way.expected),
              "most of pkgdist's datagrams are as long: no file would arrive",
              fmt::format("ip link set dev {} mtu 1500, here, there and on the switches between",
                          e_.interface.name));
      return false;
    }
    if (way.silent() && full) return false;  // the short ones have told it
    if (way.silent()) {
      silent(way, route);
      return false;
    }
    if (!way.known() || way.loss() <= kTolerableLoss) return true;
    findings_.add(
        {Level::kWarning, "loss",
         fmt::format("{} of {} probes {} were lost", way.expected - way.heard, way.expected, route),
         "each loss is repaired, which takes time",
         fmt::format("ip -s link show {}; nstat -az UdpRcvbufErrors, on the receiver",
                     e_.interface.name)});
    return false;
  }

  void silent(const Way& way, const std::string& route) {
    const bool group = way.path < kGroupPaths;
    problem(group ? "multicast" : "unicast",
            fmt::format("none of {} probes {} came", way.expected, route),
            group
                ? "the rest of the network works, so multicast is dropped on the way: by a packet "
                  "filter, or by a switch that snoops on IGMP without a querier"
                : "answers and repairs would be lost: a packet filter drops them",
            fmt::format("{}nft list ruleset; nft insert rule inet filter input udp dport {} accept",
                        way.incoming ? "" : "there: ",
                        way.path == kControl || way.path == kControlFull ? common_.ctrl_group.port
                        : way.path == kData || way.path == kDataFull     ? common_.data_group.port
                        : way.path == kRequest                           ? common_.req_port
                        : way.incoming == is_lead()                      ? common_.lead_port
                                                                         : common_.node_port));
  }

  // --- This host's packet filter ---

  void filter() {
    if (!e_.filter_after.readable()) {
      findings_.note("filter", "the packet filter was not checked: its rules cannot be read",
                     "run as root, with nft or iptables-save installed");
      return;
    }
    const std::vector<std::string> counted = e_.filter_after.counted_since(e_.filter_before);
    for (const std::string& rule : counted)
      findings_.add({Level::kWarning, "filter",
                     fmt::format("this rule has dropped packets meanwhile: {}", rule),
                     "they may have been pkgdist's",
                     "nft -a list ruleset; then nft delete rule FAMILY TABLE CHAIN handle N"});
    if (!counted.empty()) return;
    const size_t rules = e_.filter_after.drops().size();
    if (rules == 0)
      findings_.ok("filter", "this host's packet filter drops nothing");
    else
      findings_.note("filter", fmt::format("{} rules of this host's packet filter may drop, none "
                                           "with a counter that has grown; the first: {}",
                                           rules, e_.filter_after.drops()[0]));
  }

  // --- Leads ---

  void leads() {
    if (!e_.talk.deaf(kControl).empty()) return;
    std::set<uint32_t> addresses;
    for (const auto& [key, lead] : e_.talk.leads()) addresses.insert(lead.address);
    std::string list;
    for (const auto& [key, lead] : e_.talk.leads())
      list += fmt::format("{}{} (process {})", list.empty() ? "" : ", ",
                          format_address(lead.address), lead.pid);
    const bool foreign =
        is_lead() ? addresses.size() > addresses.count(common_.interface) : addresses.size() > 1;
    if (foreign)
      problem("lead", fmt::format("leads are heard on the control group: {}", list),
              "nodes follow one lead; another one stands by, or pushes to nobody",
              "end one, or give one of them other groups: --ctrl-group, --data-group");
    else if (!list.empty())
      findings_.ok("lead", fmt::format("one lead is heard: {}", list));
    else
      findings_.ok("lead", fmt::format("no{} lead was heard in {:.0f} s", is_lead() ? " other" : "",
                                       e_.talk.seconds()));
  }

  // --- Addresses ---

  void duplicates() {
    const std::string own = format_address(common_.interface);
    const char* why = "the lead takes both for one that is started again and again";
    if (!e_.watch.duplicate().empty())
      problem("address", fmt::format("another host, {}, has {} too", e_.watch.duplicate(), own),
              why, "ip neighbour, on a third host, and the switch's table say where it is");
    if (e_.talk.another_of_us())
      problem("address",
              fmt::format("another doctor runs as {} with {}", role_name(e_.options.role), own),
              why, "find the host that has this address too, and change it");
    if (e_.watch.duplicate().empty() && !e_.talk.another_of_us()) {
      if (e_.watch.obstacle().empty())
        findings_.ok("address", fmt::format("no other host answers for {}", own));
      else
        findings_.note("address", "whether another host has this address was not checked: " +
                                      e_.watch.obstacle());
    }
    two_at_one_address();
  }

  void two_at_one_address() {
    const std::vector<Peer>& peers = e_.talk.peers();
    for (size_t i = 0; i < peers.size(); ++i)
      for (size_t k = i + 1; k < peers.size(); ++k) {
        const Peer &a = peers[i], &b = peers[k];
        // One after the other would be a doctor that was started twice.
        if (a.address != b.address || a.role != b.role || a.first == 0 || b.first == 0 ||
            std::min(a.last, b.last) <= std::max(a.first, b.first))
          continue;
        problem("address",
                fmt::format("two {}s have {}: processes {} and {} answer at the same time",
                            name_of(a), format_address(a.address), a.pid, b.pid),
                "the lead takes both for one that is started again and again",
                "ip neighbour, and the switch's table say where they are");
      }
  }

  void querier() {
    if (!e_.watch.obstacle().empty()) {
      findings_.note("querier",
                     "whether there is an IGMP querier was not checked: " + e_.watch.obstacle());
    } else if (e_.watch.querier()) {
      findings_.ok("querier", fmt::format("an IGMP querier was heard, {}",
                                          format_address(*e_.watch.querier())));
    } else if (e_.talk.seconds() < kQueryInterval) {
      findings_.note("querier",
                     fmt::format("no IGMP querier was heard in {:.0f} s; it may have been silent. "
                                 "Switches that snoop on IGMP need one",
                                 e_.talk.seconds()),
                     "--seconds 130 makes sure");
    } else {
      findings_.add({Level::kWarning, "querier",
                     fmt::format("no IGMP querier was heard in {:.0f} s", e_.talk.seconds()),
                     "switches that snoop on IGMP stop forwarding the groups after some minutes",
                     "turn on the querier of a switch, or snooping off"});
    }
  }

  const NetworkEvidence& e_;
  const cli::CommonOptions& common_;
  Findings& findings_;
};

}  // namespace

void check_network(const NetworkEvidence& evidence, Findings& findings) {
  NetworkReport(evidence, findings).tell();
}

void check_membership(const DoctorOptions& options, const Interface& interface,
                      const Conversation& talk, Findings& findings) {
  for (const bool data : {false, true}) {
    if (data && options.role == Role::kLead) continue;  // a lead joins the control group alone
    const cli::Endpoint group = data ? options.common.data_group : options.common.ctrl_group;
    const std::string name = format_address(group.address);
    if (!talk.join_error(data).empty())
      findings.add({Level::kProblem, "groups", talk.join_error(data),
                    "nothing that is sent to the group arrives",
                    "sysctl net.ipv4.igmp_max_memberships; ip maddress show"});
    else if (!talk.deaf(data ? kData : kControl).empty())
      continue;  // told as a port that is in use
    else if (kernel_has_group(interface.name, group.address))
      findings.ok("groups", fmt::format("the kernel has joined {} on {}", name, interface.name));
    else
      findings.add({Level::kProblem, "groups",
                    fmt::format("the kernel does not list {} for {}", name, interface.name),
                    "it takes nothing in that is sent to the group", "cat /proc/net/igmp"});
  }
}

}  // namespace pkgdist::doctor
