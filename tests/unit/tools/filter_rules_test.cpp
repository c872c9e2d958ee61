// What rules of a packet filter are known to do with a datagram, and what is left open.
#include "filter_rules.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

using namespace pkgdist::doctor;

namespace {

using Json = nlohmann::json;

constexpr uint32_t kGroup = 0xEFFF4701;  // 239.255.71.1

FilteredPacket to_port(uint16_t port) {
  FilteredPacket packet;
  packet.port = port;
  packet.destination = kGroup;
  packet.interface_name = "eth0";
  return packet;
}

// A table "guard" with a chain at the input hook, of this policy and these rules.
FilterRules rules_with(const std::string& policy, const std::vector<std::string>& rules,
                       const std::vector<std::string>& others = {}) {
  Json objects = Json::array();
  objects.push_back({{"chain",
                      {{"family", "inet"},
                       {"table", "guard"},
                       {"name", "in"},
                       {"type", "filter"},
                       {"hook", "input"},
                       {"policy", policy}}}});
  int handle = 1;
  const auto add = [&](const char* chain, const std::string& expression) {
    objects.push_back({{"rule",
                        {{"family", "inet"},
                         {"table", "guard"},
                         {"chain", chain},
                         {"handle", handle++},
                         {"expr", Json::parse(expression)}}}});
  };
  for (const std::string& rule : rules) add("in", rule);
  for (const std::string& rule : others) add("other", rule);
  return FilterRules(Json{{"nftables", objects}}.dump());
}

Fate fate(const FilterRules& rules, uint16_t port = 7100) {
  return rules.verdict(to_port(port)).fate;
}

std::string match(const std::string& left, const std::string& right, const std::string& op = "==") {
  return R"({"match":{"op":")" + op + R"(","left":)" + left + R"(,"right":)" + right + "}}";
}
const std::string kPort = R"({"payload":{"protocol":"udp","field":"dport"}})";
const std::string kState = R"({"ct":{"key":"state"}})";
const std::string kAccept = R"({"accept":null})";
const std::string kDrop = R"({"drop":null})";

std::string rule(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : ",") + part;
  return "[" + text + "]";
}

}  // namespace

TEST(FilterRules, without_rules_everything_passes) {
  EXPECT_EQ(Fate::kAccepted, fate(FilterRules(R"({"nftables":[]})")));
  EXPECT_FALSE(FilterRules("no json").readable());
  EXPECT_EQ(Fate::kAccepted, fate(rules_with("accept", {})));
}

TEST(FilterRules, a_policy_of_drop_drops_what_no_rule_accepts_and_names_its_chain) {
  const FilterRules rules = rules_with("drop", {rule({match(kPort, "7102"), kAccept})});
  EXPECT_EQ(Fate::kAccepted, fate(rules, 7102));
  const FilterVerdict verdict = rules.verdict(to_port(7100));
  EXPECT_EQ(Fate::kDropped, verdict.fate);
  EXPECT_EQ("inet guard in", verdict.chain);
  EXPECT_EQ("policy drop", verdict.reason);
}

TEST(FilterRules, ports_are_found_in_sets_and_ranges) {
  for (const char* ports :
       {R"({"set":[22,7100]})", R"({"set":[{"range":[7000,7200]}]})", R"({"range":[7100,7104]})"})
    EXPECT_EQ(Fate::kAccepted, fate(rules_with("drop", {rule({match(kPort, ports), kAccept})})))
        << ports;
  EXPECT_EQ(Fate::kDropped,
            fate(rules_with("drop", {rule({match(kPort, R"({"set":[22,80]})"), kAccept})})));
}

TEST(FilterRules, answers_of_conversations_are_not_what_opens_one) {
  const std::string states = R"(["established","related"])";
  EXPECT_EQ(Fate::kDropped,
            fate(rules_with("drop", {rule({match(kState, states, "in"), kAccept})})));
  EXPECT_EQ(Fate::kAccepted,
            fate(rules_with("drop", {rule({match(kState, R"("new")", "in"), kAccept})})));
}

TEST(FilterRules, other_interfaces_protocols_and_addresses_do_not_matter) {
  const std::string loopback = match(R"({"meta":{"key":"iif"}})", R"("lo")");
  const std::string tcp = match(R"({"payload":{"protocol":"tcp","field":"dport"}})", "7100");
  const std::string v6 = match(R"({"payload":{"protocol":"ip6","field":"nexthdr"}})", R"("udp")");
  const std::string elsewhere = match(R"({"payload":{"protocol":"ip","field":"daddr"}})",
                                      R"({"prefix":{"addr":"10.0.0.0","len":8}})");
  for (const std::string& one : {loopback, tcp, v6, elsewhere})
    EXPECT_EQ(Fate::kDropped, fate(rules_with("drop", {rule({one, kAccept})}))) << one;
  const std::string groups = match(R"({"payload":{"protocol":"ip","field":"daddr"}})",
                                   R"({"prefix":{"addr":"224.0.0.0","len":4}})");
  EXPECT_EQ(Fate::kAccepted, fate(rules_with("drop", {rule({groups, kAccept})})));
}

TEST(FilterRules, the_first_rule_that_decides_counts) {
  const std::string drops = rule({match(kPort, "7100"), kDrop});
  const std::string accepts =
      rule({match(kPort, "7100"), R"({"counter":{"packets":0,"bytes":0}})", kAccept});
  EXPECT_EQ("rule 1", rules_with("accept", {drops, accepts}).verdict(to_port(7100)).reason);
  EXPECT_EQ(Fate::kAccepted, fate(rules_with("drop", {accepts, drops})));
}

TEST(FilterRules, what_cannot_be_known_is_not_called_dropped) {
  const std::string limited = rule({R"({"limit":{"rate":10,"per":"second"}})", kAccept});
  EXPECT_EQ(Fate::kUnknown, fate(rules_with("drop", {limited})));
  const std::string some = rule({match(R"({"numgen":{"mode":"random"}})", "5", "<"), kDrop});
  EXPECT_EQ(Fate::kUnknown, fate(rules_with("accept", {some})));
  const std::string source =
      match(R"({"payload":{"protocol":"ip","field":"saddr"}})", R"("192.0.2.1")");
  EXPECT_EQ(Fate::kUnknown, fate(rules_with("drop", {rule({source, kAccept})})));
  const std::string extension = R"({"xt":{"type":"match","name":"multiport"}})";
  EXPECT_EQ(Fate::kUnknown, fate(rules_with("drop", {rule({extension, kAccept})})));
}

TEST(FilterRules, rules_that_leave_it_open_are_named) {
  const std::string conntrack = R"({"xt":{"type":"match","name":"conntrack"}})";
  const std::string source =
      match(R"({"payload":{"protocol":"ip","field":"saddr"}})", R"("192.0.2.1")");
  const std::string mark = match(R"({"ct":{"key":"mark"}})", "7");
  const FilterVerdict verdict =
      rules_with("drop", {rule({match(kPort, "22"), kAccept}), rule({conntrack, kAccept}),
                          rule({match(kPort, "7100"), source, kAccept}), rule({mark, kAccept})})
          .verdict(to_port(7100));
  EXPECT_EQ(Fate::kUnknown, verdict.fate);
  EXPECT_EQ("inet guard in", verdict.chain);
  EXPECT_EQ(
      (std::vector<std::string>{"rule 2 (xt conntrack)", "rule 3 (ip saddr)", "rule 4 (ct mark)"}),
      verdict.open);
}

TEST(FilterRules, new_conversations_that_conntrack_lets_through_are_accepted) {
  const std::string not_invalid = match(kState, R"("invalid")", "!=");
  EXPECT_EQ(Fate::kAccepted, fate(rules_with("drop", {rule({not_invalid, kAccept})})));
  const std::string some = match(kState, R"(["established","related","new"])", "in");
  EXPECT_EQ(Fate::kAccepted,
            fate(rules_with("drop", {rule({match(kPort, "7100"), some, kAccept})})));
  EXPECT_EQ(Fate::kAccepted,
            fate(rules_with("drop", {rule({match(kState, R"({"set":["invalid"]})"), kDrop}),
                                     rule({match(kPort, "7100"), kAccept})})));
}

// Older versions of nft print what iptables added as "xt" without a name.
TEST(FilterRules, targets_of_iptables_drop_pass_or_leave_it_open) {
  const auto target = [](const std::string& name) {
    return rule({R"({"xt":{"type":"target","name":")" + name + R"("}})"});
  };
  EXPECT_EQ(Fate::kDropped, fate(rules_with("accept", {target("REJECT")})));
  EXPECT_EQ(Fate::kAccepted, fate(rules_with("accept", {target("LOG")})));
  EXPECT_EQ(Fate::kDropped, fate(rules_with("drop", {target("LOG")})));
  EXPECT_EQ(Fate::kUnknown, fate(rules_with("accept", {target("TARPIT")})));
  const FilterVerdict verdict = rules_with("accept", {R"([{"xt":null}])"}).verdict(to_port(7100));
  EXPECT_EQ(Fate::kUnknown, verdict.fate);
  EXPECT_EQ(std::vector<std::string>{"rule 1 (xt)"}, verdict.open);
  EXPECT_EQ(Fate::kUnknown, fate(rules_with("drop", {rule({R"({"xt":null})", kAccept})})));
  EXPECT_EQ(Fate::kAccepted, fate(rules_with("accept", {rule({R"({"xt":null})", kAccept})})));
}

TEST(FilterRules, chains_are_followed_back_and_forth) {
  const std::string jump = R"([{"jump":{"target":"other"}}])";
  EXPECT_EQ(Fate::kAccepted,
            fate(rules_with("drop", {jump}, {rule({match(kPort, "7100"), kAccept})})));
  EXPECT_EQ(Fate::kDropped,
            fate(rules_with("drop", {jump}, {rule({match(kPort, "7101"), kAccept})})));
  EXPECT_EQ(Fate::kAccepted, fate(rules_with("drop", {jump, "[" + kAccept + "]"},
                                             {R"([{"return":null}])", "[" + kDrop + "]"})));
  EXPECT_EQ(Fate::kUnknown, fate(rules_with("drop", {jump}, {jump})))
      << "a chain that calls itself";
}

TEST(FilterRules, maps_of_verdicts_are_looked_up) {
  const auto by_state = [](const std::string& state, const std::string& verdict) {
    return R"([{"vmap":{"key":)" + kState + R"(,"data":{"set":[[")" + state + R"(",)" + verdict +
           "]]}}}]";
  };
  EXPECT_EQ(Fate::kDropped, fate(rules_with("drop", {by_state("established", kAccept)})));
  EXPECT_EQ(Fate::kAccepted, fate(rules_with("drop", {by_state("new", kAccept)})));
}
