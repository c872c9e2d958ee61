// Client contexts of the data side and the callback channels that they share.
#include "data_support.h"
#include "platform/inst_common.h"

using namespace support;

namespace {

class DataClientsTest : public DataTest {
 protected:
  // A context of one request.
  uint32_t request_context(levm_handle_t loop) {
    uint32_t recv_id = 0;
    EXPECT_EQ(
        pkgdist_data_recv_alloc_ctx(loop, Client::file_cb, nullptr, nullptr, &client, recv_id), 0u);
    return recv_id;
  }
  static const DataCallbackChannel& only_channel() {
    EXPECT_EQ(G_data_recv_qitc_db.count, 1u);
    return *G_data_recv_qitc_db.head;
  }
  static std::string pointer(const void* address) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", address);
    return text;
  }
};

TEST_F(DataClientsTest, attaching_traces_loop_handler_and_argument) {
  client.attach_all();
  const std::string loop = pointer(client.loop());
  EXPECT_TRUE(logs::contains("DATA File Hdlr Attach - levm '" + loop + "' File_hdlr '" +
                             pointer(reinterpret_cast<void*>(&Client::file_cb)) + "' Ctx '" +
                             pointer(&client) + "'\n"));
  EXPECT_TRUE(logs::contains(
      "DATA File Xact Start Hdlr Attach - levm '" + loop + "' Xact_start_hdlr '" +
      pointer(reinterpret_cast<void*>(&Client::start_cb)) + "' Ctx '" + pointer(&client) + "'\n"));
  EXPECT_TRUE(logs::contains(
      "DATA File Xact Done Hdlr Attach - levm '" + loop + "' Xact_done_hdlr '" +
      pointer(reinterpret_cast<void*>(&Client::done_cb)) + "' Ctx '" + pointer(&client) + "'\n"));
}

TEST_F(DataClientsTest, a_null_loop_is_refused_after_the_trace) {
  EXPECT_EQ(instcomm_pkgdist_data_file_hdlr_attach(nullptr, Client::file_cb, nullptr),
            PKGDIST_ERR_INVALID);
  EXPECT_EQ(instcomm_pkgdist_data_file_xact_start_hdlr_attach(nullptr, Client::start_cb, nullptr),
            PKGDIST_ERR_INVALID);
  EXPECT_EQ(instcomm_pkgdist_data_file_xact_done_hdlr_attach(nullptr, Client::done_cb, nullptr),
            PKGDIST_ERR_INVALID);
  const std::vector<Record>& records = logs::records();
  ASSERT_EQ(records.size(), 6u);
  EXPECT_EQ(records[0].text.find("DATA File Hdlr Attach"), 0u);
  EXPECT_EQ(records[1].text, "ERR:instcomm_pkgdist_data_file_hdlr_attach: levm passed is NULL\n");
  EXPECT_EQ(records[3].text,
            "ERR:instcomm_pkgdist_data_file_xact_start_hdlr_attach: levm passed is NULL\n");
  EXPECT_EQ(records[5].text,
            "ERR:instcomm_pkgdist_data_file_xact_done_hdlr_attach: levm passed is NULL\n");
  EXPECT_TRUE(G_data_recv_ctx_db.empty());
}

TEST_F(DataClientsTest,
       the_leads_transactions_have_reserved_identifiers_and_channels_of_their_own) {
  client.attach_all();
  ASSERT_EQ(G_data_recv_ctx_db.count, 3u);
  std::vector<uint32_t> ids, channels;
  for (DataClientContext* at = G_data_recv_ctx_db.head; at != nullptr; at = at->next) {
    ids.push_back(at->recv_id);
    EXPECT_EQ(at->channel_id, at->recv_id);
    EXPECT_EQ(at->handlers.start != nullptr, at->recv_id == 1);
    EXPECT_EQ(at->handlers.file != nullptr, at->recv_id == 2);
    EXPECT_EQ(at->handlers.done != nullptr, at->recv_id == 3);
  }
  for (DataCallbackChannel* at = G_data_recv_qitc_db.head; at != nullptr; at = at->next)
    channels.push_back(at->channel_id);
  EXPECT_EQ(ids, (std::vector<uint32_t>{1, 2, 3}));
  EXPECT_EQ(channels, ids);
}

TEST_F(DataClientsTest, attaching_again_replaces_the_handler_and_adds_a_reference) {
  client.attach_all();
  Client other;
  EXPECT_EQ(instcomm_pkgdist_data_file_hdlr_attach(client.loop(), Client::file_cb, &other), 0u);
  EXPECT_EQ(G_data_recv_ctx_db.count, 3u);
  EXPECT_EQ(G_data_recv_qitc_db.count, 3u);
  EXPECT_EQ(G_data_recv_ctx_db.find([](const DataClientContext& c) { return c.recv_id == 2; })->ctx,
            &other);
  EXPECT_EQ(
      G_data_recv_qitc_db.find([](const DataCallbackChannel& c) { return c.channel_id == 2; })
          ->reference_count,
      2u);
}

TEST_F(DataClientsTest, attaching_from_another_loop_keeps_the_first_channel) {
  Client other;
  EXPECT_EQ(instcomm_pkgdist_data_file_hdlr_attach(client.loop(), Client::file_cb, &client), 0u);
  EXPECT_EQ(instcomm_pkgdist_data_file_hdlr_attach(other.loop(), Client::file_cb, &other), 0u);
  EXPECT_EQ(G_data_recv_qitc_db.count, 2u);
  const char* const paths[] = {"f"};
  EXPECT_EQ(pkgdist_data_file_invoke_cb(0, 2, 9, paths, 1, 1, 1), 0u);
  other.deliver();
  EXPECT_TRUE(other.files.empty());
  client.deliver();  // by the first loop, to the new client
  EXPECT_EQ(other.files.size(), 1u);
  pkgdist_data_recv_free_ctx(2);
  EXPECT_EQ(G_data_recv_qitc_db.count, 1u);
  EXPECT_EQ(G_data_recv_qitc_db.head->levm, other.loop());
}

TEST_F(DataClientsTest, request_contexts_count_from_ten_and_share_the_loops_channel) {
  const uint32_t first = request_context(client.loop());
  const int descriptor = qitc_handle_fd(only_channel().qitc);
  EXPECT_EQ(first, 10u);
  EXPECT_EQ(only_channel().reference_count, 1u);
  EXPECT_EQ(only_channel().channel_id, 10u);
  EXPECT_TRUE(
      logs::contains("pkgdist_data_recv_alloc_ctx: levm attach passed for recv id 0, qitc "
                     "id 10 to cfd " +
                     std::to_string(descriptor) + "\n"));
  const uint32_t second = request_context(client.loop());
  EXPECT_EQ(second, 11u);
  EXPECT_EQ(only_channel().reference_count, 2u);
  EXPECT_TRUE(
      logs::contains("pkgdist_data_recv_alloc_ctx: Increment ref count for recv id 0, qitc "
                     "id 10 to cfd " +
                     std::to_string(descriptor) + " with count 2\n"));
  EXPECT_EQ(pkgdist_data_recv_free_ctx(first), 0u);
  EXPECT_EQ(only_channel().reference_count, 1u);
  EXPECT_TRUE(
      logs::contains("pkgdist_data_recv_free_ctx: Clean up request for recv id 10, qitc id "
                     "10 to cfd " +
                     std::to_string(descriptor) + " with count 1\n"));
  EXPECT_EQ(pkgdist_data_recv_free_ctx(second), 0u);
  EXPECT_TRUE(
      logs::contains("pkgdist_data_recv_free_ctx: Clean up request for recv id 11, qitc id "
                     "10 to cfd " +
                     std::to_string(descriptor) + " with count 0\n"));
  EXPECT_TRUE(G_data_recv_qitc_db.empty());
  EXPECT_TRUE(G_data_recv_ctx_db.empty());
}

TEST_F(DataClientsTest, requests_of_different_loops_have_different_channels) {
  Client other;
  const uint32_t first = request_context(client.loop());
  const uint32_t second = request_context(other.loop());
  EXPECT_EQ(G_data_recv_qitc_db.count, 2u);
  pkgdist_data_recv_free_ctx(first);
  pkgdist_data_recv_free_ctx(second);
  EXPECT_TRUE(G_data_recv_qitc_db.empty());
}

TEST_F(DataClientsTest, requests_do_not_share_the_channels_of_the_leads_transactions) {
  client.attach_all();
  request_context(client.loop());
  EXPECT_EQ(G_data_recv_qitc_db.count, 4u);
}

TEST_F(DataClientsTest, identifiers_wrap_to_ten) {
  G_data_recv_ctx_db.next_id = 0xFFFFFFFF;
  EXPECT_EQ(request_context(client.loop()), 0xFFFFFFFFu);
  EXPECT_EQ(request_context(client.loop()), 10u);
}

TEST_F(DataClientsTest, a_context_without_a_loop_has_no_channel) {
  const uint32_t id = request_context(nullptr);
  EXPECT_TRUE(G_data_recv_qitc_db.empty());
  EXPECT_EQ(pkgdist_data_file_invoke_cb(0, id, 9, nullptr, 0, 1, 1), PKGDIST_ERR_NOT_FOUND);
  EXPECT_TRUE(logs::contains("ERR:pkgdist_data_file_invoke_cb: data file qitc id '0' not found\n"));
  EXPECT_EQ(pkgdist_data_recv_free_ctx(id), 0u);
  EXPECT_TRUE(G_data_recv_ctx_db.empty());
}

// The urgency among the caller's own channels, and the room that is asked for.
TEST_F(DataClientsTest, its_channels_run_behind_priority_1_and_before_priority_3) {
  static std::vector<int> order;
  order.clear();
  client.on_file = [](const FileEvent&) { order.push_back(2); };
  const auto own_channel = [&](int priority, qitc_handler_t handler) {
    qitc_handle_t channel = nullptr;
    EXPECT_EQ(qitc_handle_create(1, 0, 0, 0, &channel), 0);
    EXPECT_EQ(levm_attach_qitc_handle(client.loop(), channel, handler, priority, 0, 0, 0), 0);
    EXPECT_EQ(qitc_put(channel, nullptr), 0);
    return channel;
  };
  // Of equal ones the one that was attached first would run first, so these are the other way
  // round.
  const qitc_handle_t third = own_channel(3, [](qitc_handle_t) { order.push_back(3); });
  client.attach_all();
  const qitc_handle_t first = own_channel(1, [](qitc_handle_t) { order.push_back(1); });
  const char* const paths[] = {"f"};
  EXPECT_EQ(pkgdist_data_file_invoke_cb(0, 2, 9, paths, 1, 1, 1), 0u);
  (void)levm_run_once(client.loop(), 0);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(pkgdist::DataSide::kChannelEntries, 384u);
  qitc_handle_destroy(first);
  qitc_handle_destroy(third);
}

// Whoever takes the lock of one of the two databases does not hold the other's.
TEST_F(DataClientsTest, the_locks_of_contexts_and_channels_are_never_held_together) {
  unsigned contexts = 0, channels = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    const bool is_context = mutex == &G_data_recv_ctx_db.mutex;
    if (!is_context && mutex != &G_data_recv_qitc_db.mutex) return;
    ++(is_context ? contexts : channels);
    pthread_mutex_t* other = is_context ? &G_data_recv_qitc_db.mutex : &G_data_recv_ctx_db.mutex;
    ASSERT_EQ(pthread_mutex_trylock(other), 0);
    pthread_mutex_unlock(other);
  });
  client.attach_all();
  const char* const paths[] = {"f"};
  for (const uint32_t id : {1u, 2u, 3u, request_context(client.loop())})
    EXPECT_EQ(pkgdist_data_file_invoke_cb(0, id, 9, paths, 1, 1, 1), 0u);
  client.deliver();
  faults::on_lock(nullptr);
  EXPECT_EQ(client.files.size() + client.starts.size() + client.dones.size(), 4u);
  EXPECT_GT(contexts, 8u);
  EXPECT_GT(channels, 8u);
}

TEST_F(DataClientsTest, freeing_an_unknown_identifier_is_no_error) {
  EXPECT_EQ(pkgdist_data_recv_free_ctx(77), 0u);
  EXPECT_TRUE(logs::records().empty());
}

// --- Failures ---

TEST_F(DataClientsTest, without_memory_for_a_channel_nothing_is_attached) {
  faults::fail(Call::kCalloc, 1);
  EXPECT_EQ(instcomm_pkgdist_data_file_hdlr_attach(client.loop(), Client::file_cb, &client),
            PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains("ERR:pkgdist_data_recv_alloc_ctx: malloc() " +
                             std::to_string(sizeof(DataCallbackChannel)) +
                             " bytes for DATA_RECV_QITC_CL failed\n"));
  EXPECT_TRUE(G_data_recv_qitc_db.empty());
  EXPECT_TRUE(G_data_recv_ctx_db.empty());
}

TEST_F(DataClientsTest, without_memory_for_a_context_the_channel_is_given_back) {
  faults::fail(Call::kCalloc, 2);
  EXPECT_EQ(instcomm_pkgdist_data_file_hdlr_attach(client.loop(), Client::file_cb, &client),
            PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains("ERR:pkgdist_data_recv_alloc_ctx: malloc() " +
                             std::to_string(sizeof(DataClientContext)) +
                             " bytes for DATA_RECV_CTX_CL failed\n"));
  EXPECT_TRUE(G_data_recv_qitc_db.empty());
  EXPECT_TRUE(G_data_recv_ctx_db.empty());
}

TEST_F(DataClientsTest, a_channel_that_cannot_be_created_is_a_system_error) {
  faults::fail(Call::kQitcCreate, 1, EMFILE);
  EXPECT_EQ(instcomm_pkgdist_data_file_hdlr_attach(client.loop(), Client::file_cb, &client),
            PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_recv_alloc_ctx: data recv qitc create failed: 24(Too many open files)\n"));
  EXPECT_TRUE(G_data_recv_qitc_db.empty());
}

TEST_F(DataClientsTest, a_channel_that_cannot_be_attached_is_destroyed) {
  faults::fail(Call::kLevmAttach, 1, ENOMEM);
  EXPECT_EQ(instcomm_pkgdist_data_file_hdlr_attach(client.loop(), Client::file_cb, &client),
            PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_recv_alloc_ctx: data recv qitc attach failed: 12(Cannot allocate "
      "memory)\n"));
  EXPECT_TRUE(G_data_recv_qitc_db.empty());
  EXPECT_TRUE(G_data_recv_ctx_db.empty());
}

TEST_F(DataClientsTest, a_failed_attach_drops_an_earlier_attachment_too) {
  client.attach_all();
  Client other;  // so that a new channel is needed
  faults::fail(Call::kQitcCreate, 1, EMFILE);
  EXPECT_EQ(instcomm_pkgdist_data_file_hdlr_attach(other.loop(), Client::file_cb, &other),
            PKGDIST_ERR_SYSTEM);
  EXPECT_EQ(G_data_recv_ctx_db.find([](const DataClientContext& c) { return c.recv_id == 2; }),
            nullptr);
  EXPECT_EQ(G_data_recv_qitc_db.count, 2u);
}

TEST_F(DataClientsTest, a_failed_detach_is_only_logged) {
  const uint32_t id = request_context(client.loop());
  faults::fail(Call::kLevmAttach, 1, ENOENT);
  EXPECT_EQ(pkgdist_data_recv_free_ctx(id), 0u);
  EXPECT_TRUE(logs::contains("ERR:pkgdist_data_recv_free_ctx: ctrl recv qitc detach failed: 2\n"));
  EXPECT_TRUE(G_data_recv_qitc_db.empty());
}

// --- Locks that fail end the process ---

using DataClientsDeathTest = DataClientsTest;

void die_in(Call call, int error) {
  g_inst_common_debug_verbosity_level = 1;
  faults::fail(call, 1, error);
  pkgdist_data_recv_free_ctx(10);
}

TEST_F(DataClientsDeathTest, a_lock_that_fails_ends_the_process) {
  EXPECT_DEATH(die_in(Call::kMutexLock, EINVAL),
               "ERR:pkgdist_data_recv_free_ctx pthread_mutex_lock failed: Invalid argument(.|\n)*"
               "Assertion `0' failed");
}

TEST_F(DataClientsDeathTest, an_unlock_that_fails_ends_the_process) {
  EXPECT_DEATH(die_in(Call::kMutexUnlock, EPERM),
               "ERR:pkgdist_data_recv_free_ctx pthread_mutex_unlock failed: Operation not "
               "permitted(.|\n)*Assertion `0' failed");
}

}  // namespace
