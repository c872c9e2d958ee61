#include "identity_checks.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <map>
#include <set>

namespace pkgdist::doctor {

namespace {

using cli::format_address;

constexpr const char* kWhyOneAddress =
    "what the lead hears of the address is about either of them: it takes both for one host that "
    "is "
    "started again and again";

template <class One>
bool at_the_same_time(const One& a, const One& b) {
  return std::min(a.last, b.last) > std::max(a.first, b.first);
}

// Doctors of the other side, or leads that ping, that have one address and answer at the same time:
// one after the other would be one that was started twice.
std::map<uint32_t, std::set<uint32_t>> processes_by_address(const Conversation& talk) {
  std::map<uint32_t, std::set<uint32_t>> result;
  const std::vector<Peer>& peers = talk.peers();
  for (size_t i = 0; i < peers.size(); ++i)
    for (size_t k = i + 1; k < peers.size(); ++k) {
      const Peer &a = peers[i], &b = peers[k];
      if (a.address != b.address || a.role != b.role || a.first == 0 || b.first == 0 ||
          !at_the_same_time(a, b))
        continue;
      result[a.address].insert({a.pid, b.pid});
    }
  return result;
}

}  // namespace

void check_leads(const DoctorOptions& options, const Conversation& talk, Findings& findings) {
  if (!talk.deaf(kControl).empty()) return;
  std::vector<const HeardLead*> leads;
  for (const auto& [key, lead] : talk.leads()) leads.push_back(&lead);
  std::vector<std::string> list;
  bool several = false;
  for (const HeardLead* lead : leads) {
    list.push_back(fmt::format("{} (process {})", format_address(lead->address), lead->pid));
    several |= options.role == Role::kLead && lead->address != options.common.interface;
    for (const HeardLead* other : leads)
      several |=
          lead != other && (lead->address != other->address || at_the_same_time(*lead, *other));
  }
  const std::string names = fmt::format("{}", fmt::join(list, ", "));
  if (several)
    findings.add({Level::kProblem,
                  "lead",
                  "leads are heard on the control group: " + names,
                  "nodes follow one lead; another one stands by, or pushes to nobody",
                  "end one, or give one of them other groups: --ctrl-group, --data-group",
                  "",
                  {}});
  else if (!list.empty())
    findings.ok("lead", "one lead is heard: " + names);
  else
    findings.ok("lead", fmt::format("no{} lead was heard in {:.0f} s",
                                    options.role == Role::kLead ? " other" : "", talk.seconds()));
}

void check_addresses(const DoctorOptions& options, const Conversation& talk, const LinkWatch& watch,
                     Findings& findings) {
  const std::string own = format_address(options.common.interface);
  const std::string mend =
      "change the address of one; ip neighbour and the switch's table say where they are";
  if (!watch.duplicate().empty() || talk.another_of_us()) {
    std::string what = watch.duplicate().empty()
                           ? fmt::format("another host has {} too", own)
                           : fmt::format("another host, {}, has {} too", watch.duplicate(), own);
    if (talk.another_of_us())
      what += fmt::format("; a doctor runs there as {}", role_name(options.role));
    findings.add({Level::kProblem, "address", what, kWhyOneAddress, mend});
  }
  const auto processes = processes_by_address(talk);
  const auto hardware = watch.shared_addresses();
  std::set<uint32_t> shared;
  for (const auto& [address, pids] : processes) shared.insert(address);
  for (const auto& [address, owners] : hardware) shared.insert(address);
  for (const uint32_t address : shared) {
    std::string what = fmt::format("two hosts have {}:", format_address(address));
    if (hardware.contains(address))
      what += fmt::format(" hardware addresses {}", fmt::join(hardware.at(address), ", "));
    if (processes.contains(address))
      what += fmt::format("{} processes {}", hardware.contains(address) ? ";" : "",
                          fmt::join(processes.at(address), ", "));
    findings.add(
        {Level::kProblem,
         "address",
         what,
         kWhyOneAddress,
         mend + ". One host with two interfaces there: sysctl net.ipv4.conf.all.arp_ignore=1",
         "",
         {format_address(address)}});
  }
  if (watch.duplicate().empty() && !talk.another_of_us() && shared.empty() &&
      watch.obstacle().empty())
    findings.ok("address", fmt::format("no other host answers for {}", own));
}

}  // namespace pkgdist::doctor
