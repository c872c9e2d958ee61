// What a caller may do from inside its callbacks.
#include <optional>

#include "scripted_lead.h"

using support::Bytes;

namespace {

class Callbacks : public testing::Test {
 protected:
  void SetUp() override { lead_.start_node(directory_.path()); }

  support::TemporaryDirectory directory_;
  support::ScriptedLead lead_;
  support::Loop loop_;
};

struct Caller {
  levm_handle_t loop = nullptr;
  int calls = 0;
  std::optional<uint64_t> first, second;
};

TEST_F(Callbacks, message_handler_may_detach_itself_with_messages_still_queued) {
  Caller caller{loop_.get(), 0, {}, {}};
  const auto handler = [](const void*, uint64_t, void* ctx) {
    auto& self = *static_cast<Caller*>(ctx);
    ++self.calls;
    EXPECT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(self.loop, 2, nullptr, nullptr), 0u);
  };
  ASSERT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop_.get(), 2, handler, &caller), 0u);
  for (uint32_t sequence = 1; sequence <= 3; ++sequence) {
    lead_.message(sequence, 2, {1}, 1000, 0);
    lead_.expect_control(PKGDIST_CTRL_MSG_ACK);
  }
  ASSERT_TRUE(loop_.run_until([&] { return caller.calls > 0; }));
  EXPECT_EQ(levm_run_once(loop_.get(), 0), 0);
  EXPECT_EQ(caller.calls, 1);
}

TEST_F(Callbacks, file_callback_may_ask_for_the_next_file) {
  lead_.ping(1);
  lead_.expect_control(PKGDIST_CTRL_MSG_PING_REPLY);
  Caller caller{loop_.get(), 0, {}, {}};
  const auto on_second = [](uint64_t status, const char*, uint32_t, uint32_t, uint32_t, void* ctx) {
    static_cast<Caller*>(ctx)->second = status;
  };
  static pkgdist_data_file_cb second_callback = nullptr;
  second_callback = on_second;
  const auto on_first = [](uint64_t status, const char*, uint32_t, uint32_t, uint32_t, void* ctx) {
    auto& self = *static_cast<Caller*>(ctx);
    self.first = status;
    EXPECT_EQ(instcomm_pkgdist_get_file("b", 1, 1, 1, instcomm_pkgdist_get_receive_xact_id(),
                                        self.loop, second_callback, ctx),
              0u);
  };
  ASSERT_EQ(instcomm_pkgdist_get_file("a", 1, 1, 1, instcomm_pkgdist_get_receive_xact_id(),
                                      loop_.get(), on_first, &caller),
            0u);
  for (uint32_t id : {1u, 2u}) {
    lead_.expect_data(PKGDIST_DATA_MSG_FILE_REQ);
    lead_.file_info(id, id == 1 ? "a" : "b", 1, 1000);
    lead_.segment(id, 0, {'x'});
    ASSERT_TRUE(loop_.run_until(
        [&] { return id == 1 ? caller.first.has_value() : caller.second.has_value(); }));
  }
  EXPECT_EQ(caller.first, 0u);
  EXPECT_EQ(caller.second, 0u);
}

TEST_F(Callbacks, file_callback_may_cancel_another_request) {
  lead_.ping(1);
  lead_.expect_control(PKGDIST_CTRL_MSG_PING_REPLY);
  static uint32_t other = 0;
  other = instcomm_pkgdist_get_receive_xact_id();
  Caller caller{loop_.get(), 0, {}, {}};
  const auto on_other = [](uint64_t status, const char*, uint32_t, uint32_t, uint32_t, void* ctx) {
    static_cast<Caller*>(ctx)->second = status;
  };
  const auto on_file = [](uint64_t status, const char*, uint32_t, uint32_t, uint32_t, void* ctx) {
    static_cast<Caller*>(ctx)->first = status;
    EXPECT_EQ(instcomm_pkgdist_get_file_cancel(other), 0u);
  };
  ASSERT_EQ(instcomm_pkgdist_get_file("other", 1, 1, 1, other, loop_.get(), on_other, &caller), 0u);
  ASSERT_EQ(instcomm_pkgdist_get_file("file", 1, 1, 1, instcomm_pkgdist_get_receive_xact_id(),
                                      loop_.get(), on_file, &caller),
            0u);
  lead_.file_info(1, "file", 1, 1000);
  lead_.segment(1, 0, {'x'});
  ASSERT_TRUE(loop_.run_until([&] { return caller.second.has_value(); }));
  EXPECT_EQ(caller.first, 0u);
  EXPECT_EQ(caller.second, PKGDIST_STATUS_CANCELLED);
}

TEST_F(Callbacks, status_callback_may_send_the_next_message) {
  lead_.ping(1);
  lead_.expect_control(PKGDIST_CTRL_MSG_PING_REPLY);
  Caller caller{loop_.get(), 0, {}, {}};
  const auto on_second = [](uint64_t status, void* ctx) {
    static_cast<Caller*>(ctx)->second = status;
  };
  static pkgdist_ctrl_status_cb second_callback = nullptr;
  second_callback = on_second;
  const auto on_first = [](uint64_t status, void* ctx) {
    auto& self = *static_cast<Caller*>(ctx);
    self.first = status;
    EXPECT_EQ(instcomm_pkgdist_ctrl_send_lead_msg("b", 1, 2, self.loop, second_callback, ctx), 0u);
  };
  ASSERT_EQ(instcomm_pkgdist_ctrl_send_lead_msg("a", 1, 2, loop_.get(), on_first, &caller), 0u);
  for (int i = 0; i < 2; ++i) {
    lead_.acknowledge(lead_.expect_control(PKGDIST_CTRL_MSG_CTRL).header.sequence);
    ASSERT_TRUE(loop_.run_until(
        [&] { return i == 0 ? caller.first.has_value() : caller.second.has_value(); }));
  }
  EXPECT_EQ(caller.first, 0u);
  EXPECT_EQ(caller.second, 0u);
}

}  // namespace
