// Every failure of the data side, in turn: its clients, requests and lists, files of every kind on
// their way, and the time-outs.
#include "fault_sweep.h"
#include "pkgdist_data_recv_ctx.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_data_recv_repair.h"

using namespace support;

namespace {

class DataFailures : public FaultSweep {
 protected:
  PkgdistStatus get(const std::string& name, uint32_t xact_id, bool with_callback = true) {
    return tell(instcomm_pkgdist_get_file(name.c_str(), 1, 1, 1, xact_id,
                                          with_callback ? client.loop() : nullptr,
                                          with_callback ? Client::file_cb : nullptr, &client));
  }
  // The lead's list, cancel or delete, as the control channel hands it on.
  void lead_says(const FileSend& message) {
    const Bytes bytes = encoded_file_send(message);
    receive(next_control(std::string(bytes.begin(), bytes.end()), PKGDIST_CTRL_CLASS_FILE_SEND));
  }
  // Listed by the lead under one transaction, with a client for its three kinds of callback.
  void listed(const std::string& name, uint32_t location = 1) {
    client.attach_all();
    file_send({.operation = PKGDIST_FILE_SEND_LIST, .names = {name}, .location = location});
  }
  static void process(const Bytes& datagram) {
    pkgdist_data_rx_process_msg(datagram.data(), static_cast<ssize_t>(datagram.size()));
  }
  void time_passes(uint64_t nanoseconds) {
    clock::advance(nanoseconds);
    (void)pkgdist_data_recv_timeout();
  }
};

TEST_F(DataFailures, clients_come_and_go) {
  sweep(
      {.prepare = {},
       .exercise =
           [&] {
             const levm_handle_t loop = client.loop();
             tell(instcomm_pkgdist_data_file_xact_start_hdlr_attach(loop, Client::start_cb,
                                                                    &client));
             tell(instcomm_pkgdist_data_file_hdlr_attach(loop, Client::file_cb, &client));
             tell(instcomm_pkgdist_data_file_xact_done_hdlr_attach(loop, Client::done_cb, &client));
             for (uint32_t kind = 1; kind <= 3; ++kind) (void)pkgdist_data_recv_free_ctx(kind);
           },
       .recover = {}},
      {
          {Call::kMalloc, {{"data recv qitc create failed: 12(", PKGDIST_ERR_SYSTEM, 3}}},
          {Call::kCalloc,
           {{"bytes for DATA_RECV_QITC_CL failed", PKGDIST_ERR_NOMEM},
            {"bytes for DATA_RECV_CTX_CL failed", PKGDIST_ERR_NOMEM},
            {"bytes for DATA_RECV_QITC_CL failed", PKGDIST_ERR_NOMEM},
            {"bytes for DATA_RECV_CTX_CL failed", PKGDIST_ERR_NOMEM},
            {"bytes for DATA_RECV_QITC_CL failed", PKGDIST_ERR_NOMEM},
            {"bytes for DATA_RECV_CTX_CL failed", PKGDIST_ERR_NOMEM}}},
          {Call::kNew, {{"data recv qitc create failed: 12(", PKGDIST_ERR_SYSTEM, 3}}},
          {Call::kEventfd, {{"data recv qitc create failed: 5(", PKGDIST_ERR_SYSTEM, 3}}},
          {Call::kEpollCtl,
           {{"data recv qitc attach failed: 5(", PKGDIST_ERR_SYSTEM, 3},
            {"ctrl recv qitc detach failed: 5", 0, 3}}},
          {Call::kQitcCreate, {{"data recv qitc create failed: 5(", PKGDIST_ERR_SYSTEM, 3}}},
          {Call::kQitcGet, {{"", 0, 3}}},
          {Call::kLevmAttach,
           {{"data recv qitc attach failed: 5(", PKGDIST_ERR_SYSTEM, 3},
            {"ctrl recv qitc detach failed: 5", 0, 3}}},
      });
}

TEST_F(DataFailures, requests_of_the_caller) {
  sweep({.prepare = {},
         .exercise =
             [&] {
               get("file", 1);
               get("file", 2);  // it is on its way already
               get("other", 3, false);
               if (find("other") != nullptr) tell(instcomm_pkgdist_get_file_cancel(3));
               get("third", 4);
               if (find("third") != nullptr) tell(instcomm_pkgdist_get_file_cancel(4));
               deliver();
             },
         .recover = {}},
        {
            {Call::kMalloc,
             {{"data recv qitc create failed: 12(", PKGDIST_ERR_SYSTEM},
              {"bytes for FILE_RECV_XACT_LIST failed", PKGDIST_ERR_NOMEM, 3}}},
            {Call::kCalloc,
             {{"bytes for DATA_RECV_QITC_CL failed", PKGDIST_ERR_NOMEM},
              {"bytes for DATA_RECV_CTX_CL failed", PKGDIST_ERR_NOMEM},
              {"bytes for FILE_RECV_DB failed", PKGDIST_ERR_NOMEM},
              {"bytes for DATA_SEND_FILE_REQ failed", PKGDIST_ERR_NOMEM},
              {"bytes for DATA_RECV_CTX_CL failed", PKGDIST_ERR_NOMEM},
              {"bytes for FILE_RECV_DB failed", PKGDIST_ERR_NOMEM},
              {"bytes for DATA_SEND_FILE_REQ failed", PKGDIST_ERR_NOMEM},
              {"bytes for FILE_STAT_DB failed"},
              {"bytes for DATA_SEND_REQ_DONE failed", PKGDIST_ERR_NOMEM},
              {"bytes for DATA_RECV_CTX_CL failed", PKGDIST_ERR_NOMEM},
              {"bytes for FILE_RECV_DB failed", PKGDIST_ERR_NOMEM},
              {"bytes for DATA_SEND_FILE_REQ failed", PKGDIST_ERR_NOMEM},
              {"bytes for DATA_FILE_QITC_ENTRY failed"},
              {"bytes for DATA_FILE_LIST_QITC failed"},
              {"bytes for FILE_STAT_DB failed"},
              {"bytes for DATA_SEND_REQ_DONE failed", PKGDIST_ERR_NOMEM}}},
            {Call::kRealloc, {{"realloc() file recv xact list", PKGDIST_ERR_NOMEM}}},
            {Call::kStrdup,
             {{"stddup() for RECV_FILE_DB_FILE_PATH failed", PKGDIST_ERR_NOMEM},
              {"stddup() for DATA_SEND_FILE_REQ_NAME failed", PKGDIST_ERR_NOMEM},
              {"stddup() for RECV_FILE_DB_FILE_PATH failed", PKGDIST_ERR_NOMEM},
              {"stddup() for DATA_SEND_FILE_REQ_NAME failed", PKGDIST_ERR_NOMEM},
              {"stddup() for STAT_FILE_DB_FILE_PATH failed"},
              {"stddup() for DATA_SEND_FILE_DONE_NAME failed", PKGDIST_ERR_NOMEM},
              {"stddup() for RECV_FILE_DB_FILE_PATH failed", PKGDIST_ERR_NOMEM},
              {"stddup() for DATA_SEND_FILE_REQ_NAME failed", PKGDIST_ERR_NOMEM},
              {"stddup() for DATA_FILE_PATH_QITC failed"},
              {"stddup() for STAT_FILE_DB_FILE_PATH failed"},
              {"stddup() for DATA_SEND_FILE_DONE_NAME failed", PKGDIST_ERR_NOMEM}}},
            {Call::kNew, {{"data recv qitc create failed: 12(", PKGDIST_ERR_SYSTEM}}},
            {Call::kSendto,
             {{"data req uc sendto", PKGDIST_ERR_SEND, 2},
              {"data req done uc sendto", PKGDIST_ERR_SEND},
              {"data req uc sendto", PKGDIST_ERR_SEND},
              {"data req done uc sendto", PKGDIST_ERR_SEND}}},
            {Call::kWrite, {{"data recv file qitc put failed, rc=5"}}},
            {Call::kEventfd, {{"data recv qitc create failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kEpollCtl, {{"data recv qitc attach failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kCondattrInit, {{"pthread_condattr_init() failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kCondattrSetclock,
             {{"pthread_condattr_setclock() failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kCondInit, {{"pthread_cond_init() failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kQitcCreate, {{"data recv qitc create failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kQitcPut, {{"data recv file qitc put failed, rc=5"}}},
            {Call::kQitcGet, {{"data recv file qitc_get() failed, rc=5", 0, 2}}},
            {Call::kLevmAttach, {{"data recv qitc attach failed: 5(", PKGDIST_ERR_SYSTEM}}},
            {Call::kEncodeDataHeader,
             {{"data file req encode failed: -5", PKGDIST_ERR_ENCODE, 2},
              {"data req done encode failed: -5", PKGDIST_ERR_ENCODE},
              {"data file req encode failed: -5", PKGDIST_ERR_ENCODE},
              {"data req done encode failed: -5", PKGDIST_ERR_ENCODE}}},
            {Call::kEncodeBody,
             {{"data file req encode failed: -5", PKGDIST_ERR_ENCODE, 2},
              {"data req done encode failed: -5", PKGDIST_ERR_ENCODE},
              {"data file req encode failed: -5", PKGDIST_ERR_ENCODE},
              {"data req done encode failed: -5", PKGDIST_ERR_ENCODE}}},
            {Call::kEncodeBody,
             {{"data file req encode size", PKGDIST_ERR_ENCODE, 2},
              {"data req done encode size", PKGDIST_ERR_ENCODE},
              {"data file req encode size", PKGDIST_ERR_ENCODE},
              {"data req done encode size", PKGDIST_ERR_ENCODE}},
             kTooLarge},
        });
}

TEST_F(DataFailures, lists_cancels_and_deletes_of_the_lead) {
  sweep(
      {.prepare =
           [&] {
             client.attach_all();
             put_file("stored", "x");
           },
       .exercise =
           [&] {
             lead_says({PKGDIST_FILE_SEND_LIST, {"one", "two", "one"}});
             lead_says({PKGDIST_FILE_SEND_CANCEL, {}});
             lead_says({PKGDIST_FILE_SEND_LIST, {"three"}, 6});
             lead_says({PKGDIST_FILE_SEND_DELETE, {"three", "stored"}, 7});
             deliver();
           },
       .recover = {}},
      {
          {Call::kMalloc,
           {{"data file send ctrl msg decode failed: -5", 0, 4},
            {"bytes for FILE_RECV_XACT_LIST failed", PKGDIST_STATUS_CANCELLED},
            {"bytes for FILE_RECV_XACT_LIST failed"},
            {"data file send ctrl msg decode failed: -5", 0, 2},
            {"bytes for FILE_RECV_XACT_LIST failed"},
            {"data file send ctrl msg decode failed: -5", 0, 3}}},
          {Call::kCalloc,
           {{"bytes for CTRL_RECV_RX_MSG failed"},
            {"bytes for CTRL_RECV_RX_PKT failed"},
            {"bytes for CTRL_RECV_RX_BITMAP failed"},
            {"bytes for FILE_RECV_DB failed", PKGDIST_STATUS_CANCELLED},
            {"bytes for FILE_RECV_DB failed"},
            {"bytes for DATA_FILE_QITC_ENTRY failed"},
            {"bytes for DATA_FILE_LIST_QITC failed"},
            {"bytes for RCTRL_ACK_PKT failed"},
            {"bytes for CTRL_RECV_RX_MSG failed"},
            {"bytes for CTRL_RECV_RX_PKT failed"},
            {"bytes for CTRL_RECV_RX_BITMAP failed"},
            {"bytes for DATA_FILE_QITC_ENTRY failed"},
            {"bytes for DATA_FILE_LIST_QITC failed"},
            {"bytes for DATA_FILE_QITC_ENTRY failed"},
            {"bytes for DATA_FILE_LIST_QITC failed"},
            {"bytes for FILE_STAT_DB failed"},
            {"bytes for DATA_SEND_REQ_DONE failed"},
            {"bytes for RCTRL_ACK_PKT failed"},
            {"bytes for CTRL_RECV_RX_MSG failed"},
            {"bytes for CTRL_RECV_RX_PKT failed"},
            {"bytes for CTRL_RECV_RX_BITMAP failed"},
            {"bytes for FILE_RECV_DB failed"},
            {"bytes for DATA_FILE_QITC_ENTRY failed"},
            {"bytes for DATA_FILE_LIST_QITC failed"},
            {"bytes for RCTRL_ACK_PKT failed"},
            {"bytes for CTRL_RECV_RX_MSG failed"},
            {"bytes for CTRL_RECV_RX_PKT failed"},
            {"bytes for CTRL_RECV_RX_BITMAP failed"},
            {"bytes for DATA_FILE_QITC_ENTRY failed"},
            {"bytes for DATA_FILE_LIST_QITC failed"},
            {"bytes for FILE_STAT_DB failed"},
            {"bytes for DATA_SEND_REQ_DONE failed"},
            {"bytes for DATA_FILE_QITC_ENTRY failed"},
            {"bytes for RCTRL_ACK_PKT failed"}}},
          {Call::kRealloc, {{"realloc() file recv xact list", PKGDIST_STATUS_CANCELLED}}},
          {Call::kStrdup,
           {{"stddup() for RECV_FILE_DB_FILE_PATH failed", PKGDIST_STATUS_CANCELLED},
            {"stddup() for RECV_FILE_DB_FILE_PATH failed"},
            {"stddup() for DATA_FILE_PATH_QITC failed", 0, 5},
            {"stddup() for STAT_FILE_DB_FILE_PATH failed"},
            {"stddup() for DATA_SEND_FILE_DONE_NAME failed"},
            {"stddup() for RECV_FILE_DB_FILE_PATH failed"},
            {"stddup() for DATA_FILE_PATH_QITC failed", 0, 2},
            {"stddup() for STAT_FILE_DB_FILE_PATH failed"},
            {"stddup() for DATA_SEND_FILE_DONE_NAME failed"}}},
          {Call::kSendto,
           {{"ctrl mcast msg ack sendto"},
            {"data req done uc sendto"},
            {"ctrl mcast msg ack sendto", 0, 2},
            {"data req done uc sendto"},
            {"ctrl mcast msg ack sendto"}}},
          {Call::kWrite, {{"data recv file qitc put failed, rc=5", 0, 3}}},
          {Call::kUnlink,
           {{"failed to unlink file three, rc=-1, errno=5"},
            {"failed to unlink file stored, rc=-1, errno=5"}}},
          {Call::kCondattrInit, {{"pthread_condattr_init() failed: 5(", PKGDIST_STATUS_CANCELLED}}},
          {Call::kCondattrSetclock,
           {{"pthread_condattr_setclock() failed: 5(", PKGDIST_STATUS_CANCELLED}}},
          {Call::kCondInit, {{"pthread_cond_init() failed: 5(", PKGDIST_STATUS_CANCELLED}}},
          {Call::kQitcPut, {{"data recv file qitc put failed, rc=5", 0, 6}}},
          {Call::kQitcGet, {{"data recv file qitc_get() failed, rc=5", 0, 9}}},
          {Call::kEncodeCtrlHeader, {{"ctrl msg ack encode failed: -5", 0, 4}}},
          {Call::kEncodeDataHeader, {{"data req done encode failed: -5", 0, 2}}},
          {Call::kEncodeBody, {{"data req done encode failed: -5", 0, 2}}},
          {Call::kDecode,
           {{"ctrl mc hdr decode failed: -5"},
            {"ctrl mc msg decode failed: -5"},
            {"data file send ctrl msg decode failed: -5"},
            {"ctrl mc hdr decode failed: -5"},
            {"ctrl mc msg decode failed: -5"},
            {"data file send ctrl msg decode failed: -5"},
            {"ctrl mc hdr decode failed: -5"},
            {"ctrl mc msg decode failed: -5"},
            {"data file send ctrl msg decode failed: -5"},
            {"ctrl mc hdr decode failed: -5"},
            {"ctrl mc msg decode failed: -5"},
            {"data file send ctrl msg decode failed: -5"}}},
      });
}

TEST_F(DataFailures, a_file_with_a_gap_and_its_repair) {
  sweep({.prepare = [&] { listed("directory/file"); },
         .exercise =
             [&] {
               announce({.name = "directory/file", .size = 16, .mtime = 1'000'000});
               give(1);
               give(3);  // 2 is asked for
               give(2, true);
               give(0);
               deliver();
             },
         .recover = {}},
        {
            {Call::kMalloc, {{"data send file info msg decode failed: -5"}}},
            {Call::kCalloc,
             {{"bytes for RECV_FILE_BITMAP failed", PKGDIST_ERR_NOMEM},
              {"bytes for RECV_FILE_MISS_BITMAP failed", PKGDIST_ERR_NOMEM},
              {"bytes for DATA_SEND_REQ_SINGLE failed"},
              {"bytes for DATA_FILE_QITC_ENTRY failed"},
              {"bytes for DATA_FILE_LIST_QITC failed"},
              {"bytes for FILE_STAT_DB failed"},
              {"bytes for DATA_SEND_REQ_DONE failed"},
              {"bytes for DATA_FILE_QITC_ENTRY failed"}}},
            {Call::kStrdup,
             {{"Failed to create dir directory/file.tmp, errno 12(Cannot allocate memory)",
               PKGDIST_STATUS_FROM_ERRNO(12)},
              {"stddup() for DATA_FILE_PATH_QITC failed"},
              {"stddup() for STAT_FILE_DB_FILE_PATH failed"},
              {"stddup() for DATA_SEND_FILE_DONE_NAME failed"}}},
            {Call::kSendto, {{"data req single uc sendto"}, {"data req done uc sendto"}}},
            {Call::kOpen, {{"", 0, 2}}},
            {Call::kOpen, {{"", 0, 2}}, ENOENT},
            {Call::kLseek,
             {{"data file write seek failed, path 'directory/file.tmp' offset 4 rc=5"},
              {"data file write seek failed, path 'directory/file.tmp' offset 12 rc=5"},
              {"data file write seek failed, path 'directory/file.tmp' offset 8 rc=5"},
              {"data file write seek failed, path 'directory/file.tmp' offset 0 rc=5"}}},
            {Call::kWrite,
             {{"data file write failed, path 'directory/file.tmp' offset 4 rc=5"},
              {"data file write failed, path 'directory/file.tmp' offset 12 rc=5"},
              {"data file write failed, path 'directory/file.tmp' offset 8 rc=5"},
              {"data file write failed, path 'directory/file.tmp' offset 0 rc=5"},
              {"data recv file qitc put failed, rc=5", 0, 2}}},
            {Call::kWrite,
             {{"data file write failed, path 'directory/file.tmp' offset 4 rc=28",
               PKGDIST_STATUS_FROM_ERRNO(ENOENT)},
              {"data file write failed, path 'directory/file.tmp' offset 12 rc=28",
               PKGDIST_STATUS_FROM_ERRNO(ENOENT)},
              {"data file write failed, path 'directory/file.tmp' offset 8 rc=28",
               PKGDIST_STATUS_FROM_ERRNO(ENOENT)},
              {"data file write failed, path 'directory/file.tmp' offset 0 rc=28",
               PKGDIST_STATUS_FROM_ERRNO(ENOENT)},
              {"data recv file qitc put failed, rc=28", 0, 2}},
             ENOSPC},  // the partial file is deleted, so that writing it again ends at its opening
            {Call::kRename,
             {{"data file recv rename directory/file.tmp to directory/file failed, rc=5",
               PKGDIST_STATUS_FROM_ERRNO(5)}}},
            {Call::kUtime, {{"data file recv futime directory/file.tmp failed, rc=5"}}},
            {Call::kFstat, {{""}}},  // the partial file is made anew
            {Call::kOpenat2,
             {{"", 0, 6},
              {"data file recv futime directory/file.tmp failed, rc=5",
               PKGDIST_STATUS_FROM_ERRNO(5), 2}}},
            {Call::kStat,
             {{"Failed to create dir directory/file.tmp, errno 5(Input/output error)",
               PKGDIST_STATUS_FROM_ERRNO(5), 2}}},
            {Call::kLstat, {{""}}},
            {Call::kMkdir,
             {{"", 0, 2},
              {"Failed to create dir directory/file.tmp, errno 5(Input/output error)",
               PKGDIST_STATUS_FROM_ERRNO(5)}}},
            {Call::kQitcPut, {{"data recv file qitc put failed, rc=5", 0, 2}}},
            {Call::kQitcGet, {{"data recv file qitc_get() failed, rc=5", 0, 6}}},
            {Call::kCreateDirs,
             {{"Failed to create dir directory/file.tmp, errno 5(Input/output error)",
               PKGDIST_STATUS_FROM_ERRNO(5)}}},
            {Call::kEncodeDataHeader,
             {{"data req single encode failed: -5"}, {"data req done encode failed: -5"}}},
            {Call::kEncodeBody,
             {{"data req single encode failed: -5"}, {"data req done encode failed: -5"}}},
            {Call::kDecode,
             {{"data rx hdr decode failed: -5"},
              {"data send file info msg decode failed: -5"},
              {"data rx hdr decode failed: -5"},
              {"data send segment msg decode failed: -5"},
              {"data rx hdr decode failed: -5"},
              {"data send segment msg decode failed: -5"},
              {"data rx hdr decode failed: -5"},
              {"data send segment msg decode failed: -5"},
              {"data rx hdr decode failed: -5"},
              {"data send segment msg decode failed: -5"}}},
        });
}

TEST_F(DataFailures, a_symbolic_link) {
  sweep({.prepare =
             [&] {
               listed("link");
               put_file("target", "x");
             },
         .exercise =
             [&] {
               announce({.name = "link",
                         .size = 6,
                         .segment_size = 1400,
                         .mtime = 1'000'000,
                         .symlink = true});
               const std::string target = "target";
               process(data_datagram(PKGDIST_DATA_MSG_SEGMENT,
                                     encoded_segment(7, 0, Bytes(target.begin(), target.end()))));
               deliver();
             },
         .recover = {}},
        {
            {Call::kMalloc, {{"data send file info msg decode failed: -5"}}},
            {Call::kCalloc,
             {{"bytes for RECV_FILE_BITMAP failed", PKGDIST_ERR_NOMEM},
              {"bytes for RECV_FILE_MISS_BITMAP failed", PKGDIST_ERR_NOMEM},
              {"bytes for DATA_FILE_QITC_ENTRY failed"},
              {"bytes for DATA_FILE_LIST_QITC failed"},
              {"bytes for FILE_STAT_DB failed"},
              {"bytes for DATA_SEND_REQ_DONE failed"},
              {"bytes for DATA_FILE_QITC_ENTRY failed"}}},
            {Call::kStrdup,
             {{"stddup() for DATA_FILE_PATH_QITC failed"},
              {"stddup() for STAT_FILE_DB_FILE_PATH failed"},
              {"stddup() for DATA_SEND_FILE_DONE_NAME failed"}}},
            {Call::kSendto, {{"data req done uc sendto"}}},
            {Call::kWrite, {{"data recv file qitc put failed, rc=5", 0, 2}}},
            {Call::kUnlink, {{""}}},
            {Call::kUtime, {{"data file recv futime link failed, rc=5"}}},
            {Call::kLstat, {{""}}},
            {Call::kSymlink,
             {{"data file recv symlink link failed, rc=5", PKGDIST_STATUS_FROM_ERRNO(5)}}},
            {Call::kQitcPut, {{"data recv file qitc put failed, rc=5", 0, 2}}},
            {Call::kQitcGet, {{"data recv file qitc_get() failed, rc=5", 0, 6}}},
            {Call::kInstSymlink,
             {{"data file recv symlink link failed, rc=5", PKGDIST_STATUS_FROM_ERRNO(5)}}},
            {Call::kEncodeDataHeader, {{"data req done encode failed: -5"}}},
            {Call::kEncodeBody, {{"data req done encode failed: -5"}}},
            {Call::kDecode,
             {{"data rx hdr decode failed: -5"},
              {"data send file info msg decode failed: -5"},
              {"data rx hdr decode failed: -5"},
              {"data send segment msg decode failed: -5"}}},
        });
}

TEST_F(DataFailures, a_file_in_memory) {
  sweep({.prepare = [&] { listed("file", 2); },
         .exercise =
             [&] {
               announce({.size = 8, .location = 2});
               give(0);
               give(1);
               deliver();
             },
         .recover = {}},
        {
            {Call::kMalloc, {{"data send file info msg decode failed: -5"}}},
            {Call::kCalloc,
             {{"bytes for RECV_FILE_BITMAP failed", PKGDIST_ERR_NOMEM},
              {"bytes for RECV_FILE_MISS_BITMAP failed", PKGDIST_ERR_NOMEM},
              {"bytes for DATA_FILE_QITC_ENTRY failed"},
              {"bytes for DATA_FILE_LIST_QITC failed"},
              {"bytes for FILE_STAT_DB failed"},
              {"bytes for DATA_SEND_REQ_DONE failed"},
              {"bytes for DATA_FILE_QITC_ENTRY failed"}}},
            {Call::kStrdup,
             {{"stddup() for DATA_FILE_PATH_QITC failed"},
              {"stddup() for STAT_FILE_DB_FILE_PATH failed"},
              {"stddup() for DATA_SEND_FILE_DONE_NAME failed"}}},
            {Call::kSendto, {{"data req done uc sendto"}}},
            {Call::kWrite, {{"data recv file qitc put failed, rc=5", 0, 2}}},
            {Call::kShmOpen,
             {{"data file recv shm_open file failed, rc=5", PKGDIST_STATUS_FROM_ERRNO(5)}}},
            {Call::kFtruncate,
             {{"data file recv ftruncate file failed, rc=5", PKGDIST_STATUS_FROM_ERRNO(5)}}},
            {Call::kMmap,
             {{"data file recv mmap failed, path file rc=5", PKGDIST_STATUS_FROM_ERRNO(5)}}},
            {Call::kQitcPut, {{"data recv file qitc put failed, rc=5", 0, 2}}},
            {Call::kQitcGet, {{"data recv file qitc_get() failed, rc=5", 0, 6}}},
            {Call::kEncodeDataHeader, {{"data req done encode failed: -5"}}},
            {Call::kEncodeBody, {{"data req done encode failed: -5"}}},
            {Call::kDecode,
             {{"data rx hdr decode failed: -5"},
              {"data send file info msg decode failed: -5"},
              {"data rx hdr decode failed: -5"},
              {"data send segment msg decode failed: -5"},
              {"data rx hdr decode failed: -5"},
              {"data send segment msg decode failed: -5"}}},
        });
}

TEST_F(DataFailures, a_file_that_is_there_already) {
  sweep({.prepare =
             [&] {
               listed("file");
               put_file("file", "1234", 1'000'000);
             },
         .exercise =
             [&] {
               announce({.size = 4, .mtime = 1'000'000});
               if (find() != nullptr) give(0);
               deliver();
             },
         .recover = {}},
        {
            {Call::kMalloc, {{"data send file info msg decode failed: -5"}}},
            {Call::kCalloc,
             {{"bytes for RECV_FILE_BITMAP failed", PKGDIST_ERR_NOMEM},
              {"bytes for RECV_FILE_MISS_BITMAP failed", PKGDIST_ERR_NOMEM},
              {"bytes for DATA_FILE_QITC_ENTRY failed"},
              {"bytes for DATA_FILE_LIST_QITC failed"},
              {"bytes for FILE_STAT_DB failed"},
              {"bytes for DATA_SEND_REQ_DONE failed"},
              {"bytes for DATA_FILE_QITC_ENTRY failed"}}},
            {Call::kStrdup,
             {{"stddup() for DATA_FILE_PATH_QITC failed"},
              {"stddup() for STAT_FILE_DB_FILE_PATH failed"},
              {"stddup() for DATA_SEND_FILE_DONE_NAME failed"}}},
            {Call::kSendto, {{"data req done uc sendto"}}},
            {Call::kWrite, {{"data recv file qitc put failed, rc=5", 0, 2}}},
            {Call::kLstat, {{""}}},
            {Call::kQitcPut, {{"data recv file qitc put failed, rc=5", 0, 2}}},
            {Call::kQitcGet, {{"data recv file qitc_get() failed, rc=5", 0, 6}}},
            {Call::kEncodeDataHeader, {{"data req done encode failed: -5"}}},
            {Call::kEncodeBody, {{"data req done encode failed: -5"}}},
            {Call::kDecode,
             {{"data rx hdr decode failed: -5"}, {"data send file info msg decode failed: -5"}}},
        });
}

TEST_F(DataFailures, files_that_are_interrupted_by_a_new_transfer_a_new_lead_and_a_cancel) {
  sweep(
      {.prepare =
           [&] {
             listed("disk");
             file_send({.operation = PKGDIST_FILE_SEND_LIST, .names = {"memory"}, .location = 2});
           },
       .exercise =
           [&] {
             announce({.id = 1, .name = "disk", .size = 12});
             give(0, false, 1);
             announce({.id = 2, .name = "memory", .size = 12, .location = 2});
             give(0, false, 2);
             pkgdist_data_recv_new_lead();
             announce({.id = 3, .name = "disk", .size = 12});
             give(0, false, 3);
             announce({.id = 4, .name = "memory", .size = 12, .location = 2});
             give(0, false, 4);
             file_send({.operation = PKGDIST_FILE_SEND_CANCEL, .names = {}});
             deliver();
           },
       .recover = {}},
      {
          {Call::kMalloc, {{"data send file info msg decode failed: -5", 0, 4}}},
          {Call::kCalloc,
           {{"bytes for RECV_FILE_BITMAP failed", PKGDIST_ERR_NOMEM},
            {"bytes for RECV_FILE_MISS_BITMAP failed", PKGDIST_ERR_NOMEM},
            {"bytes for RECV_FILE_BITMAP failed", PKGDIST_ERR_NOMEM},
            {"bytes for RECV_FILE_MISS_BITMAP failed", PKGDIST_ERR_NOMEM},
            {"bytes for DATA_SEND_FILE_REQ failed", 0, 2},
            {"bytes for RECV_FILE_BITMAP failed", PKGDIST_ERR_NOMEM},
            {"bytes for RECV_FILE_MISS_BITMAP failed", PKGDIST_ERR_NOMEM},
            {"bytes for RECV_FILE_BITMAP failed", PKGDIST_ERR_NOMEM},
            {"bytes for RECV_FILE_MISS_BITMAP failed", PKGDIST_ERR_NOMEM},
            {"bytes for DATA_FILE_QITC_ENTRY failed"},
            {"bytes for DATA_FILE_LIST_QITC failed"},
            {"bytes for FILE_STAT_DB failed"},
            {"bytes for DATA_SEND_REQ_DONE failed"},
            {"bytes for DATA_FILE_QITC_ENTRY failed"},
            {"bytes for DATA_FILE_LIST_QITC failed"},
            {"bytes for DATA_FILE_QITC_ENTRY failed"},
            {"bytes for FILE_STAT_DB failed"},
            {"bytes for DATA_SEND_REQ_DONE failed"}}},
          {Call::kStrdup,
           {{"stddup() for DATA_SEND_FILE_REQ_NAME failed", 0, 2},
            {"stddup() for DATA_FILE_PATH_QITC failed"},
            {"stddup() for STAT_FILE_DB_FILE_PATH failed"},
            {"stddup() for DATA_SEND_FILE_DONE_NAME failed"},
            {"stddup() for DATA_FILE_PATH_QITC failed"},
            {"stddup() for STAT_FILE_DB_FILE_PATH failed"},
            {"stddup() for DATA_SEND_FILE_DONE_NAME failed"}}},
          {Call::kSendto, {{"data req uc sendto", 0, 2}, {"data req done uc sendto", 0, 2}}},
          {Call::kOpen, {{"", 0, 2}}},
          {Call::kLseek, {{"data file write seek failed, path 'disk.tmp' offset 0 rc=5", 0, 2}}},
          {Call::kWrite,
           {{"data file write failed, path 'disk.tmp' offset 0 rc=5", 0, 2},
            {"data recv file qitc put failed, rc=5", 0, 2}}},
          {Call::kUnlink, {{"", 0, 2}}},
          {Call::kLstat, {{"", 0, 4}}},
          {Call::kFstat, {{"", 0, 8}}},
          {Call::kShmOpen,
           {{"data file recv shm_open memory failed, rc=5", PKGDIST_STATUS_FROM_ERRNO(5)},
            {""},  // an object that cannot be looked at is left
            {"data file recv shm_open memory failed, rc=5", PKGDIST_STATUS_FROM_ERRNO(5)},
            {""}}},
          {Call::kShmUnlink, {{"", 0, 2}}},
          {Call::kFtruncate,
           {{"data file recv ftruncate memory failed, rc=5", PKGDIST_STATUS_FROM_ERRNO(5), 2}}},
          {Call::kMmap,
           {{"data file recv mmap failed, path memory rc=5", PKGDIST_STATUS_FROM_ERRNO(5), 2}}},
          {Call::kQitcPut, {{"data recv file qitc put failed, rc=5", 0, 3}}},
          {Call::kQitcGet, {{"data recv file qitc_get() failed, rc=5", 0, 8}}},
          {Call::kEncodeDataHeader,
           {{"data file req encode failed: -5", 0, 2}, {"data req done encode failed: -5", 0, 2}}},
          {Call::kEncodeBody,
           {{"data file req encode failed: -5", 0, 2}, {"data req done encode failed: -5", 0, 2}}},
          {Call::kDecode,
           {{"data rx hdr decode failed: -5"},
            {"data send file info msg decode failed: -5"},
            {"data rx hdr decode failed: -5"},
            {"data send segment msg decode failed: -5"},
            {"data rx hdr decode failed: -5"},
            {"data send file info msg decode failed: -5"},
            {"data rx hdr decode failed: -5"},
            {"data send segment msg decode failed: -5"},
            {"data rx hdr decode failed: -5"},
            {"data send file info msg decode failed: -5"},
            {"data rx hdr decode failed: -5"},
            {"data send segment msg decode failed: -5"},
            {"data rx hdr decode failed: -5"},
            {"data send file info msg decode failed: -5"},
            {"data rx hdr decode failed: -5"},
            {"data send segment msg decode failed: -5"},
            {"data file send ctrl msg decode failed: -5"}}},
      });
}

TEST_F(DataFailures, files_that_time_out) {
  sweep({.prepare =
             [&] {
               G_data_rto.max_retries = 1;
               client.attach_all();
               for (const char* name : {"announced", "gap", "tail", "silent"})
                 ASSERT_EQ(want(name), 0u);
             },
         .exercise =
             [&] {
               announce({.id = 1, .name = "gap", .size = 16});
               announce({.id = 2, .name = "tail", .size = 16});
               announce({.id = 3, .name = "silent", .size = 16});
               give(0, false, 1);
               give(2, false, 1);
               give(0, false, 2);
               for (int i = 0; i < 4; ++i) time_passes(2 * kSecond);
               deliver();
             },
         .recover = {}},
        {
            {Call::kMalloc, {{"data send file info msg decode failed: -5", 0, 3}}},
            {Call::kCalloc,
             {{"bytes for RECV_FILE_BITMAP failed", PKGDIST_ERR_NOMEM},
              {"bytes for RECV_FILE_MISS_BITMAP failed", PKGDIST_ERR_NOMEM},
              {"bytes for RECV_FILE_BITMAP failed", PKGDIST_ERR_NOMEM},
              {"bytes for RECV_FILE_MISS_BITMAP failed", PKGDIST_ERR_NOMEM},
              {"bytes for RECV_FILE_BITMAP failed", PKGDIST_ERR_NOMEM},
              {"bytes for RECV_FILE_MISS_BITMAP failed", PKGDIST_ERR_NOMEM},
              {"bytes for DATA_SEND_REQ_SINGLE failed"},
              {"bytes for DATA_SEND_FILE_REQ failed"},
              {"bytes for DATA_SEND_REQ_SINGLE failed", 0, 2},
              {"bytes for DATA_SEND_FILE_REQ failed"},
              {"bytes for DATA_FILE_QITC_ENTRY failed"},
              {"bytes for DATA_FILE_LIST_QITC failed"},
              {"bytes for FILE_STAT_DB failed"},
              {"bytes for DATA_SEND_REQ_DONE failed"},
              {"bytes for DATA_FILE_QITC_ENTRY failed"},
              {"bytes for DATA_FILE_LIST_QITC failed"},
              {"bytes for FILE_STAT_DB failed"},
              {"bytes for DATA_SEND_REQ_DONE failed"},
              {"bytes for DATA_FILE_QITC_ENTRY failed"},
              {"bytes for DATA_FILE_LIST_QITC failed"},
              {"bytes for FILE_STAT_DB failed"},
              {"bytes for DATA_SEND_REQ_DONE failed"},
              {"bytes for DATA_FILE_QITC_ENTRY failed"},
              {"bytes for DATA_FILE_LIST_QITC failed"},
              {"bytes for FILE_STAT_DB failed"},
              {"bytes for DATA_SEND_REQ_DONE failed"},
              {"bytes for DATA_FILE_QITC_ENTRY failed"}}},
            {Call::kStrdup,
             {{"stddup() for DATA_SEND_FILE_REQ_NAME failed", 0, 2},
              {"stddup() for DATA_FILE_PATH_QITC failed"},
              {"stddup() for STAT_FILE_DB_FILE_PATH failed"},
              {"stddup() for DATA_SEND_FILE_DONE_NAME failed"},
              {"stddup() for DATA_FILE_PATH_QITC failed"},
              {"stddup() for STAT_FILE_DB_FILE_PATH failed"},
              {"stddup() for DATA_SEND_FILE_DONE_NAME failed"},
              {"stddup() for DATA_FILE_PATH_QITC failed"},
              {"stddup() for STAT_FILE_DB_FILE_PATH failed"},
              {"stddup() for DATA_SEND_FILE_DONE_NAME failed"},
              {"stddup() for DATA_FILE_PATH_QITC failed"},
              {"stddup() for STAT_FILE_DB_FILE_PATH failed"},
              {"stddup() for DATA_SEND_FILE_DONE_NAME failed"}}},
            {Call::kSendto,
             {{"data req single uc sendto"},
              {"data req uc sendto"},
              {"data req single uc sendto", 0, 2},
              {"data req uc sendto"},
              {"data req done uc sendto", 0, 4}}},
            {Call::kOpen, {{"", 0, 2}}},
            {Call::kLseek,
             {{"data file write seek failed, path 'gap.tmp' offset 0 rc=5"},
              {"data file write seek failed, path 'gap.tmp' offset 8 rc=5"},
              {"data file write seek failed, path 'tail.tmp' offset 0 rc=5"}}},
            {Call::kWrite,
             {{"data file write failed, path 'gap.tmp' offset 0 rc=5"},
              {"data file write failed, path 'gap.tmp' offset 8 rc=5"},
              {"data file write failed, path 'tail.tmp' offset 0 rc=5"},
              {"data recv file qitc put failed, rc=5", 0, 2}}},
            {Call::kUnlink, {{"", 0, 2}}},
            {Call::kLstat, {{"", 0, 5}}},
            {Call::kFstat, {{"", 0, 4}}},
            {Call::kQitcPut, {{"data recv file qitc put failed, rc=5", 0, 5}}},
            {Call::kQitcGet, {{"data recv file qitc_get() failed, rc=5", 0, 7}}},
            {Call::kEncodeDataHeader,
             {{"data req single encode failed: -5"},
              {"data file req encode failed: -5"},
              {"data req single encode failed: -5", 0, 2},
              {"data file req encode failed: -5"},
              {"data req done encode failed: -5", 0, 4}}},
            {Call::kEncodeBody,
             {{"data req single encode failed: -5"},
              {"data file req encode failed: -5"},
              {"data req single encode failed: -5", 0, 2},
              {"data file req encode failed: -5"},
              {"data req done encode failed: -5", 0, 4}}},
            {Call::kDecode,
             {{"data rx hdr decode failed: -5"},
              {"data send file info msg decode failed: -5"},
              {"data rx hdr decode failed: -5"},
              {"data send file info msg decode failed: -5"},
              {"data rx hdr decode failed: -5"},
              {"data send file info msg decode failed: -5"},
              {"data rx hdr decode failed: -5"},
              {"data send segment msg decode failed: -5"},
              {"data rx hdr decode failed: -5"},
              {"data send segment msg decode failed: -5"},
              {"data rx hdr decode failed: -5"},
              {"data send segment msg decode failed: -5"}}},
        });
}

TEST_F(DataFailures, questions_of_the_lead_after_a_pass) {
  sweep({.prepare =
             [&] {
               ASSERT_EQ(want("waiting"), 0u);
               ASSERT_EQ(want("done"), 0u);
               announce({.id = 8, .name = "done", .size = 0});
               give(0, false, 8);
               ASSERT_EQ(G_file_stat_db.count, 1u);
             },
         .exercise =
             [&] {
               const auto asks = [](uint32_t id, const char* name) {
                 process(data_datagram(PKGDIST_DATA_MSG_MISS_DONE,
                                       encoded_miss_done(id, name, {kOtherAddress, kMyAddress})));
               };
               asks(8, "done");
               asks(0, "waiting");
               asks(9, "unknown");
             },
         .recover = {}},
        {
            {Call::kMalloc, {{"data send miss done msg decode failed: -5", 0, 6}}},
            {Call::kCalloc, {{"bytes for DATA_SEND_REQ_DONE failed", 0, 3}}},
            {Call::kStrdup, {{"stddup() for DATA_SEND_FILE_DONE_NAME failed", 0, 3}}},
            {Call::kSendto, {{"data req done uc sendto", 0, 3}}},
            {Call::kEncodeDataHeader, {{"data req done encode failed: -5", 0, 3}}},
            {Call::kEncodeBody, {{"data req done encode failed: -5", 0, 3}}},
            {Call::kDecode,
             {{"data rx hdr decode failed: -5"},
              {"data send miss done msg decode failed: -5"},
              {"data rx hdr decode failed: -5"},
              {"data send miss done msg decode failed: -5"},
              {"data rx hdr decode failed: -5"},
              {"data send miss done msg decode failed: -5"}}},
        });
}

}  // namespace
