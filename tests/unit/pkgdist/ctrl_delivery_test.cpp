// Results on their way from the receive thread to the caller: queued, delivered, or dropped when
// somebody left meanwhile.
#include "ctrl_support.h"

using namespace support;

namespace {

class Delivery : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    logs::records().clear();
  }
  // Hands a message to the client of a class, in bytes of its own as the invoke wants them.
  static PkgdistStatus invoke(const std::string& text, uint32_t msg_class = 2,
                              uint32_t sequence = 7) {
    auto* bytes = static_cast<uint8_t*>(std::malloc(text.size() + 1));
    std::copy(text.begin(), text.end(), bytes);
    return pkgdist_ctrl_recv_msg_invoke_cb(msg_class, bytes, text.size(), sequence);
  }
  static qitc_handle_t channel_handle() { return G_ctrl_recv_qitc_db.head->qitc; }
  static std::string error(const char* function, const std::string& words) {
    return std::string("ERR:pkgdist_ctrl_recv_") + function + ": " + words + "\n";
  }
  // Makes the channel of a context disappear under it.
  static void orphan(uint32_t recv_id) {
    G_ctrl_recv_ctx_db.find([=](const ControlClientContext& at) { return at.recv_id == recv_id; })
        ->channel_id = 99;
  }
};

// --- Messages ---

TEST_F(Delivery, a_message_reaches_its_client_with_bytes_size_and_context) {
  attach(2);
  EXPECT_EQ(invoke("hello"), 0u);
  EXPECT_TRUE(messages().empty()) << "not before the loop runs";
  EXPECT_TRUE(logs::contains("CTRL MSG Invoke CB - Sequence 7 Msg Class 2 Size 5\n"));
  EXPECT_EQ(run(), 1);
  EXPECT_EQ(messages(), (Words{"hello"}));
  EXPECT_TRUE(logs::contains("CTRL MSG Callback - Sequence 7 Msg Class 2 Size 5\n"));
  EXPECT_EQ(value(CrsCounter::kMsgRecvCb), 1u);
  EXPECT_EQ(samples(CrsHistogram::kMsgQitcTime), 1u);
}

TEST_F(Delivery, several_messages_arrive_in_order_in_one_run) {
  attach(2);
  for (const char* text : {"a", "b", "c"}) EXPECT_EQ(invoke(text), 0u);
  run();
  EXPECT_EQ(messages(), (Words{"a", "b", "c"}));
}

TEST_F(Delivery, without_a_histogram_table_no_time_is_taken) {
  pkgdist_crs_ship_histogram_hdl = nullptr;
  attach(2);
  EXPECT_EQ(invoke("x"), 0u);
  run();
  EXPECT_EQ(messages().size(), 1u);
  EXPECT_EQ(samples(CrsHistogram::kMsgQitcTime), 0u);
}

TEST_F(Delivery, the_time_in_the_queue_is_recorded) {
  attach(2);
  EXPECT_EQ(invoke("x"), 0u);
  clock::advance(50 * kSecond);
  run();
  const auto* buckets = static_cast<const uint32_t*>(pkgdist_crs_ship_histogram_hdl);
  EXPECT_EQ(buckets[7], 1u);
}

TEST_F(Delivery, a_message_without_client_is_freed_and_not_found) {
  EXPECT_EQ(invoke("x", 3), PKGDIST_ERR_NOT_FOUND);
  EXPECT_TRUE(logs::contains(error("msg_invoke_cb", "ctrl recv msg ctx msg class '3' not found")));
}

TEST_F(Delivery, a_class_that_equals_a_status_context_is_not_found) {
  const uint32_t recv_id = status_client();
  EXPECT_EQ(invoke("x", recv_id), PKGDIST_ERR_NOT_FOUND);
  run();
  EXPECT_TRUE(statuses().empty());
}

TEST_F(Delivery, a_class_that_equals_the_lead_change_context_is_not_found) {
  ASSERT_EQ(instcomm_pkgdist_ctrl_register_lead_change(loop(), on_lead_change, this), 0u);
  EXPECT_EQ(invoke("x", 1), PKGDIST_ERR_NOT_FOUND);
}

TEST_F(Delivery, a_message_without_channel_is_freed_and_not_found) {
  attach(2);
  orphan(2);
  EXPECT_EQ(invoke("x"), PKGDIST_ERR_NOT_FOUND);
  EXPECT_TRUE(logs::contains(error("msg_invoke_cb", "ctrl recv msg qitc id '99' not found")));
}

TEST_F(Delivery, without_memory_for_its_entry_a_message_is_freed) {
  attach(2);
  auto* bytes = static_cast<uint8_t*>(std::malloc(1));
  faults::fail(Call::kMalloc, 1, ENOMEM);
  EXPECT_EQ(pkgdist_ctrl_recv_msg_invoke_cb(2, bytes, 1, 7), PKGDIST_ERR_NOMEM);
  EXPECT_EQ(logs::count("bytes for CTRL_RMSG_QITC_ENTRY failed"), 1u);
  EXPECT_EQ(run(), 0);
}

TEST_F(Delivery, a_message_that_cannot_be_queued_is_freed) {
  attach(2);
  faults::fail(Call::kQitcPut, 1, ENOMEM);
  EXPECT_EQ(invoke("x"), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(logs::contains(error("msg_invoke_cb", "ctrl_recv msg qitc put failed, rc=12(" +
                                                        std::string(std::strerror(ENOMEM)) + ")")));
  EXPECT_EQ(run(), 0);
}

// --- The message handler ---

TEST_F(Delivery, an_entry_whose_client_left_is_dropped) {
  attach(2);
  attach(2);  // holds the channel beyond the detach
  EXPECT_EQ(invoke("x"), 0u);
  pkgdist_ctrl_recv_free_ctx(2);
  EXPECT_EQ(run(), 1);
  EXPECT_TRUE(messages().empty());
  EXPECT_TRUE(
      logs::contains(error("msg_qitc_handler", "ctrl recv ctx client msg class '2' not found")));
}

TEST_F(Delivery, entries_left_in_a_destroyed_channel_are_freed) {
  attach(2);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(invoke("undelivered"), 0u);
  EXPECT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop(), 2, nullptr, nullptr), 0u);
  EXPECT_EQ(run(), 0);
  EXPECT_TRUE(messages().empty());
}

TEST_F(Delivery, entries_of_a_destroyed_status_channel_are_freed) {
  const uint32_t recv_id = status_client();
  EXPECT_EQ(pkgdist_ctrl_recv_status_invoke_cb(recv_id, 0, 1), 0u);
  EXPECT_TRUE(pkgdist_ctrl_recv_free_ctx(recv_id));
  EXPECT_EQ(run(), 0);
}

TEST_F(Delivery, a_null_entry_is_logged_and_the_next_one_delivered) {
  attach(2);
  ASSERT_EQ(qitc_put(channel_handle(), nullptr), 0);
  EXPECT_EQ(invoke("behind"), 0u);
  run();
  EXPECT_TRUE(logs::contains(error("msg_qitc_handler", "ctrl recv msg qitc_get() returned NULL")));
  EXPECT_EQ(messages(), (Words{"behind"}));
}

TEST_F(Delivery, a_failing_get_is_logged_and_ends_the_run) {
  attach(2);
  EXPECT_EQ(invoke("x"), 0u);
  faults::fail(Call::kQitcGet, 1, EINVAL);
  run();
  EXPECT_TRUE(messages().empty());
  EXPECT_TRUE(
      logs::contains(error("msg_qitc_handler", "ctrl recv msg qitc_get() failed, rc=22(" +
                                                   std::string(std::strerror(EINVAL)) + ")")));
  run();
  EXPECT_EQ(messages(), (Words{"x"})) << "it is still there";
}

TEST_F(Delivery, an_empty_channel_is_no_error) {
  attach(2);
  pkgdist_ctrl_recv_msg_qitc_handler(channel_handle());
  EXPECT_EQ(logs::count("ERR:"), 0u);
}

TEST_F(Delivery, a_channel_that_is_gone_is_left_alone) {
  attach(2);
  const qitc_handle_t gone = channel_handle();
  pkgdist_ctrl_recv_free_ctx(2);
  faults::clear();
  pkgdist_ctrl_recv_msg_qitc_handler(gone);
  pkgdist_ctrl_recv_status_qitc_handler(gone);
  pkgdist_ctrl_lead_chg_qitc_handler(gone);
  EXPECT_EQ(faults::calls(Call::kQitcGet), 0u);
  EXPECT_EQ(logs::count("ERR:"), 0u);
}

// A client that detaches itself from inside its handler; entries behind are dropped.
TEST_F(Delivery, a_client_may_detach_itself_from_inside) {
  struct Client {
    levm_handle_t loop;
    int called;
    static void handler(const void*, uint64_t, void* self) {
      auto& client = *static_cast<Client*>(self);
      ++client.called;
      EXPECT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(client.loop, 2, nullptr, nullptr), 0u);
    }
  } client{loop(), 0};
  ASSERT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop(), 2, Client::handler, &client), 0u);
  EXPECT_EQ(invoke("first"), 0u);
  EXPECT_EQ(invoke("second"), 0u);
  run();
  EXPECT_EQ(client.called, 1);
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
  EXPECT_EQ(logs::count("ERR:"), 0u);
}

TEST_F(Delivery, a_client_may_replace_itself_from_inside) {
  struct Client {
    CtrlTest* test;
    levm_handle_t loop;
    pkgdist_ctrl_msg_cb next;
    static void handler(const void*, uint64_t, void* self) {
      auto& client = *static_cast<Client*>(self);
      EXPECT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(client.loop, 2, client.next, client.test), 0u);
    }
  } client{this, loop(), on_message};
  ASSERT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop(), 2, Client::handler, &client), 0u);
  EXPECT_EQ(invoke("first"), 0u);
  EXPECT_EQ(invoke("second"), 0u);
  run();
  EXPECT_EQ(messages(), (Words{"second"}));
}

TEST_F(Delivery, no_lock_is_held_while_a_client_runs) {
  struct Probe {
    int free = 0;
    static void handler(const void*, uint64_t, void* self) {
      for (pthread_mutex_t* mutex : {&G_ctrl_recv_ctx_db.mutex, &G_ctrl_recv_qitc_db.mutex,
                                     &G_ctrl_recv_msg_db.mutex, &G_ctrl_recv_rx_msg_db.mutex}) {
        if (pthread_mutex_trylock(mutex) != 0) continue;
        ++static_cast<Probe*>(self)->free;
        pthread_mutex_unlock(mutex);
      }
    }
  } probe;
  ASSERT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop(), 2, Probe::handler, &probe), 0u);
  EXPECT_EQ(invoke("x"), 0u);
  run();
  EXPECT_EQ(probe.free, 4);
}

// --- Statuses ---

TEST_F(Delivery, a_status_reaches_its_client_once_and_frees_it) {
  const uint32_t recv_id = status_client();
  EXPECT_EQ(pkgdist_ctrl_recv_status_invoke_cb(recv_id, PKGDIST_ERR_TIMEOUT, 4), 0u);
  EXPECT_TRUE(logs::contains("CTRL Status Invoke CB - Sequence 4 Status 40101278ca100bf1\n"));
  run();
  EXPECT_EQ(statuses(), (std::vector<PkgdistStatus>{PKGDIST_ERR_TIMEOUT}));
  EXPECT_TRUE(logs::contains("CTRL Status Callback - Sequence 4 Status 40101278ca100bf1\n"));
  EXPECT_EQ(value(CrsCounter::kUcStatusCb), 1u);
  EXPECT_EQ(samples(CrsHistogram::kStatusQitcTime), 1u);
  EXPECT_TRUE(G_ctrl_recv_ctx_db.empty());
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
}

TEST_F(Delivery, the_shared_status_channel_goes_with_the_last_status) {
  const uint32_t first = status_client();
  const uint32_t second = status_client();
  EXPECT_EQ(pkgdist_ctrl_recv_status_invoke_cb(first, 1, 1), 0u);
  run();
  EXPECT_EQ(G_ctrl_recv_qitc_db.head->reference_count, 1u);
  EXPECT_EQ(pkgdist_ctrl_recv_status_invoke_cb(second, 2, 2), 0u);
  run();
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
  EXPECT_EQ(statuses(), (std::vector<PkgdistStatus>{1, 2}));
  EXPECT_EQ(logs::count("ERR:"), 0u);
}

TEST_F(Delivery, a_status_without_context_or_channel_is_not_found) {
  EXPECT_EQ(pkgdist_ctrl_recv_status_invoke_cb(33, 0, 1), PKGDIST_ERR_NOT_FOUND);
  EXPECT_TRUE(logs::contains(error("status_invoke_cb", "ctrl recv status ctx id '33' not found")));
  const uint32_t recv_id = status_client();
  orphan(recv_id);
  EXPECT_EQ(pkgdist_ctrl_recv_status_invoke_cb(recv_id, 0, 1), PKGDIST_ERR_NOT_FOUND);
  EXPECT_TRUE(logs::contains(error("status_invoke_cb", "ctrl recv status qitc id '99' not found")));
}

TEST_F(Delivery, a_status_without_memory_or_room_is_dropped) {
  const uint32_t recv_id = status_client();
  faults::fail(Call::kMalloc, 1, ENOMEM);
  EXPECT_EQ(pkgdist_ctrl_recv_status_invoke_cb(recv_id, 0, 1), PKGDIST_ERR_NOMEM);
  EXPECT_EQ(logs::count("bytes for CTRL_RSTATUS_QITC_ENTRY failed"), 1u);
  faults::fail(Call::kQitcPut, 1, ENOMEM);
  EXPECT_EQ(pkgdist_ctrl_recv_status_invoke_cb(recv_id, 0, 1), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(
      logs::contains(error("status_invoke_cb", "ctrl recv status qitc_put() failed, rc=12(" +
                                                   std::string(std::strerror(ENOMEM)) + ")")));
  EXPECT_EQ(run(), 0);
}

TEST_F(Delivery, a_status_whose_context_left_is_dropped) {
  status_client();  // keeps the channel
  const uint32_t recv_id = status_client();
  EXPECT_EQ(pkgdist_ctrl_recv_status_invoke_cb(recv_id, 0, 1), 0u);
  pkgdist_ctrl_recv_free_ctx(recv_id);
  run();
  EXPECT_TRUE(statuses().empty());
  EXPECT_TRUE(
      logs::contains(error("status_qitc_handler", "ctrl recv status ctx client recv id '" +
                                                      std::to_string(recv_id) + "' not found")));
}

TEST_F(Delivery, null_entries_and_failing_gets_of_statuses_are_logged) {
  const uint32_t recv_id = status_client();
  ASSERT_EQ(qitc_put(channel_handle(), nullptr), 0);
  EXPECT_EQ(pkgdist_ctrl_recv_status_invoke_cb(recv_id, 0, 1), 0u);
  faults::fail(Call::kQitcGet, 1, EINVAL);
  run();
  EXPECT_TRUE(
      logs::contains(error("status_qitc_handler", "ctrl recv status qitc_get() failed, rc=22(" +
                                                      std::string(std::strerror(EINVAL)) + ")")));
  run();
  EXPECT_TRUE(
      logs::contains(error("status_qitc_handler", "ctrl recv status qitc_get() returned NULL")));
  EXPECT_EQ(statuses().size(), 1u);
}

}  // namespace
