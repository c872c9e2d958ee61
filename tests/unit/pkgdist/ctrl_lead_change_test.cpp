// Lead-change notification: registering, what is reported when, and every failure.
#include "ctrl_support.h"
#include "pkgdist_data_recv_file_db.h"

using namespace support;

namespace {

using Changes = std::vector<LeadChange>;

class LeadChangeTest : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    logs::records().clear();
  }
  PkgdistStatus set_client(pkgdist_ctrl_lead_change_cb callback) {
    return instcomm_pkgdist_ctrl_register_lead_change(loop(), callback, this);
  }
  static void forget_lead() { G_lead_uc_addr = G_lead_pid = 0; }
  static std::string error(const char* function, const std::string& words) {
    return std::string("ERR:pkgdist_ctrl_lead_chg_") + function + ": " + words + "\n";
  }
};

TEST_F(LeadChangeTest, refuses_a_null_loop_with_and_without_callback) {
  for (const auto callback : {&on_lead_change, static_cast<decltype(&on_lead_change)>(nullptr)})
    EXPECT_EQ(instcomm_pkgdist_ctrl_register_lead_change(nullptr, callback, this),
              PKGDIST_ERR_INVALID);
  EXPECT_EQ(logs::count("ERR:instcomm_pkgdist_ctrl_register_lead_change: levm passed is NULL\n"),
            2u);
  EXPECT_FALSE(G_ctrl_lead_cb_registered);
}

TEST_F(LeadChangeTest, registering_with_a_known_lead_reports_it_once_without_failover) {
  ASSERT_EQ(set_client(on_lead_change), 0u);
  EXPECT_TRUE(G_ctrl_lead_cb_registered);
  EXPECT_TRUE(lead_changes().empty()) << "not before the loop runs";
  run();
  EXPECT_EQ(lead_changes(), (Changes{{kLeadAddress, 100, false}}));
  EXPECT_TRUE(
      logs::contains("CTRL Lead Change Invoke CB - Lead Ip 127.0.0.1 Pid 100 Failover N\n"));
  EXPECT_TRUE(logs::contains("CTRL Lead Change Callback - Lead Ip 127.0.0.1 Pid 100 Failover N\n"));
  EXPECT_EQ(value(CrsCounter::kLeadChangeCb), 1u);
  EXPECT_EQ(samples(CrsHistogram::kLeadChangeQitcTime), 1u);
}

// A lead that CTRL_RX learns at this moment is reported once or twice, never not at all.
TEST_F(LeadChangeTest, the_flag_stands_before_the_known_lead_is_reported) {
  bool stood = false;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex == &G_ctrl_recv_ctx_db.mutex) stood = G_ctrl_lead_cb_registered;
  });
  ASSERT_EQ(set_client(on_lead_change), 0u);
  faults::clear();
  EXPECT_TRUE(stood);
}

// What CTRL_RX does between the registering thread's look at the lead and its report.
TEST_F(LeadChangeTest, a_lead_that_takes_over_during_the_registration_is_the_last_one_reported) {
  clock::advance(G_ctrl_rto.lead_silence_timeout);
  bool done = false;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (done || mutex != &G_ctrl_recv_qitc_db.mutex || !G_ctrl_lead_cb_registered) return;
    done = true;
    receive(ping(1, {}, {.address = kOtherAddress, .pid = 3}));
  });
  ASSERT_EQ(set_client(on_lead_change), 0u);
  faults::clear();
  ASSERT_TRUE(done);
  run();
  ASSERT_FALSE(lead_changes().empty());
  EXPECT_LE(lead_changes().size(), 2u);
  EXPECT_EQ(lead_changes().back(), (LeadChange{kOtherAddress, 3, true}));
}

// CTRL_RX has stored the new lead and is about to report it to the client that is registered
// already; a registration at that moment leaves it to CTRL_RX.
TEST_F(LeadChangeTest, a_registration_while_a_failover_is_being_reported_does_not_deny_it) {
  ASSERT_EQ(set_client(on_lead_change), 0u);
  run();
  lead_changes().clear();
  clock::advance(G_ctrl_rto.lead_silence_timeout);
  bool done = false;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (done || mutex != &G_file_recv_db.mutex) return;  // the data side is told before the client
    done = true;
    EXPECT_EQ(set_client(on_lead_change), 0u);
  });
  receive(ping(1, {}, {.address = kOtherAddress, .pid = 3}));
  faults::clear();
  ASSERT_TRUE(done);
  run();
  EXPECT_EQ(lead_changes(), (Changes{{kOtherAddress, 3, true}}));
  drop_control_channels();
}

TEST_F(LeadChangeTest, registering_without_a_lead_reports_the_first_one_without_failover) {
  forget_lead();
  ASSERT_EQ(set_client(on_lead_change), 0u);
  EXPECT_EQ(run(), 0);
  receive(ping(1, {}, {.pid = 9}));
  run();
  EXPECT_EQ(lead_changes(), (Changes{{kLeadAddress, 9, false}}));
}

TEST_F(LeadChangeTest, a_failover_is_reported_as_one) {
  ASSERT_EQ(set_client(on_lead_change), 0u);
  run();
  lead_changes().clear();
  clock::advance(G_ctrl_rto.lead_silence_timeout);
  receive(ping(1, {}, {.address = kOtherAddress, .pid = 3}));
  run();
  EXPECT_EQ(lead_changes(), (Changes{{kOtherAddress, 3, true}}));
  EXPECT_TRUE(logs::contains("CTRL Lead Change Callback - Lead Ip 127.0.0.9 Pid 3 Failover Y\n"));
}

TEST_F(LeadChangeTest, the_context_survives_its_deliveries) {
  ASSERT_EQ(set_client(on_lead_change), 0u);
  for (uint32_t pid = 1; pid <= 3; ++pid) {
    EXPECT_EQ(pkgdist_ctrl_lead_chg_invoke_cb(7, pid, 0), 0u);
    run();
  }
  EXPECT_EQ(lead_changes().size(), 4u);
  EXPECT_EQ(G_ctrl_recv_ctx_db.count, 1u);
  EXPECT_EQ(G_ctrl_recv_ctx_db.head->recv_id, 1u);
  EXPECT_EQ(G_ctrl_recv_qitc_db.head->channel_id, 1u);
}

TEST_F(LeadChangeTest, any_flag_but_0_is_a_failover) {
  ASSERT_EQ(set_client(on_lead_change), 0u);
  run();
  lead_changes().clear();
  EXPECT_EQ(pkgdist_ctrl_lead_chg_invoke_cb(7, 8, 0x100), 0u);
  run();
  EXPECT_EQ(lead_changes(), (Changes{{7, 8, true}}));
}

TEST_F(LeadChangeTest, registering_again_replaces_the_client_and_counts_the_channel_up) {
  ASSERT_EQ(instcomm_pkgdist_ctrl_register_lead_change(loop(), on_lead_change, nullptr), 0u);
  G_ctrl_recv_ctx_db.head->ctx = this;  // the first report would meet a null fixture
  ASSERT_EQ(set_client(on_lead_change), 0u);
  EXPECT_EQ(G_ctrl_recv_ctx_db.count, 1u);
  EXPECT_EQ(G_ctrl_recv_ctx_db.head->ctx, this);
  EXPECT_EQ(G_ctrl_recv_qitc_db.head->reference_count, 2u);
  run();
  EXPECT_EQ(lead_changes().size(), 2u) << "each registration reports the known lead";
  EXPECT_EQ(set_client(nullptr), 0u);
  EXPECT_TRUE(G_ctrl_recv_ctx_db.empty());
  EXPECT_EQ(G_ctrl_recv_qitc_db.head->reference_count, 1u);
}

TEST_F(LeadChangeTest, unregistering_frees_the_context_and_clears_the_flag) {
  ASSERT_EQ(set_client(on_lead_change), 0u);
  run();
  EXPECT_EQ(set_client(nullptr), 0u);
  EXPECT_FALSE(G_ctrl_lead_cb_registered);
  EXPECT_TRUE(G_ctrl_recv_ctx_db.empty());
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
}

TEST_F(LeadChangeTest, unregistering_what_was_never_registered_is_no_error) {
  EXPECT_EQ(set_client(nullptr), 0u);
  EXPECT_FALSE(G_ctrl_lead_cb_registered);
}

TEST_F(LeadChangeTest, the_registration_is_logged) {
  forget_lead();
  ASSERT_EQ(set_client(on_lead_change), 0u);
  char text[160];
  std::snprintf(text, sizeof text, "CTRL Register Lead Change - levm '%p' cb_func '%p' Ctx '%p'\n",
                static_cast<void*>(loop()), reinterpret_cast<void*>(&on_lead_change),
                static_cast<void*>(this));
  EXPECT_TRUE(logs::contains(text)) << text;
}

// --- Failures ---

TEST_F(LeadChangeTest, a_failed_registration_returns_its_status_and_registers_nothing) {
  faults::fail(Call::kCalloc, 2, ENOMEM);
  EXPECT_EQ(set_client(on_lead_change), PKGDIST_ERR_NOMEM);
  EXPECT_FALSE(G_ctrl_lead_cb_registered);
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
  faults::fail(Call::kQitcCreate, 1, EMFILE);
  EXPECT_EQ(set_client(on_lead_change), PKGDIST_ERR_SYSTEM);
  EXPECT_FALSE(G_ctrl_lead_cb_registered);
}

TEST_F(LeadChangeTest, a_report_that_fails_does_not_fail_the_registration) {
  faults::fail(Call::kQitcPut, 1, ENOMEM);
  EXPECT_EQ(set_client(on_lead_change), 0u);
  EXPECT_TRUE(G_ctrl_lead_cb_registered);
  EXPECT_EQ(run(), 0);
  EXPECT_TRUE(logs::contains(error("invoke_cb", "ctrl lead chg qitc put failed, rc=12(" +
                                                    std::string(std::strerror(ENOMEM)) + ")")));
}

TEST_F(LeadChangeTest, an_invoke_without_context_or_channel_is_not_found) {
  EXPECT_EQ(pkgdist_ctrl_lead_chg_invoke_cb(1, 2, 0), PKGDIST_ERR_NOT_FOUND);
  EXPECT_TRUE(logs::contains(error("invoke_cb", "ctrl lead chg ctx not found")));
  ASSERT_EQ(set_client(on_lead_change), 0u);
  G_ctrl_recv_ctx_db.head->channel_id = 99;
  EXPECT_EQ(pkgdist_ctrl_lead_chg_invoke_cb(1, 2, 0), PKGDIST_ERR_NOT_FOUND);
  EXPECT_TRUE(logs::contains(error("invoke_cb", "ctrl lead chg qitc id '99' not found")));
}

TEST_F(LeadChangeTest, an_invoke_without_memory_says_so) {
  ASSERT_EQ(set_client(on_lead_change), 0u);
  faults::fail(Call::kMalloc, 1, ENOMEM);
  EXPECT_EQ(pkgdist_ctrl_lead_chg_invoke_cb(1, 2, 0), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains(
      error("invoke_cb", "malloc() " + std::to_string(sizeof(pkgdist::LeadChangeEntry)) +
                             " bytes for CTRL_LEAD_CHG_QITC_ENTRY failed")));
}

TEST_F(LeadChangeTest, null_entries_and_failing_gets_are_logged) {
  forget_lead();
  ASSERT_EQ(set_client(on_lead_change), 0u);
  ASSERT_EQ(qitc_put(G_ctrl_recv_qitc_db.head->qitc, nullptr), 0);
  EXPECT_EQ(pkgdist_ctrl_lead_chg_invoke_cb(1, 2, 0), 0u);
  faults::fail(Call::kQitcGet, 1, EINVAL);
  run();
  EXPECT_TRUE(logs::contains(error("qitc_handler", "ctrl lead chg qitc_get() failed, rc=22(" +
                                                       std::string(std::strerror(EINVAL)) + ")")));
  EXPECT_TRUE(lead_changes().empty());
  run();
  EXPECT_TRUE(logs::contains(error("qitc_handler", "ctrl lead chg qitc_get() returned NULL")));
  EXPECT_EQ(lead_changes().size(), 1u);
}

TEST_F(LeadChangeTest, an_entry_whose_client_left_is_dropped) {
  ASSERT_EQ(set_client(on_lead_change), 0u);
  ASSERT_EQ(set_client(on_lead_change), 0u);  // holds the channel beyond the next line
  EXPECT_EQ(set_client(nullptr), 0u);
  run();
  EXPECT_TRUE(lead_changes().empty());
  EXPECT_EQ(logs::count(error("qitc_handler", "ctrl lead chg ctx client not found")), 2u);
}

TEST_F(LeadChangeTest, undelivered_reports_of_an_unregistered_client_are_freed) {
  ASSERT_EQ(set_client(on_lead_change), 0u);
  EXPECT_EQ(set_client(nullptr), 0u);
  EXPECT_EQ(run(), 0);
}

TEST_F(LeadChangeTest, a_client_may_unregister_itself_from_inside) {
  struct Client {
    levm_handle_t loop;
    int called;
    static void callback(uint32_t, uint32_t, bool, void* self) {
      auto& client = *static_cast<Client*>(self);
      ++client.called;
      EXPECT_EQ(instcomm_pkgdist_ctrl_register_lead_change(client.loop, nullptr, nullptr), 0u);
    }
  } client{loop(), 0};
  ASSERT_EQ(instcomm_pkgdist_ctrl_register_lead_change(loop(), Client::callback, &client), 0u);
  EXPECT_EQ(pkgdist_ctrl_lead_chg_invoke_cb(1, 2, 0), 0u);
  run();
  EXPECT_EQ(client.called, 1);
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
}

}  // namespace
