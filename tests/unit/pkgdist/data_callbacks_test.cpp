// File events on their way to the caller: queuing, delivery, and channels that go meanwhile.
#include "data_support.h"

using namespace support;

namespace {

class DataCallbacks : public DataTest {
 protected:
  uint32_t request_context() {
    uint32_t recv_id = 0;
    EXPECT_EQ(pkgdist_data_recv_alloc_ctx(client.loop(), Client::file_cb, nullptr, nullptr, &client,
                                          recv_id),
              0u);
    return recv_id;
  }
  static PkgdistStatus invoke(uint32_t recv_id, std::vector<const char*> paths = {"a/b"},
                              PkgdistStatus status = 0x1234) {
    return pkgdist_data_file_invoke_cb(status, recv_id, 9, paths.data(),
                                       static_cast<uint32_t>(paths.size()), 3, 1);
  }
};

TEST_F(DataCallbacks, without_handlers_the_leads_events_are_dropped_silently) {
  for (const uint32_t id : {1u, 2u, 3u}) EXPECT_EQ(invoke(id), PKGDIST_ERR_NOT_FOUND);
  EXPECT_TRUE(logs::records().empty());
}

TEST_F(DataCallbacks, an_unknown_request_is_named) {
  for (const uint32_t id : {0u, 4u, 10u}) {
    EXPECT_EQ(invoke(id), PKGDIST_ERR_NOT_FOUND);
    EXPECT_TRUE(logs::contains("ERR:pkgdist_data_file_invoke_cb: data file recv id '" +
                               std::to_string(id) + "' not found\n"));
  }
}

TEST_F(DataCallbacks, a_start_event_reaches_its_handler) {
  client.attach_all();
  EXPECT_EQ(invoke(1, {"one", "two"}), 0u);
  EXPECT_TRUE(
      logs::contains("DATA Send File Start Invoke CB - Xact Id 9 Num Files 2 Status 1234\n"));
  EXPECT_EQ(value(DrsCounter::kFileStartCb), 0u);
  client.deliver();
  EXPECT_EQ(client.starts, (std::vector<StartEvent>{{0x1234, {"one", "two"}, 3, 1, 9}}));
  EXPECT_TRUE(
      logs::contains("DATA Send File Start Callback - Xact Id 9 Num Files 2 Status 1234\n"));
  EXPECT_EQ(value(DrsCounter::kFileStartCb), 1u);
  EXPECT_EQ(value(DrsCounter::kFileXferCb) + value(DrsCounter::kFileDoneCb), 0u);
}

TEST_F(DataCallbacks, a_start_event_may_have_no_files) {
  client.attach_all();
  EXPECT_EQ(invoke(1, {}), 0u);
  client.deliver();
  EXPECT_EQ(client.starts, (std::vector<StartEvent>{{0x1234, {}, 3, 1, 9}}));
}

TEST_F(DataCallbacks, a_file_event_reaches_its_handler) {
  client.attach_all();
  EXPECT_EQ(invoke(2), 0u);
  EXPECT_TRUE(
      logs::contains("DATA Send File Xfer Invoke CB - Xact Id 9 File a/b Loc 1 Status 1234\n"));
  client.deliver();
  EXPECT_EQ(client.files, (std::vector<FileEvent>{{0x1234, "a/b", 3, 1, 9}}));
  EXPECT_TRUE(
      logs::contains("DATA Send File Xfer Callback - Xact Id 9 File a/b Loc 1 Status 1234\n"));
  EXPECT_EQ(value(DrsCounter::kFileXferCb), 1u);
}

TEST_F(DataCallbacks, a_done_event_reaches_its_handler) {
  client.attach_all();
  EXPECT_EQ(invoke(3, {}), 0u);
  EXPECT_TRUE(logs::contains("DATA Send File Done Invoke CB - Xact Id 9 Status 1234\n"));
  client.deliver();
  EXPECT_EQ(client.dones, (std::vector<DoneEvent>{{0x1234, 9}}));
  EXPECT_TRUE(logs::contains("DATA Send File Done Callback - Xact Id 9 Status 1234\n"));
  EXPECT_EQ(value(DrsCounter::kFileDoneCb), 1u);
}

TEST_F(DataCallbacks, contexts_of_the_leads_transactions_stay_after_their_callbacks) {
  client.attach_all();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(invoke(2), 0u);
    client.deliver();
  }
  EXPECT_EQ(client.files.size(), 2u);
  EXPECT_EQ(G_data_recv_ctx_db.count, 3u);
}

TEST_F(DataCallbacks, a_null_handler_is_skipped_silently) {
  EXPECT_EQ(instcomm_pkgdist_data_file_hdlr_attach(client.loop(), nullptr, nullptr), 0u);
  EXPECT_EQ(instcomm_pkgdist_data_file_xact_start_hdlr_attach(client.loop(), nullptr, nullptr), 0u);
  EXPECT_EQ(instcomm_pkgdist_data_file_xact_done_hdlr_attach(client.loop(), nullptr, nullptr), 0u);
  for (const uint32_t id : {1u, 2u, 3u}) EXPECT_EQ(invoke(id), 0u);
  client.deliver();
  EXPECT_EQ(logs::count("Callback"), 0u);
  EXPECT_EQ(value(DrsCounter::kFileXferCb) + value(DrsCounter::kFileStartCb) +
                value(DrsCounter::kFileDoneCb),
            0u);
  EXPECT_EQ(samples(DrsHistogram::kFileQitcTime), 3u);  // they did arrive
}

TEST_F(DataCallbacks, the_time_in_the_channel_is_recorded) {
  client.attach_all();
  EXPECT_EQ(invoke(2), 0u);
  clock::advance(kSecond);
  client.deliver();
  EXPECT_EQ(samples(DrsHistogram::kFileQitcTime), 1u);
}

TEST_F(DataCallbacks, a_request_is_served_once) {
  const uint32_t id = request_context();
  EXPECT_EQ(invoke(id), 0u);
  client.deliver();
  EXPECT_EQ(client.files.size(), 1u);
  EXPECT_TRUE(G_data_recv_ctx_db.empty());
  EXPECT_TRUE(G_data_recv_qitc_db.empty());
  EXPECT_EQ(invoke(id), PKGDIST_ERR_NOT_FOUND);
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_data_file_invoke_cb: data file recv id '10' not found\n"));
  EXPECT_EQ(logs::count("qitc_get()"), 0u);  // the channel went with the context: no word about it
}

TEST_F(DataCallbacks, a_second_event_of_a_served_request_is_dropped) {
  const uint32_t id = request_context();
  const uint32_t other = request_context();  // keeps the channel
  EXPECT_EQ(invoke(id), 0u);
  EXPECT_EQ(invoke(id), 0u);
  client.deliver();
  EXPECT_EQ(client.files.size(), 1u);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_file_qitc_handler: data file recv client unable to locate id '10'\n"));
  EXPECT_EQ(invoke(other), 0u);
  client.deliver();
  EXPECT_EQ(client.files.size(), 2u);
}

TEST_F(DataCallbacks, events_of_one_channel_keep_their_order) {
  client.attach_all();
  for (const char* name : {"1", "2", "3"}) EXPECT_EQ(invoke(2, {name}), 0u);
  client.deliver();
  ASSERT_EQ(client.files.size(), 3u);
  EXPECT_EQ(client.files[0].path + client.files[1].path + client.files[2].path, "123");
}

TEST_F(DataCallbacks, an_empty_channel_is_no_error) {
  client.attach_all();
  EXPECT_EQ(invoke(2), 0u);
  logs::records().clear();
  client.deliver();
  for (const Record& record : logs::records()) EXPECT_FALSE(record.error) << record.text;
}

// --- Callbacks that call back ---

TEST_F(DataCallbacks, a_callback_may_detach_itself) {
  client.attach_all();
  client.on_file = [](const FileEvent&) { pkgdist_data_recv_free_ctx(2); };
  EXPECT_EQ(invoke(2), 0u);
  EXPECT_EQ(invoke(2), 0u);
  client.deliver();
  EXPECT_EQ(client.files.size(), 1u);  // what was undelivered went with the channel
  EXPECT_EQ(G_data_recv_ctx_db.count, 2u);
}

TEST_F(DataCallbacks, a_callback_may_make_a_new_request) {
  client.on_file = [&](const FileEvent& event) {
    EXPECT_TRUE(all_locks_are_free());
    if (event.path != "first") return;
    EXPECT_EQ(invoke(request_context(), {"second"}), 0u);
  };
  EXPECT_EQ(invoke(request_context(), {"first"}), 0u);
  client.deliver();
  ASSERT_EQ(client.files.size(), 2u);
  EXPECT_EQ(client.files[1].path, "second");
  EXPECT_TRUE(G_data_recv_qitc_db.empty());
}

TEST_F(DataCallbacks, undelivered_events_go_with_their_channel) {
  const uint32_t id = request_context();
  EXPECT_EQ(invoke(id, {"a", "b"}), 0u);
  EXPECT_EQ(pkgdist_data_recv_free_ctx(id), 0u);  // a leak checker looks at the entry and its paths
  client.deliver();
  EXPECT_TRUE(client.files.empty());
}

TEST_F(DataCallbacks, a_handler_of_a_channel_that_is_gone_returns) {
  qitc_handle_t stray = nullptr;
  ASSERT_EQ(qitc_handle_create(1, 0, 0, 0, &stray), 0);
  ASSERT_EQ(qitc_put(stray, &stray), 0);
  pkgdist_data_file_qitc_handler(stray);  // not one of the library's: not touched
  void* entry = nullptr;
  EXPECT_EQ(qitc_get(stray, &entry), 0);
  EXPECT_TRUE(logs::records().empty());
  qitc_handle_destroy(stray);
}

// --- Failures ---

TEST_F(DataCallbacks, without_memory_for_the_entry_nothing_is_queued) {
  client.attach_all();
  faults::fail(Call::kCalloc, 1);
  EXPECT_EQ(invoke(2), PKGDIST_ERR_NOMEM);
  EXPECT_EQ(logs::count("ERR:pkgdist_data_file_invoke_cb: malloc() "), 1u);
  EXPECT_EQ(logs::count(" bytes for DATA_FILE_QITC_ENTRY failed\n"), 1u);
  client.deliver();
  EXPECT_TRUE(client.files.empty());
}

TEST_F(DataCallbacks, without_memory_for_the_path_list_nothing_is_queued) {
  client.attach_all();
  faults::fail(Call::kCalloc, 2);
  EXPECT_EQ(invoke(2, {"a", "b"}), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_file_invoke_cb: malloc() 16 bytes for DATA_FILE_LIST_QITC failed\n"));
  client.deliver();
  EXPECT_TRUE(client.files.empty());
}

TEST_F(DataCallbacks, without_memory_for_a_path_nothing_is_queued) {
  client.attach_all();
  faults::fail(Call::kStrdup, 2);
  EXPECT_EQ(invoke(2, {"a", "b"}), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_data_file_invoke_cb: stddup() for DATA_FILE_PATH_QITC failed\n"));
  EXPECT_EQ(logs::count("Invoke CB"), 0u);
}

TEST_F(DataCallbacks, an_entry_that_cannot_be_queued_is_freed) {
  client.attach_all();
  faults::fail(Call::kQitcPut, 1, ENOMEM);
  EXPECT_EQ(invoke(2), PKGDIST_ERR_SYSTEM);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_file_invoke_cb: data recv file qitc put failed, rc=12(Cannot allocate "
      "memory)\n"));
}

TEST_F(DataCallbacks, a_channel_that_is_gone_is_named) {
  client.attach_all();
  DataClientContext* context =
      G_data_recv_ctx_db.find([](const DataClientContext& c) { return c.recv_id == 2; });
  const uint32_t channel = std::exchange(context->channel_id, 99);
  EXPECT_EQ(invoke(2), PKGDIST_ERR_NOT_FOUND);
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_data_file_invoke_cb: data file qitc id '99' not found\n"));
  context->channel_id = channel;
}

TEST_F(DataCallbacks, a_channel_that_goes_while_the_entry_is_built_is_named) {
  const uint32_t id = request_context();
  int turn = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex == &G_data_recv_qitc_db.mutex && ++turn == 2) pkgdist_data_recv_free_ctx(id);
  });
  EXPECT_EQ(invoke(id), PKGDIST_ERR_NOT_FOUND);
  faults::clear();
  EXPECT_EQ(turn, 2);
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_data_file_invoke_cb: data file qitc id '10' not found\n"));
  EXPECT_TRUE(G_data_recv_qitc_db.empty());
}

TEST_F(DataCallbacks, a_context_that_goes_during_its_callback_is_no_harm) {
  const uint32_t id = request_context();
  client.on_file = [&](const FileEvent&) {
    pkgdist_data_recv_free_ctx(id);
    EXPECT_TRUE(G_data_recv_ctx_db.empty());
  };
  EXPECT_EQ(invoke(id), 0u);
  client.deliver();
  EXPECT_EQ(client.files.size(), 1u);
}

TEST_F(DataCallbacks, a_channel_that_cannot_be_read_ends_the_handlers_run) {
  client.attach_all();
  EXPECT_EQ(invoke(2), 0u);
  faults::fail(Call::kQitcGet, 1, EINVAL);
  EXPECT_EQ(levm_run_once(client.loop(), 0), 1);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_file_qitc_handler: data recv file qitc_get() failed, rc=22(Invalid "
      "argument)\n"));
  EXPECT_TRUE(client.files.empty());
  client.deliver();  // the entry is still there
  EXPECT_EQ(client.files.size(), 1u);
}

TEST_F(DataCallbacks, a_null_entry_ends_the_handlers_run) {
  client.attach_all();
  const DataCallbackChannel* channel =
      G_data_recv_qitc_db.find([](const DataCallbackChannel& c) { return c.channel_id == 2; });
  ASSERT_EQ(qitc_put(channel->qitc, nullptr), 0);
  EXPECT_EQ(invoke(2), 0u);
  EXPECT_EQ(levm_run_once(client.loop(), 0), 1);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_file_qitc_handler: data file recv qitc_get() returned NULL\n"));
  EXPECT_TRUE(client.files.empty());
  client.deliver();
  EXPECT_EQ(client.files.size(), 1u);
}

}  // namespace
