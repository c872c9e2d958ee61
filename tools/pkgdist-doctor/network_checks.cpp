// What the network's findings say; ways.h has what they are told from.
#include "network_checks.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <cstring>
#include <set>

#include "counted.h"
#include "ways.h"

namespace pkgdist::doctor {

namespace {

using cli::format_address;

// Queriers ask every 125 s unless told otherwise.
constexpr double kQueryInterval = 125;
// Hosts that a line for people names; a table or the events have all.
constexpr size_t kNamedHosts = 5;

class NetworkReport {
 public:
  NetworkReport(const NetworkEvidence& evidence, Findings& findings)
      : e_(evidence),
        common_(evidence.options.common),
        ways_(evidence.options, evidence.talk, evidence.blocked),
        findings_(findings) {}

  void tell() {
    deaf_ways();
    sending();
    if (ways_.heard() == 0 && e_.options.peers.empty()) nobody();
    for (const Trouble& trouble : ways_.troubles()) tell_trouble(trouble);
    good_hosts();
    for (const HostLine& line : ways_.hosts()) findings_.add_host(line);
    counted_rules();
    querier();
  }

 private:
  bool is_lead() const { return e_.options.role == Role::kLead; }
  const char* other_role() const { return role_name(is_lead() ? Role::kNode : Role::kLead); }

  // "port 7104", or the group with its port.
  std::string place(Path path, bool to_lead) const {
    const uint16_t port = port_of(common_, path, to_lead);
    if (path >= kGroupPaths) return fmt::format("port {}", port);
    const bool ctrl = path == kControl || path == kControlFull;
    return fmt::format(
        "{}:{}", format_address((ctrl ? common_.ctrl_group : common_.data_group).address), port);
  }

  // Whether what goes this way goes to a lead.
  bool to_lead(bool incoming) const { return incoming == is_lead(); }

  void problem(const char* check, const std::string& what, const std::string& why,
               const std::string& mend) {
    findings_.add({Level::kProblem, check, what, why, mend});
  }

  void deaf_ways() {
    std::set<std::string> told;
    for (const Path path : incoming_paths(e_.options.role)) {
      const std::string& reason = e_.talk.deaf(path);
      if (!reason.empty() && told.insert(reason).second)
        findings_.note("ports",
                       fmt::format("{} was not checked: {}", place(path, is_lead()), reason),
                       "end it for the time of the examination");
    }
  }

  // A datagram that does not fit this host's own interface.
  bool does_not_fit() const {
    for (const Path path : outgoing_paths(e_.options.role))
      if (e_.talk.send_error(path) == EMSGSIZE) return true;
    return false;
  }

  void sending() {
    bool mtu_told = false;
    for (const Trouble& trouble : ways_.troubles()) mtu_told |= trouble.cause == Cause::kMtu;
    if (!mtu_told && (does_not_fit() || small_interface())) own_mtu();
    std::set<std::string> told;
    for (const Path path : outgoing_paths(e_.options.role)) {
      const int error = e_.talk.send_error(path);
      if (error == 0 || error == EMSGSIZE) continue;
      if (path >= kGroupPaths && error == ENETUNREACH) continue;  // see check_routes
      const std::string to = place(path, !is_lead());
      // What a rule is known to drop has been told.
      const bool filtered = error == EPERM;
      if (filtered && is_blocked(port_of(common_, path, !is_lead()))) continue;
      if (!told.insert(to).second) continue;
      problem("send", fmt::format("sending to {}: {}", to, std::strerror(error)),
              filtered ? "this host's packet filter refuses it" : "nothing goes out",
              filtered
                  ? "nft list ruleset; accept UDP to this port in the output chain"
                  : fmt::format("ip route get {}", format_address(common_.ctrl_group.address)));
    }
  }

  bool is_blocked(uint16_t port) const {
    for (const BlockedPort& one : e_.blocked)
      if (!one.incoming && one.port == port) return true;
    return false;
  }

  bool small_interface() const { return is_small(e_.interface); }

  void own_mtu() {
    findings_.add({does_not_fit() ? Level::kProblem : Level::kWarning, "mtu",
                   fmt::format("{} has an MTU of {}: datagrams of 1,472 bytes do not fit",
                               e_.interface.name, e_.interface.mtu),
                   "the longest datagrams have this length; cut in two, each loss costs both parts",
                   fmt::format("ip link set dev {} mtu 1500", e_.interface.name)});
  }

  void nobody() {
    if (!e_.blocked.empty()) return;  // the packet filter was told of
    findings_.add({Level::kWarning, "network", "no doctor of the other side was heard",
                   "whether multicast passes can only be told with one at each end",
                   is_lead() ? "pkgdist-doctor --interface ADDR node, on a node at the same time; "
                               "--wait 60 gives time to start it"
                             : "pkgdist-doctor --interface ADDR lead, on the lead at the same "
                               "time; --wait 60 gives time to start it"});
  }

  static std::vector<std::string> addresses(const Trouble& trouble) {
    std::vector<std::string> list;
    for (const Peer* peer : trouble.peers) list.push_back(format_address(peer->address));
    return list;
  }

  // "node 10.0.0.2", "nodes 10.0.0.2, 10.0.0.3 and 298 more"
  std::string who(const Trouble& trouble) const {
    const std::vector<std::string> list = addresses(trouble);
    const size_t named = std::min(list.size(), kNamedHosts);
    const std::string names = fmt::format(
        "{}", fmt::join(list.begin(), list.begin() + static_cast<std::ptrdiff_t>(named), ", "));
    const std::string more =
        named < list.size() ? fmt::format(" and {} more", list.size() - named) : "";
    return fmt::format("{}{} {}{}", other_role(), list.size() == 1 ? "" : "s", names, more);
  }

  std::string places(const Trouble& trouble) const {
    std::vector<std::string> list;
    for (const Path path : trouble.paths) list.push_back(place(path, to_lead(trouble.incoming)));
    return fmt::format("{}", fmt::join(list, " and "));
  }

  // "of node 10.0.0.2 to 239.255.71.2:7101"
  std::string route(const Trouble& trouble) const {
    return trouble.incoming ? fmt::format("of {} to {}", who(trouble), places(trouble))
                            : fmt::format("to {} of {}", places(trouble), who(trouble));
  }

  void add(Level level, const Trouble& trouble, const std::string& what, const std::string& why,
           const std::string& mend) {
    findings_.add({level, check_of(trouble.cause), what, why, mend, "", addresses(trouble)});
  }

  void tell_trouble(const Trouble& trouble) {
    switch (trouble.cause) {
      case Cause::kNothingHeard:
        return add(Level::kProblem, trouble, "nothing was heard of " + who(trouble),
                   "no datagram came, neither to a group nor to this host's own ports",
                   fmt::format("look whether the doctor runs there; ping {}; then the packet "
                               "filters and switches between",
                               addresses(trouble).front()));
      case Cause::kNotHeard:
        return add(Level::kProblem, trouble,
                   who(trouble) + (trouble.peers.size() == 1 ? " is" : " are") +
                       " heard here, but did not hear this host",
                   "what goes one way only is of no use: every file needs answers",
                   "look at the findings there; the packet filter there: nft list ruleset");
      case Cause::kMtu:
        return mtu(trouble);
      case Cause::kGroups:
      case Cause::kUnicast:
        return silent(trouble);
      case Cause::kLoss:
        return add(Level::kWarning, trouble,
                   fmt::format("{} of {} probes {} were lost", trouble.expected - trouble.heard,
                               trouble.expected, loss_route(trouble)),
                   "each loss is repaired, which takes time",
                   fmt::format("ip -s link show {}; nstat -az UdpRcvbufErrors, on the receiver",
                               e_.interface.name));
      case Cause::kOtherSource:
        return add(Level::kWarning, trouble,
                   fmt::format("datagrams of {} come from {}", who(trouble),
                               format_address(trouble.peers.front()->source)),
                   "it answers by another interface than the one that pkgdist was told",
                   "ip route get " + format_address(common_.interface) + ", there");
      case Cause::kOwnFilter:
        return;  // told from the rules
    }
  }

  std::string loss_route(const Trouble& trouble) const {
    return trouble.incoming ? fmt::format("of {} to this host", who(trouble))
                            : fmt::format("of this host to {}", who(trouble));
  }

  void mtu(const Trouble& trouble) {
    if (small_interface()) {
      add(Level::kProblem, trouble,
          fmt::format("{} has an MTU of {}: datagrams of 1,472 bytes do not pass between here and "
                      "{}, short ones do",
                      e_.interface.name, e_.interface.mtu, who(trouble)),
          "most of pkgdist's datagrams are as long: no file would arrive",
          fmt::format("ip link set dev {} mtu 1500", e_.interface.name));
      return;
    }
    add(Level::kProblem, trouble,
        fmt::format("datagrams of 1,472 bytes do not pass between here and {}, short ones do",
                    who(trouble)),
        "most of pkgdist's datagrams are as long: no file would arrive",
        "ip link set dev INTERFACE mtu 1500, there and on the switches between");
  }

  void silent(const Trouble& trouble) {
    const bool group = trouble.cause == Cause::kGroups;
    const Path path = *trouble.paths.begin();
    std::set<uint16_t> ports;
    for (const Path one : trouble.paths)
      ports.insert(port_of(common_, one, to_lead(trouble.incoming)));
    const std::string there = trouble.incoming ? "" : "there: ";
    const std::string accept =
        fmt::format("{}nft list ruleset; accept UDP to port{} {} in the input chain", there,
                    ports.size() == 1 ? "" : "s", fmt::join(ports, ", "));
    const std::string what =
        fmt::format("none of {} probes {} came", trouble.expected, route(trouble));
    if (!group) {
      add(Level::kProblem, trouble, what,
          "answers and repairs would be lost: a packet filter drops them", accept);
      return;
    }
    groups_told_ = true;
    const bool seen = path < kGroupPaths && e_.watch.obstacle().empty();
    if (seen && !e_.watch.querier())
      add(Level::kProblem, trouble,
          what + fmt::format(", and no IGMP querier was heard in {:.0f} s", e_.talk.seconds()),
          "single hosts are reached, so multicast is dropped on the way. A switch that snoops on "
          "IGMP forwards groups only while a querier asks who listens; otherwise a packet filter",
          "turn on the querier of a switch (Linux bridge: ip link set BRIDGE type bridge "
          "mcast_querier 1), or snooping off; then " +
              accept);
    else
      add(Level::kProblem, trouble, what,
          seen
              ? fmt::format("single hosts are reached, so multicast is dropped on the way: by a "
                            "packet filter, or by a switch; a querier is there, {}",
                            format_address(*e_.watch.querier()))
              : "single hosts are reached, so multicast is dropped on the way: by a packet filter, "
                "or by a switch that snoops on IGMP without a querier",
          accept);
  }

  void good_hosts() {
    for (const HostLine& line : ways_.hosts()) {
      if (!line.troubles.empty()) continue;
      const std::string host = fmt::format("{} {}", other_role(), line.host);
      findings_.add({Level::kOk,
                     "network",
                     fmt::format("probes pass between here and {} on all {} ways", host, line.ways),
                     "",
                     "",
                     host,
                     {line.host}});
    }
  }

  // Rules of which it is not known whether pkgdist's datagrams are theirs.
  void counted_rules() {
    if (!e_.filter_after.readable()) return;  // see check_privileges
    if (!e_.blocked.empty()) return;
    const std::vector<std::string> counted = e_.filter_after.counted_since(e_.filter_before);
    const size_t rules = e_.filter_after.drops().size();
    if (!counted.empty())
      findings_.add(
          {Level::kWarning, "filter",
           fmt::format(
               "this rule has dropped packets meanwhile: {}{}", counted.front(),
               counted.size() == 1 ? "" : fmt::format(" (and {} more)", counted.size() - 1)),
           "they may have been pkgdist's",
           "nft -a list ruleset; then nft delete rule FAMILY TABLE CHAIN handle N"});
    else if (rules == 0)
      findings_.ok("filter", "this host's packet filter drops nothing");
    else
      findings_.note("filter",
                     fmt::format("{} of this host's packet filter may drop, none "
                                 "with a counter that has grown; the first: {}",
                                 cli::counted(rules, "rule"), e_.filter_after.drops()[0]));
  }

  void querier() {
    if (!e_.watch.obstacle().empty()) return;  // see check_privileges
    if (e_.watch.querier()) {
      findings_.ok("querier", fmt::format("an IGMP querier was heard, {}",
                                          format_address(*e_.watch.querier())));
    } else if (groups_told_) {
      return;  // named there
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
  const Ways ways_;
  Findings& findings_;
  bool groups_told_ = false;
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
