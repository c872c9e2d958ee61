// Several leads: who says something, who takes over, who steps aside; nodes in the middle of files.
#include "control/leadership.h"

#include <gtest/gtest.h>

#include "control/control_message.h"
#include "lead_cluster.h"
#include "pkgdist/wire_data.h"

namespace pkgdist::test {
namespace {

using lead::kMillisecond;
using lead::kSecond;
using lead::Role;

lead::Settings settings_of(uint32_t address, bool standby = false) {
  lead::Settings settings = LeadCluster::default_settings();
  settings.address = address;
  settings.pid = address & 0xFF;
  settings.seed = address;
  settings.listen = lead::kDefaultListen;
  settings.wall_seconds = 1'700'000'000;
  settings.standby = standby;
  return settings;
}

constexpr uint32_t kFirst = kLeadAddress;
constexpr uint32_t kSecondLead = 0x0A000065;  // 10.0.0.101

class SeveralLeads : public testing::Test {
 protected:
  SeveralLeads() : cluster_(settings_of(kFirst)) {}

  void add_files() {
    cluster_.store.add("large", pattern(20'000'000, 1));
    for (int i = 0; i < 100; ++i)
      cluster_.store.add("small" + std::to_string(i), pattern(static_cast<size_t>(i) * 97, 2));
  }
  // A push that has come to the middle of the large file.
  void push_to_the_middle() {
    add_files();
    cluster_.add_hosts(3);
    lead::PushRequest request = cluster_.push_all();
    ASSERT_EQ(cluster_.lead().start_push(request, cluster_.now()), nullptr);
    ASSERT_TRUE(cluster_.run_until([&] { return cluster_.node(0).counters().segments > 7000; },
                                   20 * kSecond));
  }
  bool everybody_done() {
    for (size_t i = 0; i < cluster_.hosts(); ++i)
      if (cluster_.node(i).receiving()) return false;
    return true;
  }
  bool leads(size_t index) { return cluster_.lead(index).role() == Role::kLeading; }

  LeadCluster cluster_;
};

TEST_F(SeveralLeads, a_lead_asks_three_times_for_others_before_it_leads) {
  cluster_.add_hosts(1);
  cluster_.run_for(99 * kMillisecond);
  EXPECT_EQ(cluster_.sent_to_group(), 3u);
  EXPECT_FALSE(leads(0));
  EXPECT_EQ(cluster_.node(0).lead(), 0u);  // to nodes the question is none
  cluster_.run_for(2 * kMillisecond);
  EXPECT_TRUE(leads(0));
  EXPECT_EQ(cluster_.node(0).lead(), kFirst);
}

TEST_F(SeveralLeads, one_that_leads_answers_at_once) {
  cluster_.run_for(3 * kSecond);
  const size_t late = cluster_.add_lead(settings_of(kSecondLead));
  cluster_.run_for(10 * kMillisecond);
  EXPECT_EQ(cluster_.lead(late).role(), Role::kStandingBy);
}

TEST_F(SeveralLeads, of_two_that_ask_at_the_same_time_the_lower_address_leads) {
  const size_t other = cluster_.add_lead(settings_of(kSecondLead));
  for (int i = 0; i < 200; ++i) {
    cluster_.run_for(kMillisecond);
    ASSERT_FALSE(leads(0) && leads(other));
  }
  EXPECT_TRUE(leads(0));
  EXPECT_EQ(cluster_.lead(other).role(), Role::kStandingBy);
}

TEST_F(SeveralLeads, questions_draw_a_few_pings_only) {
  cluster_.add_hosts(1);
  cluster_.run_for(3 * kSecond);
  const uint64_t before = cluster_.lead().counters().control_sent;
  lead::Settings stranger = settings_of(kSecondLead);
  std::array<uint8_t, 200> query{};
  const size_t length = lead::build_lead_query(query, stranger);
  for (int i = 0; i < 1000; ++i) {
    cluster_.say_to_group(Bytes(query.begin(), query.begin() + static_cast<ptrdiff_t>(length)));
    cluster_.run_for(kMillisecond);
  }
  EXPECT_LE(cluster_.lead().counters().control_sent - before, 36u);
  EXPECT_TRUE(leads(0));
}

TEST_F(SeveralLeads, a_standby_that_hears_nobody_at_all_takes_over) {
  const size_t standby = cluster_.add_lead(settings_of(kSecondLead, true));
  cluster_.stop_lead(0);
  cluster_.run_for(7900 * kMillisecond);
  EXPECT_FALSE(leads(standby));
  cluster_.run_for(200 * kMillisecond);
  EXPECT_TRUE(leads(standby));
}

TEST_F(SeveralLeads, one_that_starts_beside_another_stands_by_for_good) {
  cluster_.run_for(3 * kSecond);
  const size_t late = cluster_.add_lead(settings_of(kSecondLead));
  cluster_.run_for(60 * kSecond);
  EXPECT_TRUE(leads(0));
  EXPECT_EQ(cluster_.lead(late).role(), Role::kStandingBy);
  EXPECT_EQ(cluster_.lead(late).other_lead(), kFirst);
  EXPECT_EQ(cluster_.lead(late).counters().control_sent, 0u);
}

TEST_F(SeveralLeads, a_standby_answers_no_request) {
  cluster_.store.add("file", pattern(1000, 1));
  const size_t standby = cluster_.add_lead(settings_of(kSecondLead, true));
  cluster_.add_hosts(1);
  cluster_.run_for(3 * kSecond);
  pkgdist_data_msg_hdr header{};
  qidl::set<&pkgdist_data_msg_hdr::msg_id>(header, PKGDIST_DATA_MSG_FILE_REQ);
  cluster_.lead(standby).on_datagram(lead::Channel::kData, framed(header), 1, cluster_.now());
  EXPECT_EQ(cluster_.lead(standby).counters().not_leading, 1u);
  EXPECT_EQ(cluster_.lead(standby).counters().infos_sent, 0u);
  EXPECT_EQ(
      cluster_.lead(standby).send_message(2, Bytes(1), lead::Audience::everyone(), cluster_.now()),
      0u);
}

TEST_F(SeveralLeads, a_standby_takes_over_after_eight_seconds_of_silence_and_not_before) {
  const size_t standby = cluster_.add_lead(settings_of(kSecondLead, true));
  cluster_.add_hosts(2);
  cluster_.run_for(5 * kSecond);
  cluster_.stop_lead(0);
  cluster_.run_for(6900 * kMillisecond);
  EXPECT_FALSE(leads(standby));
  cluster_.run_for(1200 * kMillisecond);
  EXPECT_TRUE(leads(standby));
  cluster_.run_for(kSecond);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(cluster_.node(i).lead(), kSecondLead);
    EXPECT_EQ(cluster_.node(i).failovers(), 1u);
  }
}

TEST_F(SeveralLeads, a_standby_without_any_lead_leads_in_the_end) {
  LeadCluster alone(settings_of(kFirst, true));
  alone.run_for(7 * kSecond);
  EXPECT_EQ(alone.lead().role(), Role::kStandingBy);
  alone.run_for(2 * kSecond);
  EXPECT_EQ(alone.lead().role(), Role::kLeading);
}

TEST_F(SeveralLeads, a_standby_finishes_the_files_of_a_push_that_was_killed) {
  const size_t standby = cluster_.add_lead(settings_of(kSecondLead, true));
  push_to_the_middle();
  cluster_.stop_lead(0);
  ASSERT_TRUE(cluster_.run_until([&] { return leads(standby); }, 10 * kSecond));
  ASSERT_TRUE(cluster_.run_until([&] { return everybody_done(); }, 30 * kSecond));
  EXPECT_TRUE(cluster_.identical());
  EXPECT_GT(cluster_.seen(standby).requested, 0u);
}

TEST_F(SeveralLeads, a_standby_finishes_a_killed_push_under_loss) {
  const size_t standby = cluster_.add_lead(settings_of(kSecondLead, true));
  add_files();
  cluster_.add_hosts(3);
  // A node asks five times; with other numbers than these all five get lost for some file.
  cluster_.set_loss(0.05, 0.05, 8);
  ASSERT_EQ(cluster_.lead().start_push(cluster_.push_all(), cluster_.now()), nullptr);
  ASSERT_TRUE(cluster_.run_until([&] { return cluster_.node(0).counters().segments > 7000; },
                                 20 * kSecond));
  cluster_.stop_lead(0);
  ASSERT_TRUE(cluster_.run_until([&] { return leads(standby); }, 10 * kSecond));
  cluster_.run_for(kSecond);
  ASSERT_TRUE(cluster_.run_until([&] { return everybody_done(); }, 60 * kSecond));
  EXPECT_TRUE(cluster_.identical());
}

TEST_F(SeveralLeads, a_lead_restarted_on_the_same_address_finishes_the_files_of_its_push) {
  push_to_the_middle();
  lead::Settings again = settings_of(kFirst);
  again.pid = 999;
  again.seed = 77;
  cluster_.stop_lead(0);
  cluster_.run_for(2 * kSecond);
  cluster_.restart_lead(again);
  cluster_.run_for(3 * kSecond);
  ASSERT_TRUE(cluster_.run_until([&] { return everybody_done(); }, 30 * kSecond));
  EXPECT_TRUE(cluster_.identical());
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(cluster_.node(i).failovers(), 0u);
}

TEST_F(SeveralLeads, the_old_lead_stands_by_when_it_is_started_again) {
  const size_t standby = cluster_.add_lead(settings_of(kSecondLead, true));
  cluster_.add_hosts(1);
  cluster_.run_for(5 * kSecond);
  cluster_.stop_lead(0);
  cluster_.run_for(10 * kSecond);
  ASSERT_TRUE(leads(standby));
  cluster_.restart_lead(settings_of(kFirst));
  cluster_.run_for(60 * kSecond);
  EXPECT_EQ(cluster_.lead(0).role(), Role::kStandingBy);
  EXPECT_TRUE(leads(standby));
  EXPECT_EQ(cluster_.node(0).failovers(), 1u);
}

TEST_F(SeveralLeads, a_suspended_lead_steps_aside_for_the_one_that_took_over) {
  const size_t standby = cluster_.add_lead(settings_of(kSecondLead, true));
  cluster_.add_hosts(1);
  cluster_.run_for(5 * kSecond);
  cluster_.suspend_lead(0, true);
  cluster_.run_for(12 * kSecond);
  ASSERT_TRUE(leads(standby));
  cluster_.suspend_lead(0, false);
  cluster_.run_for(60 * kSecond);
  EXPECT_EQ(cluster_.lead(0).role(), Role::kStandingBy);
  EXPECT_TRUE(leads(standby));
  EXPECT_EQ(cluster_.node(0).failovers(), 1u);
}

TEST_F(SeveralLeads, a_suspended_lead_goes_on_when_nobody_took_over) {
  cluster_.add_hosts(1);
  cluster_.run_for(5 * kSecond);
  cluster_.suspend_lead(0, true);
  cluster_.run_for(12 * kSecond);
  cluster_.suspend_lead(0, false);
  cluster_.run_for(3 * kSecond);
  EXPECT_TRUE(leads(0));
  EXPECT_EQ(cluster_.seen().roles.back(), Role::kLeading);
}

TEST_F(SeveralLeads, of_two_that_began_at_the_same_time_one_steps_aside_and_it_stays_so) {
  LeadCluster cluster(settings_of(kFirst));
  const size_t other = cluster.add_lead(settings_of(kSecondLead));
  cluster.run_for(60 * kSecond);
  EXPECT_EQ(cluster.lead(0).role(), Role::kLeading);
  EXPECT_EQ(cluster.lead(other).role(), Role::kStandingBy);
  EXPECT_LE(cluster.seen(other).roles.size(), 2u);
}

TEST_F(SeveralLeads, a_forged_lead_is_counted_and_changes_nothing) {
  cluster_.add_hosts(2);
  cluster_.run_for(5 * kSecond);
  pkgdist_ctrl_msg_hdr forged{};
  qidl::set<&pkgdist_ctrl_msg_hdr::msg_id>(forged, PKGDIST_CTRL_MSG_PING);
  qidl::set<&pkgdist_ctrl_msg_hdr::node_ip>(forged, kFirst - 1);  // a lower address
  qidl::set<&pkgdist_ctrl_msg_hdr::pid>(forged, 666);
  qidl::set<&pkgdist_ctrl_msg_hdr::sequence>(forged, 4'000'000'000);
  for (int i = 0; i < 100; ++i) {
    cluster_.say_to_group(framed(forged));
    cluster_.run_for(100 * kMillisecond);
  }
  EXPECT_TRUE(leads(0));
  EXPECT_EQ(cluster_.lead().counters().other_lead_heard, 100u);
  EXPECT_EQ(cluster_.seen().other_lead, 1u);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(cluster_.node(i).lead(), kFirst);
    EXPECT_EQ(cluster_.node(i).foreign_lead(), 100u);
  }
}

TEST_F(SeveralLeads, a_push_waits_until_the_other_lead_is_silent) {
  cluster_.store.add("file", pattern(1000, 1));
  cluster_.add_hosts(1);
  const size_t pushing = cluster_.add_lead(settings_of(kSecondLead));
  cluster_.run_for(3 * kSecond);
  ASSERT_EQ(cluster_.lead(pushing).start_push(cluster_.push_all(), cluster_.now()), nullptr);
  cluster_.run_for(20 * kSecond);
  EXPECT_TRUE(cluster_.host(0).disk.empty());
  cluster_.stop_lead(0);
  ASSERT_TRUE(
      cluster_.run_until([&] { return !cluster_.lead(pushing).push_running(); }, 20 * kSecond));
  EXPECT_TRUE(cluster_.lead(pushing).push_report().complete());
}

TEST_F(SeveralLeads, one_that_steps_aside_gives_up_its_push_and_its_messages) {
  add_files();
  cluster_.add_hosts(1);
  ASSERT_EQ(cluster_.lead().start_push(cluster_.push_all(), cluster_.now()), nullptr);
  ASSERT_TRUE(cluster_.run_until([&] { return cluster_.node(0).counters().segments > 1000; },
                                 20 * kSecond));
  cluster_.stop_node(0);
  cluster_.lead().send_message(2, Bytes(1), lead::Audience::everyone(), cluster_.now());
  pkgdist_ctrl_msg_hdr older{};
  qidl::set<&pkgdist_ctrl_msg_hdr::msg_id>(older, PKGDIST_CTRL_MSG_PING);
  qidl::set<&pkgdist_ctrl_msg_hdr::node_ip>(older, kSecondLead);
  qidl::set<&pkgdist_ctrl_msg_hdr::status>(older, uint64_t{1'600'000'000} << 32);
  for (int i = 0; i < 4; ++i) {
    cluster_.say_to_group(framed(older));
    cluster_.run_for(kSecond);
  }
  EXPECT_EQ(cluster_.lead().role(), Role::kStandingBy);
  EXPECT_FALSE(cluster_.lead().push_running());
  ASSERT_EQ(cluster_.seen().finished.size(), 1u);
  EXPECT_EQ(cluster_.seen().finished[0].nodes[0].delivery, lead::Delivery::kSuperseded);
}

// A ping of a lead that says that it began long ago.
Bytes ping_of_earlier(uint32_t address) {
  pkgdist_ctrl_msg_hdr ping{};
  qidl::set<&pkgdist_ctrl_msg_hdr::msg_id>(ping, PKGDIST_CTRL_MSG_PING);
  qidl::set<&pkgdist_ctrl_msg_hdr::node_ip>(ping, address);
  qidl::set<&pkgdist_ctrl_msg_hdr::status>(ping, uint64_t{1'600'000'000} << 32);
  return framed(ping);
}

TEST_F(SeveralLeads, a_forged_ping_of_an_earlier_lead_ends_no_push) {
  push_to_the_middle();
  for (int i = 0; i < 3; ++i) cluster_.say_to_group(ping_of_earlier(kSecondLead));
  ASSERT_TRUE(cluster_.run_until([&] { return !cluster_.lead().push_running(); }, 20 * kSecond));
  EXPECT_TRUE(cluster_.lead().push_report().complete());
  EXPECT_TRUE(leads(0));
}

TEST_F(SeveralLeads,
       a_lead_with_nodes_steps_aside_for_one_that_is_heard_as_long_as_they_would_need) {
  cluster_.add_hosts(1);
  cluster_.run_for(3 * kSecond);
  for (int second = 0; second < 8; ++second) {
    cluster_.say_to_group(ping_of_earlier(kSecondLead));
    cluster_.run_for(kSecond);
    EXPECT_TRUE(leads(0)) << second;
  }
  cluster_.say_to_group(ping_of_earlier(kSecondLead));
  cluster_.run_for(kMillisecond);
  EXPECT_FALSE(leads(0));
}

TEST_F(SeveralLeads, one_that_is_heard_now_and_then_is_not_heard_for_as_long_as_nodes_need) {
  cluster_.add_hosts(1);
  cluster_.run_for(3 * kSecond);
  for (int i = 0; i < 20; ++i) {
    cluster_.say_to_group(ping_of_earlier(kSecondLead));
    cluster_.run_for(4 * kSecond);
  }
  EXPECT_TRUE(leads(0));
}

TEST_F(SeveralLeads, of_two_with_nodes_of_their_own_one_stays_when_the_network_is_one_again) {
  cluster_.cut(1, 0, true);
  cluster_.add_hosts(2);
  const size_t other = cluster_.add_lead(settings_of(kSecondLead));
  cluster_.cut_leads(0, other, true);
  cluster_.cut(0, other, true);
  cluster_.run_for(5 * kSecond);
  ASSERT_TRUE(leads(0) && leads(other));
  ASSERT_EQ(cluster_.node(0).lead(), kFirst);
  ASSERT_EQ(cluster_.node(1).lead(), kSecondLead);
  cluster_.cut_leads(0, other, false);
  cluster_.cut(0, other, false);
  cluster_.cut(1, 0, false);
  cluster_.run_for(20 * kSecond);
  EXPECT_NE(leads(0), leads(other));
  EXPECT_EQ(cluster_.node(0).lead(), cluster_.node(1).lead());
  cluster_.store.add("file", pattern(1000, 1));
  ASSERT_TRUE(leads(0));
  EXPECT_TRUE(cluster_.run_push(cluster_.push_all(), 20 * kSecond));
  EXPECT_TRUE(cluster_.identical());
}

// After a divided network has become one, both judge alone: exactly one may stay.
TEST(LeadershipTest, of_two_leads_exactly_one_yields_whatever_they_are) {
  for (uint64_t other_wall : {1'700'000'000u - 5, 1'700'000'000u, 1'700'000'000u + 5}) {
    lead::Settings low = settings_of(kFirst), high = settings_of(kSecondLead);
    low.listen = high.listen = 0;
    high.wall_seconds = other_wall;
    lead::Leadership a(low), b(high);
    a.run(kSecond);
    b.run(kSecond);
    const uint32_t since_a = a.leading_since(), since_b = b.leading_since();
    for (uint64_t now = 2 * kSecond; now <= 10 * kSecond; now += kSecond) {
      EXPECT_TRUE(a.leads() && b.leads());
      a.on_other_lead(high.address, since_b, true, now);
      b.on_other_lead(low.address, since_a, true, now);
    }
    EXPECT_NE(a.leads(), b.leads());
    EXPECT_EQ(a.leads(), since_a <= since_b);
  }
}

TEST(LeadershipTest, a_stranger_wins_against_a_higher_address_without_nodes_only) {
  for (bool followed : {false, true}) {
    for (uint32_t stranger : {kFirst - 1, kFirst + 1}) {
      lead::Settings settings = settings_of(kFirst);
      settings.listen = 0;
      lead::Leadership leadership(settings);
      leadership.run(kSecond);
      leadership.on_other_lead(stranger, 0, followed, 2 * kSecond);
      EXPECT_EQ(leadership.leads(), followed || stranger > kFirst);
    }
  }
}

}  // namespace
}  // namespace pkgdist::test
