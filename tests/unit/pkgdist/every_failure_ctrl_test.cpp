// Every failure of the control side, in turn: its clients, its messages in both directions, its
// lead, and what one pass of its thread does.
#include <sys/socket.h>
#include <unistd.h>

#include "fault_sweep.h"
#include "pkgdist_ctrl_recv_rx_thread.h"

using namespace support;

namespace {

class CtrlFailures : public FaultSweep {
 protected:
  // Attaches without asking for success.
  PkgdistStatus try_attach(uint32_t msg_class) {
    return tell(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop(), msg_class, on_message, fixture()));
  }
  PkgdistStatus try_register() {
    return tell(instcomm_pkgdist_ctrl_register_lead_change(loop(), on_lead_change, fixture()));
  }
  void detach_all() {
    for (uint32_t msg_class = 2; msg_class <= 4; ++msg_class)
      (void)instcomm_pkgdist_ctrl_mc_hdlr_attach(loop(), msg_class, nullptr, nullptr);
    (void)instcomm_pkgdist_ctrl_register_lead_change(loop(), nullptr, nullptr);
  }
  CtrlTest* fixture() { return this; }
};

TEST_F(CtrlFailures, clients_come_and_go) {
  sweep({.prepare = {},
         .exercise =
             [&] {
               try_attach(2);
               try_attach(3);
               try_register();  // the known lead is reported at once
               deliver();
               detach_all();
             },
         .recover = {}},
        {
            {Call::kMalloc,
             {{"ctrl recv qitc create failed: 12(", PKGDIST_ERR_SYSTEM, 3},
              {"bytes for CTRL_LEAD_CHG_QITC_ENTRY failed"}}},
            {Call::kCalloc,
             {{"bytes for CTRL_RECV_QITC_CL failed", PKGDIST_ERR_NOMEM},
              {"bytes for CTRL_RECV_CTX_CL failed", PKGDIST_ERR_NOMEM},
              {"bytes for CTRL_RECV_QITC_CL failed", PKGDIST_ERR_NOMEM},
              {"bytes for CTRL_RECV_CTX_CL failed", PKGDIST_ERR_NOMEM},
              {"bytes for CTRL_RECV_QITC_CL failed", PKGDIST_ERR_NOMEM},
              {"bytes for CTRL_RECV_CTX_CL failed", PKGDIST_ERR_NOMEM}}},
            {Call::kNew, {{"ctrl recv qitc create failed: 12(", PKGDIST_ERR_SYSTEM, 3}}},
            {Call::kWrite, {{"ctrl lead chg qitc put failed, rc=5"}}},
            {Call::kEventfd, {{"ctrl recv qitc create failed: 5(", PKGDIST_ERR_SYSTEM, 3}}},
            {Call::kEpollCtl,
             {{"ctrl recv qitc attach failed: 5(", PKGDIST_ERR_SYSTEM, 3},
              {"ctrl recv qitc detach failed: 5", 0, 3}}},
            {Call::kQitcCreate, {{"ctrl recv qitc create failed: 5(", PKGDIST_ERR_SYSTEM, 3}}},
            {Call::kQitcPut, {{"ctrl lead chg qitc put failed, rc=5"}}},
            {Call::kQitcGet, {{"ctrl lead chg qitc_get() failed, rc=5", 0, 2}, {"", 0, 3}}},
            {Call::kLevmAttach,
             {{"ctrl recv qitc attach failed: 5(", PKGDIST_ERR_SYSTEM, 3},
              {"ctrl recv qitc detach failed: 5", 0, 3}}},
        });
}

TEST_F(CtrlFailures, a_message_in_one_datagram) {
  sweep({.prepare =
             [&] {
               set_multicast_point(4);
               try_attach(2);
             },
         .exercise =
             [&] {
               receive(control({.sequence = 5}));
               deliver();
             },
         .recover = {}},
        {
            {Call::kMalloc, {{"bytes for CTRL_RMSG_QITC_ENTRY failed"}}},
            {Call::kCalloc,
             {{"bytes for CTRL_RECV_RX_MSG failed"},
              {"bytes for CTRL_RECV_RX_PKT failed"},
              {"bytes for CTRL_RECV_RX_BITMAP failed"},
              {"bytes for RCTRL_ACK_PKT failed"}}},
            {Call::kSendto, {{"ctrl mcast msg ack sendto"}}},
            {Call::kWrite, {{"ctrl_recv msg qitc put failed, rc=5"}}},
            {Call::kQitcPut, {{"ctrl_recv msg qitc put failed, rc=5"}}},
            {Call::kQitcGet, {{"ctrl recv msg qitc_get() failed, rc=5", 0, 2}}},
            {Call::kEncodeCtrlHeader, {{"ctrl msg ack encode failed: -5"}}},
            {Call::kDecode, {{"ctrl mc hdr decode failed: -5"}, {"ctrl mc msg decode failed: -5"}}},
            {Call::kEncodeCtrlHeader, {{"ctrl msg ack encode size"}}, kTooLarge},
        });
}

TEST_F(CtrlFailures, a_message_in_pieces_with_gaps_repeats_and_a_filter) {
  sweep(
      {.prepare =
           [&] {
             set_multicast_point(4);
             G_ctrl_uc_last_sequence = 4;
             try_attach(2);
           },
       .exercise =
           [&] {
             const auto piece = [](uint32_t segment, const char* data) {
               return control({.sequence = 6,
                               .data = data,
                               .segment = segment,
                               .total_size = 5,
                               .segment_size = 2,
                               .card_class = 4,
                               .nodes = {kOtherAddress, kMyAddress}});
             };
             receive(piece(0, "ab"));  // 5 is asked for
             receive(piece(2, "e"));
             receive(piece(2, "e"));
             clock::advance(G_ctrl_rto.segment_timeout * 2);
             pkgdist_ctrl_recv_chk_timeout();  // 5 and the middle of 6
             receive(piece(1, "cd"));
             receive(control({.sequence = 5, .rxmt = true}));
             receive(control({.sequence = 5, .rxmt = true}));
             receive(control({.sequence = 6}), true);  // 5 of the unicast stream is asked for
             receive(control({.sequence = 5}), true);
             receive(control({.sequence = 5, .rxmt = true}), true);
             receive(ping(8, 3));  // 7 and 8 are asked for
             receive(control({.sequence = 7, .card_class = 1}));
             deliver();
           },
       .recover = {}},
      {
          {Call::kMalloc,
           {{"ctrl mc msg decode failed: -5", 0, 4},
            {"bytes for CTRL_RMSG_QITC_ENTRY failed", 0, 4}}},
          {Call::kCalloc, {{"bytes for CTRL_RECV_RX_MC_OOS_MSG failed"},
                           {"bytes for RCTRL_ACK_PKT failed"},
                           {"bytes for CTRL_RECV_RX_MSG failed"},
                           {"bytes for CTRL_RECV_RX_PKT failed"},
                           {"bytes for CTRL_RECV_RX_BITMAP failed"},
                           {"bytes for RCTRL_ACK_PKT failed", 0, 3},
                           {"bytes for CTRL_RECV_RX_PKT failed"},
                           {"bytes for CTRL_RECV_RX_BITMAP failed"},
                           {"bytes for RCTRL_ACK_PKT failed"},
                           {"bytes for CTRL_RECV_RX_UC_OOS_MSG failed"},
                           {"bytes for RCTRL_ACK_PKT failed"},
                           {"bytes for CTRL_RECV_RX_MSG failed"},
                           {"bytes for CTRL_RECV_RX_PKT failed"},
                           {"bytes for CTRL_RECV_RX_BITMAP failed"},
                           {"bytes for RCTRL_ACK_PKT failed"},
                           {"bytes for CTRL_RECV_RX_PKT failed"},
                           {"bytes for CTRL_RECV_RX_BITMAP failed"},
                           {"bytes for RCTRL_ACK_PKT failed", 0, 2},
                           {"bytes for CTRL_RECV_RX_OOS_MSG failed"},
                           {"bytes for RCTRL_ACK_PKT failed"},
                           {"bytes for CTRL_RECV_RX_OOS_MSG failed"},
                           {"bytes for RCTRL_ACK_PKT failed"},
                           {"bytes for RPING_REPLY_CTRL_PKT failed"}}},
          {Call::kSendto, {{"ctrl mcast msg ack sendto", 0, 11}, {"ctrl ucast ping reply sendto"}}},
          {Call::kWrite, {{"ctrl_recv msg qitc put failed, rc=5"}}},
          {Call::kQitcPut, {{"ctrl_recv msg qitc put failed, rc=5", 0, 4}}},
          {Call::kQitcGet, {{"ctrl recv msg qitc_get() failed, rc=5", 0, 5}}},
          {Call::kEncodeCtrlHeader,
           {{"ctrl msg ack encode failed: -5", 0, 11}, {"ctrl hdr ping reply encode failed: -5"}}},
          {Call::kDecode,
           {{"ctrl mc hdr decode failed: -5"},       {"ctrl mc msg decode failed: -5"},
            {"ctrl mc hdr decode failed: -5"},       {"ctrl mc msg decode failed: -5"},
            {"ctrl mc hdr decode failed: -5"},       {"ctrl mc msg decode failed: -5"},
            {"ctrl mc hdr decode failed: -5"},       {"ctrl mc msg decode failed: -5"},
            {"ctrl mc hdr decode failed: -5"},       {"ctrl mc msg decode failed: -5"},
            {"ctrl mc hdr decode failed: -5"},       {"ctrl mc msg decode failed: -5"},
            {"ctrl uc hdr decode failed: -5"},       {"ctrl uc msg decode failed: -5"},
            {"ctrl uc hdr decode failed: -5"},       {"ctrl uc msg decode failed: -5"},
            {"ctrl uc hdr decode failed: -5"},       {"ctrl uc msg decode failed: -5"},
            {"ctrl mc hdr decode failed: -5", 0, 2}, {"ctrl mc msg decode failed: -5"}}},
      });
}

TEST_F(CtrlFailures, a_message_to_the_lead_that_is_acknowledged) {
  sweep({.prepare = {},
         .exercise =
             [&] {
               const std::string data(1391, 'd');
               tell(instcomm_pkgdist_ctrl_send_lead_msg(data.data(), data.size(), 1, loop(),
                                                        on_status, fixture()));
               receive(lead_nack(1, 1), true);
               receive(lead_nack(1), true);
               receive(lead_ack(1), true);
               deliver();
             },
         .recover = {}},
        {
            {Call::kMalloc,
             {{"ctrl recv qitc create failed: 12(", PKGDIST_ERR_SYSTEM},
              {"bytes for CTRL_RECV_MSG_DATA failed", PKGDIST_ERR_NOMEM, 2},
              {"bytes for CTRL_RSTATUS_QITC_ENTRY failed"}}},
            {Call::kCalloc,
             {{"bytes for CTRL_RECV_QITC_CL failed", PKGDIST_ERR_NOMEM},
              {"bytes for CTRL_RECV_CTX_CL failed", PKGDIST_ERR_NOMEM},
              {"bytes for CTRL_RECV_DB failed", PKGDIST_ERR_NOMEM},
              {"bytes for CTRL_RECV_MSG_ARRAY failed", PKGDIST_ERR_NOMEM},
              {"bytes for CTRL_RECV_MSG_RXMT failed", PKGDIST_ERR_NOMEM},
              {"bytes for RCTRL_MSG_PKT failed", PKGDIST_ERR_NOMEM, 2},
              {"bytes for RCTRL_MSG_PKT failed", 0, 3}}},
            {Call::kNew, {{"ctrl recv qitc create failed: 12(", PKGDIST_ERR_SYSTEM}}},
            {Call::kSendto,
             {{"ctrl msg ucast sendto", PKGDIST_ERR_SEND, 2}, {"ctrl msg ucast sendto", 0, 3}}},
            {Call::kWrite, {{"ctrl recv status qitc_put() failed, rc=5"}}},
            {Call::kEventfd, {{"ctrl recv qitc create failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kEpollCtl,
             {{"ctrl recv qitc attach failed: 5(", PKGDIST_ERR_SYSTEM},
              {"ctrl recv qitc detach failed: 5"}}},
            {Call::kQitcCreate, {{"ctrl recv qitc create failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kQitcPut, {{"ctrl recv status qitc_put() failed, rc=5"}}},
            {Call::kQitcGet, {{"ctrl recv status qitc_get() failed, rc=5"}, {""}}},
            {Call::kLevmAttach,
             {{"ctrl recv qitc attach failed: 5(", PKGDIST_ERR_SYSTEM},
              {"ctrl recv qitc detach failed: 5"}}},
            {Call::kEncodeCtrlHeader,
             {{"ctrl msg encode failed: -5", PKGDIST_ERR_ENCODE, 2},
              {"ctrl msg encode failed: -5", 0, 3}}},
            {Call::kEncodeBody,
             {{"ctrl msg encode failed: -5", PKGDIST_ERR_ENCODE, 2},
              {"ctrl msg encode failed: -5", 0, 3}}},
            {Call::kDecode, {{"ctrl uc hdr decode failed: -5", 0, 3}}},
            {Call::kEncodeCtrlHeader,
             {{"ctrl msg encode size", PKGDIST_ERR_ENCODE, 2}, {"ctrl msg encode size", 0, 3}},
             kTooLarge},
            {Call::kEncodeBody,
             {{"ctrl msg encode size", PKGDIST_ERR_ENCODE, 2}, {"ctrl msg encode size", 0, 3}},
             kTooLarge},
        });
}

TEST_F(CtrlFailures, a_message_to_the_lead_that_is_given_up) {
  sweep(
      {.prepare = [&] { G_ctrl_rto.max_retries = 1; },
       .exercise =
           [&] {
             tell(instcomm_pkgdist_ctrl_send_lead_msg("x", 1, 1, loop(), on_status, fixture()));
             tell(instcomm_pkgdist_ctrl_send_lead_msg("y", 1, 1, nullptr, nullptr, nullptr));
             for (int i = 0; i < 3; ++i) {
               clock::advance(kSecond);
               pkgdist_ctrl_recv_chk_timeout();
             }
             deliver();
           },
       .recover = {}},
      {
          {Call::kMalloc,
           {{"ctrl recv qitc create failed: 12(", PKGDIST_ERR_SYSTEM},
            {"bytes for CTRL_RECV_MSG_DATA failed", PKGDIST_ERR_NOMEM, 2},
            {"bytes for CTRL_RSTATUS_QITC_ENTRY failed"}}},
          {Call::kCalloc,
           {{"bytes for CTRL_RECV_QITC_CL failed", PKGDIST_ERR_NOMEM},
            {"bytes for CTRL_RECV_CTX_CL failed", PKGDIST_ERR_NOMEM},
            {"bytes for CTRL_RECV_DB failed", PKGDIST_ERR_NOMEM},
            {"bytes for CTRL_RECV_MSG_ARRAY failed", PKGDIST_ERR_NOMEM},
            {"bytes for CTRL_RECV_MSG_RXMT failed", PKGDIST_ERR_NOMEM},
            {"bytes for RCTRL_MSG_PKT failed", PKGDIST_ERR_NOMEM},
            {"bytes for CTRL_RECV_DB failed", PKGDIST_ERR_NOMEM},
            {"bytes for CTRL_RECV_MSG_ARRAY failed", PKGDIST_ERR_NOMEM},
            {"bytes for CTRL_RECV_MSG_RXMT failed", PKGDIST_ERR_NOMEM},
            {"bytes for RCTRL_MSG_PKT failed", PKGDIST_ERR_NOMEM, 2},
            {"bytes for RCTRL_MSG_PKT failed"}}},
          {Call::kNew, {{"ctrl recv qitc create failed: 12(", PKGDIST_ERR_SYSTEM}}},
          {Call::kSendto,
           {{"ctrl msg ucast sendto", PKGDIST_ERR_SEND, 3}, {"ctrl msg ucast sendto"}}},
          {Call::kWrite, {{"ctrl recv status qitc_put() failed, rc=5"}}},
          {Call::kEventfd, {{"ctrl recv qitc create failed: 5(", PKGDIST_ERR_SYSTEM}}},
          {Call::kEpollCtl,
           {{"ctrl recv qitc attach failed: 5(", PKGDIST_ERR_SYSTEM},
            {"ctrl recv qitc detach failed: 5"}}},
          {Call::kQitcCreate, {{"ctrl recv qitc create failed: 5(", PKGDIST_ERR_SYSTEM}}},
          {Call::kQitcPut, {{"ctrl recv status qitc_put() failed, rc=5"}}},
          {Call::kQitcGet, {{"ctrl recv status qitc_get() failed, rc=5"}, {""}}},
          {Call::kLevmAttach,
           {{"ctrl recv qitc attach failed: 5(", PKGDIST_ERR_SYSTEM},
            {"ctrl recv qitc detach failed: 5"}}},
          {Call::kEncodeCtrlHeader,
           {{"ctrl msg encode failed: -5", PKGDIST_ERR_ENCODE, 3}, {"ctrl msg encode failed: -5"}}},
          {Call::kEncodeBody,
           {{"ctrl msg encode failed: -5", PKGDIST_ERR_ENCODE, 3}, {"ctrl msg encode failed: -5"}}},
      });
}

TEST_F(CtrlFailures, another_lead_takes_over_and_starts_again) {
  const Sender other{.address = kOtherAddress, .pid = 7, .node_id = 0x010203};
  sweep({.prepare =
             [&] {
               try_register();
               deliver();
               lead_changes().clear();
               ASSERT_EQ(want("file"), 0u);
             },
         .exercise =
             [&] {
               receive(ping(9, {}, other));  // too early
               clock::advance(G_ctrl_rto.lead_silence_timeout);
               receive(ping(9, {}, other));
               receive(ping(9, {}, {.address = kOtherAddress, .pid = 8, .node_id = 0x010204}));
               deliver();
             },
         .recover = {}},
        {
            {Call::kMalloc, {{"bytes for CTRL_LEAD_CHG_QITC_ENTRY failed", 0, 2}}},
            {Call::kCalloc,
             {{"bytes for DATA_SEND_FILE_REQ failed"},
              {"bytes for RPING_REPLY_CTRL_PKT failed"},
              {"bytes for DATA_SEND_FILE_REQ failed"},
              {"bytes for RPING_REPLY_CTRL_PKT failed"}}},
            {Call::kStrdup, {{"stddup() for DATA_SEND_FILE_REQ_NAME failed", 0, 2}}},
            {Call::kNew, {{"ctrl nodeid create failed: 12", 0, 2}}},
            {Call::kSendto,
             {{"data req uc sendto"},
              {"ctrl ucast ping reply sendto"},
              {"data req uc sendto"},
              {"ctrl ucast ping reply sendto"}}},
            {Call::kWrite, {{"ctrl lead chg qitc put failed, rc=5"}}},
            {Call::kQitcPut, {{"ctrl lead chg qitc put failed, rc=5", 0, 2}}},
            {Call::kQitcGet, {{"ctrl lead chg qitc_get() failed, rc=5", 0, 3}}},
            {Call::kNodeidCreate, {{"ctrl nodeid create failed: 5", 0, 2}}},
            {Call::kNodeidToStr, {{"ctrl nodeid to str failed: 5", 0, 2}}},
            {Call::kEncodeCtrlHeader, {{"ctrl hdr ping reply encode failed: -5", 0, 2}}},
            {Call::kEncodeDataHeader, {{"data file req encode failed: -5", 0, 2}}},
            {Call::kEncodeBody, {{"data file req encode failed: -5", 0, 2}}},
            {Call::kDecode, {{"ctrl mc hdr decode failed: -5", 0, 3}}},
            {Call::kEncodeCtrlHeader, {{"ctrl hdr ping reply encode size", 0, 2}}, kTooLarge},
        });
}

// One pass of the thread, with local sockets in place of the network.
TEST_F(CtrlFailures, a_pass_of_the_receive_thread) {
  int multicast[2] = {-1, -1};
  int unicast[2] = {-1, -1};
  sweep({.prepare =
             [&] {
               for (const int old : {multicast[1], unicast[1]})
                 if (old != -1) close(old);
               ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, multicast), 0);
               ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, unicast), 0);
               G_ctrl_mc_rx_socket = multicast[0];
               G_ctrl_uc_rx_socket = unicast[0];
               G_ctrl_rto.rx_select_timeout = 0;
               G_ctrl_uc_last_sequence = 4;
               set_multicast_point(4);
               try_attach(2);
               for (const int socket : {multicast[1], unicast[1]}) {
                 const Bytes bytes = control({.sequence = 5});
                 ASSERT_EQ(send(socket, bytes.data(), bytes.size(), 0),
                           static_cast<ssize_t>(bytes.size()));
               }
             },
         .exercise =
             [&] {
               uint64_t last_scan = 0;
               for (int i = 0; i < 3; ++i) pkgdist::ctrl_rx_pass(last_scan);
               deliver();
             },
         .recover = {}},
        {
            {Call::kMalloc, {{"bytes for CTRL_RMSG_QITC_ENTRY failed", 0, 2}}},
            {Call::kCalloc,
             {{"bytes for CTRL_RECV_RX_MSG failed"},
              {"bytes for CTRL_RECV_RX_PKT failed"},
              {"bytes for CTRL_RECV_RX_BITMAP failed"},
              {"bytes for RCTRL_ACK_PKT failed"},
              {"bytes for CTRL_RECV_RX_MSG failed"},
              {"bytes for CTRL_RECV_RX_PKT failed"},
              {"bytes for CTRL_RECV_RX_BITMAP failed"},
              {"bytes for RCTRL_ACK_PKT failed"}}},
            {Call::kSendto, {{"ctrl mcast msg ack sendto", 0, 2}}},
            {Call::kRecvfrom,
             {{"ctrl mc rx recvfrom failed, rc=-1, errno=5"},
              {"ctrl uc rx recvfrom failed, rc=-1, errno=5"}}},
            {Call::kSelect, {{"ctrl uc rx select failed, errno=5", 0, 3}}},
            {Call::kWrite, {{"ctrl_recv msg qitc put failed, rc=5"}}},
            {Call::kQitcPut, {{"ctrl_recv msg qitc put failed, rc=5", 0, 2}}},
            {Call::kQitcGet, {{"ctrl recv msg qitc_get() failed, rc=5", 0, 3}}},
            {Call::kEncodeCtrlHeader, {{"ctrl msg ack encode failed: -5", 0, 2}}},
            {Call::kDecode,
             {{"ctrl mc hdr decode failed: -5"},
              {"ctrl mc msg decode failed: -5"},
              {"ctrl uc hdr decode failed: -5"},
              {"ctrl uc msg decode failed: -5"}}},
        });
  close(multicast[1]);
  close(unicast[1]);
}

}  // namespace
