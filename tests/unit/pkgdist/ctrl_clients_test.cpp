// Client contexts and callback channels: attaching, sharing, counting, and every failure.
#include "ctrl_support.h"

using namespace support;

namespace {

class CtrlClients : public CtrlTest {
 protected:
  void SetUp() override {
    CtrlTest::SetUp();
    logs::records().clear();
  }
  PkgdistStatus attach_with(pkgdist_ctrl_msg_cb handler, uint32_t msg_class, void* ctx) {
    return instcomm_pkgdist_ctrl_mc_hdlr_attach(loop(), msg_class, handler, ctx);
  }
  PkgdistStatus detach(uint32_t msg_class) { return attach_with(nullptr, msg_class, nullptr); }
  static ControlClientContext* context(uint32_t recv_id) {
    return G_ctrl_recv_ctx_db.find(
        [=](const ControlClientContext& at) { return at.recv_id == recv_id; });
  }
  static ControlCallbackChannel* channel(uint32_t channel_id) {
    return G_ctrl_recv_qitc_db.find(
        [=](const ControlCallbackChannel& at) { return at.channel_id == channel_id; });
  }
  static std::string text_of(const char* format, auto... arguments) {
    char text[256];
    std::snprintf(text, sizeof text, format, arguments...);
    return text;
  }
};

// --- Two loops ---

TEST_F(CtrlClients, a_failed_attach_gives_back_its_own_reference_and_no_other) {
  levm_handle_t other = levm_create();
  EXPECT_EQ(attach_with(on_message, 2, this), 0u);
  EXPECT_EQ(attach_with(on_message, 2, this), 0u);
  EXPECT_EQ(detach(2), 0u);  // the first loop's channel stays, as it was attached twice
  ASSERT_EQ(channel(2)->reference_count, 1u);
  faults::fail(Call::kCalloc, 2, ENOMEM);  // the context, after a channel of the other loop
  EXPECT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(other, 2, on_message, this), PKGDIST_ERR_NOMEM);
  ASSERT_EQ(G_ctrl_recv_qitc_db.count, 1u);
  EXPECT_EQ(channel(2)->levm, loop());
  EXPECT_EQ(channel(2)->reference_count, 1u);
  levm_destroy(other);
}

// --- Attach ---

TEST_F(CtrlClients, refuses_a_null_loop) {
  EXPECT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(nullptr, 2, on_message, this),
            PKGDIST_ERR_INVALID);
  EXPECT_TRUE(logs::contains("ERR:instcomm_pkgdist_ctrl_mc_hdlr_attach: levm passed is NULL\n"));
}

TEST_F(CtrlClients, takes_classes_2_to_5_and_no_other) {
  for (const uint32_t msg_class : {0u, 1u, 6u, 10u, 0xFFFFFFFFu}) {
    EXPECT_EQ(attach_with(on_message, msg_class, this), PKGDIST_ERR_INVALID);
    EXPECT_EQ(detach(msg_class), PKGDIST_ERR_INVALID);
  }
  EXPECT_TRUE(
      logs::contains("ERR:instcomm_pkgdist_ctrl_mc_hdlr_attach: msg class '6' is invalid\n"));
  for (const uint32_t msg_class : {2u, 3u, 4u, 5u})
    EXPECT_EQ(attach_with(on_message, msg_class, this), 0u);
  EXPECT_EQ(G_ctrl_recv_ctx_db.count, 4u);
  EXPECT_EQ(G_ctrl_recv_qitc_db.count, 4u) << "one channel per class";
}

TEST_F(CtrlClients, the_loop_is_checked_before_the_class_and_both_before_the_call_is_logged) {
  EXPECT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(nullptr, 9, on_message, this),
            PKGDIST_ERR_INVALID);
  EXPECT_EQ(attach_with(on_message, 9, this), PKGDIST_ERR_INVALID);
  EXPECT_EQ(logs::count("levm passed is NULL"), 1u);
  EXPECT_EQ(logs::count("msg class '9' is invalid"), 1u);
  EXPECT_EQ(logs::records().size(), 2u);
}

TEST_F(CtrlClients, an_attached_class_has_a_context_and_a_channel_of_its_number) {
  ASSERT_EQ(attach_with(on_message, 3, this), 0u);
  ASSERT_NE(context(3), nullptr);
  EXPECT_EQ(context(3)->channel_id, 3u);
  EXPECT_EQ(context(3)->ctx, this);
  EXPECT_EQ(context(3)->handlers.message, &on_message);
  EXPECT_EQ(context(3)->handlers.status, nullptr);
  EXPECT_EQ(context(3)->handlers.lead_change, nullptr);
  ASSERT_NE(channel(3), nullptr);
  EXPECT_EQ(channel(3)->levm, loop());
  EXPECT_EQ(channel(3)->reference_count, 1u);
  const int cfd = qitc_handle_fd(channel(3)->qitc);
  EXPECT_TRUE(logs::contains(text_of("%s: Levm attach passed for recv id 3, qitc id 3 to cfd %d\n",
                                     "pkgdist_ctrl_recv_alloc_ctx", cfd)));
  EXPECT_TRUE(logs::contains(text_of(
      "CTRL MC MSG Hdlr Attach - levm '%p' Msg Class '3' MC_hdlr '%p' Ctx '%p'\n",
      static_cast<void*>(loop()), reinterpret_cast<void*>(&on_message), static_cast<void*>(this))));
}

TEST_F(CtrlClients, detaching_frees_context_and_channel) {
  ASSERT_EQ(attach_with(on_message, 3, this), 0u);
  const int cfd = qitc_handle_fd(channel(3)->qitc);
  EXPECT_EQ(detach(3), 0u);
  EXPECT_TRUE(G_ctrl_recv_ctx_db.empty());
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
  EXPECT_TRUE(logs::contains(
      text_of("%s: Clean up request for recv id 3, qitc id 3 to cfd %d with count 0\n",
              "pkgdist_ctrl_recv_free_ctx", cfd)));
}

TEST_F(CtrlClients, detaching_what_was_never_attached_changes_nothing) {
  ASSERT_EQ(attach_with(on_message, 2, this), 0u);
  EXPECT_EQ(detach(4), 0u);
  EXPECT_EQ(G_ctrl_recv_ctx_db.count, 1u);
  EXPECT_EQ(G_ctrl_recv_qitc_db.count, 1u);
  EXPECT_EQ(logs::count("Clean up request"), 0u);
}

// The urgency among the caller's own channels, and the room that is asked for.
TEST_F(CtrlClients, its_channels_run_behind_priority_1_and_before_priority_3) {
  static std::vector<int> order;
  order.clear();
  qitc_handle_t channels[2] = {};
  const qitc_handler_t handlers[2] = {[](qitc_handle_t) { order.push_back(1); },
                                      [](qitc_handle_t) { order.push_back(3); }};
  const int priorities[2] = {1, 3};
  ASSERT_EQ(attach_with([](const void*, uint64_t, void*) { order.push_back(2); }, 2, nullptr), 0u);
  for (int i : {1, 0}) {
    ASSERT_EQ(qitc_handle_create(1, 0, 0, 0, &channels[i]), 0);
    ASSERT_EQ(levm_attach_qitc_handle(loop(), channels[i], handlers[i], priorities[i], 0, 0, 0), 0);
    ASSERT_EQ(qitc_put(channels[i], nullptr), 0);
  }
  receive(control({.sequence = 1}));
  run();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(pkgdist::ControlSide::kChannelEntries, 576u);
  for (const qitc_handle_t channel : channels) qitc_handle_destroy(channel);
}

// Whoever takes the lock of one of the two databases does not hold the other's.
TEST_F(CtrlClients, the_locks_of_contexts_and_channels_are_never_held_together) {
  unsigned contexts = 0, channels = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    const bool is_context = mutex == &G_ctrl_recv_ctx_db.mutex;
    if (!is_context && mutex != &G_ctrl_recv_qitc_db.mutex) return;
    ++(is_context ? contexts : channels);
    pthread_mutex_t* other = is_context ? &G_ctrl_recv_qitc_db.mutex : &G_ctrl_recv_ctx_db.mutex;
    ASSERT_EQ(pthread_mutex_trylock(other), 0);
    pthread_mutex_unlock(other);
  });
  ASSERT_EQ(attach_with(on_message, 2, this), 0u);
  ASSERT_EQ(instcomm_pkgdist_ctrl_register_lead_change(loop(), on_lead_change, this), 0u);
  ASSERT_EQ(instcomm_pkgdist_ctrl_send_lead_msg("x", 1, 1, loop(), on_status, this), 0u);
  receive(control({.sequence = 1}));
  receive(lead_ack(1), true);
  run();
  EXPECT_EQ(detach(2), 0u);
  faults::clear();
  EXPECT_EQ(messages().size() + statuses().size() + lead_changes().size(), 3u);
  EXPECT_GT(contexts, 8u);
  EXPECT_GT(channels, 8u);
}

// --- Attaching again ---

TEST_F(CtrlClients, attaching_again_replaces_the_client_and_counts_the_channel_up) {
  ASSERT_EQ(attach_with(on_message, 2, nullptr), 0u);
  const int cfd = qitc_handle_fd(channel(2)->qitc);
  ASSERT_EQ(attach_with(on_message, 2, this), 0u);
  EXPECT_EQ(G_ctrl_recv_ctx_db.count, 1u);
  EXPECT_EQ(context(2)->ctx, this);
  EXPECT_EQ(channel(2)->reference_count, 2u);
  EXPECT_TRUE(logs::contains(
      text_of("%s: Increment ref count for recv id 2, qitc id 2 to cfd %d with count 2\n",
              "pkgdist_ctrl_recv_alloc_ctx", cfd)));
}

TEST_F(CtrlClients, each_repeat_leaves_the_channel_one_count_higher_after_the_detach) {
  for (int i = 0; i < 3; ++i) ASSERT_EQ(attach_with(on_message, 2, this), 0u);
  EXPECT_EQ(detach(2), 0u);
  EXPECT_TRUE(G_ctrl_recv_ctx_db.empty());
  ASSERT_NE(channel(2), nullptr);
  EXPECT_EQ(channel(2)->reference_count, 2u);
  ASSERT_EQ(attach_with(on_message, 2, this), 0u);
  EXPECT_EQ(channel(2)->reference_count, 3u) << "the channel is found again";
}

TEST_F(CtrlClients, attaching_again_from_another_loop_keeps_the_delivery_where_it_was) {
  const levm_handle_t other = levm_create();
  ASSERT_EQ(attach_with(on_message, 2, this), 0u);
  ASSERT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(other, 2, on_message, this), 0u);
  EXPECT_EQ(G_ctrl_recv_qitc_db.count, 2u) << "two channels of one number";
  receive(control({.sequence = 1, .data = "m"}));
  EXPECT_EQ(levm_run_once(other, 0), 0);
  run();
  EXPECT_EQ(messages(), (Words{"m"}));
  EXPECT_EQ(detach(2), 0u);
  ASSERT_EQ(G_ctrl_recv_qitc_db.count, 1u);
  EXPECT_EQ(G_ctrl_recv_qitc_db.head->levm, other) << "the detach counts down the first";
  levm_destroy(other);
}

// --- Status contexts ---

TEST_F(CtrlClients, statuses_of_one_loop_share_a_channel) {
  const uint32_t first = status_client();
  const uint32_t second = status_client();
  EXPECT_EQ(first, 10u);
  EXPECT_EQ(second, 11u);
  ASSERT_EQ(G_ctrl_recv_qitc_db.count, 1u);
  EXPECT_EQ(G_ctrl_recv_qitc_db.head->channel_id, 10u);
  EXPECT_EQ(G_ctrl_recv_qitc_db.head->reference_count, 2u);
  EXPECT_EQ(context(second)->channel_id, 10u);
  EXPECT_FALSE(pkgdist_ctrl_recv_free_ctx(first));
  EXPECT_TRUE(pkgdist_ctrl_recv_free_ctx(second)) << "the last takes the channel with it";
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
}

TEST_F(CtrlClients, contexts_and_channels_number_independently) {
  const uint32_t first = status_client();
  pkgdist_ctrl_recv_free_ctx(first);
  G_ctrl_recv_ctx_db.next_id = 40;
  EXPECT_EQ(status_client(), 40u);
  EXPECT_EQ(context(40)->channel_id, 11u);
}

TEST_F(CtrlClients, the_status_channel_is_not_that_of_a_class) {
  ASSERT_EQ(attach_with(on_message, 5, this), 0u);
  status_client();
  EXPECT_EQ(G_ctrl_recv_qitc_db.count, 2u);
}

TEST_F(CtrlClients, another_loop_has_a_status_channel_of_its_own) {
  const levm_handle_t other = levm_create();
  status_client();
  uint32_t recv_id = 0;
  ASSERT_EQ(pkgdist_ctrl_recv_alloc_ctx(other, nullptr, on_status, nullptr, this, recv_id), 0u);
  EXPECT_EQ(G_ctrl_recv_qitc_db.count, 2u);
  EXPECT_TRUE(pkgdist_ctrl_recv_free_ctx(recv_id));
  levm_destroy(other);
}

TEST_F(CtrlClients, freeing_an_unknown_context_is_false) {
  EXPECT_FALSE(pkgdist_ctrl_recv_free_ctx(77));
  EXPECT_FALSE(pkgdist_ctrl_recv_free_ctx(0));
}

TEST_F(CtrlClients, a_context_without_loop_has_no_channel) {
  uint32_t recv_id = 0;
  ASSERT_EQ(pkgdist_ctrl_recv_alloc_ctx(nullptr, nullptr, on_status, nullptr, this, recv_id), 0u);
  EXPECT_EQ(recv_id, 10u);
  EXPECT_EQ(context(10)->channel_id, 0u);
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
  EXPECT_EQ(pkgdist_ctrl_recv_status_invoke_cb(10, 0, 1), PKGDIST_ERR_NOT_FOUND);
  EXPECT_FALSE(pkgdist_ctrl_recv_free_ctx(10));
  EXPECT_TRUE(G_ctrl_recv_ctx_db.empty());
}

// --- Failures ---

TEST_F(CtrlClients, without_memory_for_a_channel_nothing_is_kept) {
  faults::fail(Call::kCalloc, 1, ENOMEM);
  EXPECT_EQ(attach_with(on_message, 2, this), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains(
      text_of("ERR:pkgdist_ctrl_recv_alloc_ctx: malloc() %zu bytes for CTRL_RECV_QITC_CL failed\n",
              sizeof(ControlCallbackChannel))));
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
  EXPECT_TRUE(G_ctrl_recv_ctx_db.empty());
}

TEST_F(CtrlClients, a_channel_that_cannot_be_created_is_reported) {
  faults::fail(Call::kQitcCreate, 1, EMFILE);
  EXPECT_EQ(attach_with(on_message, 2, this), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(logs::contains(
      text_of("ERR:pkgdist_ctrl_recv_alloc_ctx: ctrl recv qitc create failed: 24(%s)\n",
              std::strerror(EMFILE))));
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
}

TEST_F(CtrlClients, a_channel_that_cannot_be_attached_is_destroyed) {
  faults::fail(Call::kLevmAttach, 1, ENOSPC);
  EXPECT_EQ(attach_with(on_message, 2, this), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(logs::contains(
      text_of("ERR:pkgdist_ctrl_recv_alloc_ctx: ctrl recv qitc attach failed: 28(%s)\n",
              std::strerror(ENOSPC))));
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
  EXPECT_EQ(attach_with(on_message, 2, this), 0u) << "no lock is held";
}

TEST_F(CtrlClients, without_memory_for_a_context_a_new_channel_goes_again) {
  faults::fail(Call::kCalloc, 2, ENOMEM);
  EXPECT_EQ(attach_with(on_message, 2, this), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains(
      text_of("ERR:pkgdist_ctrl_recv_alloc_ctx: malloc() %zu bytes for CTRL_RECV_CTX_CL failed\n",
              sizeof(ControlClientContext))));
  EXPECT_EQ(logs::count("pkgdist_ctrl_recv_alloc_ctx: Clean up request for recv id 2, qitc id 2 "),
            1u);
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
  EXPECT_EQ(attach_with(on_message, 2, this), 0u);
}

TEST_F(CtrlClients, without_memory_for_a_context_a_shared_channel_is_counted_down) {
  status_client();
  faults::fail(Call::kCalloc, 1, ENOMEM);
  uint32_t recv_id = 0;
  EXPECT_EQ(pkgdist_ctrl_recv_alloc_ctx(loop(), nullptr, on_status, nullptr, this, recv_id),
            PKGDIST_ERR_NOMEM);
  EXPECT_EQ(recv_id, 0u);
  EXPECT_EQ(G_ctrl_recv_qitc_db.head->reference_count, 1u);
}

TEST_F(CtrlClients, a_channel_that_cannot_be_detached_is_destroyed_all_the_same) {
  ASSERT_EQ(attach_with(on_message, 2, this), 0u);
  faults::fail(Call::kLevmAttach, 1, ENOENT);
  EXPECT_EQ(detach(2), 0u);
  EXPECT_TRUE(logs::contains("ERR:pkgdist_ctrl_recv_free_ctx: ctrl recv qitc detach failed: 2\n"));
  EXPECT_TRUE(G_ctrl_recv_qitc_db.empty());
}

}  // namespace
