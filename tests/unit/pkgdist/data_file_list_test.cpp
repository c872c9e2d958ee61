// The lead's file lists and delete lists.
#include "data_support.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_data_recv_send_file.h"

using namespace support;

namespace {

class DataFileList : public DataTest {
 protected:
  void list(const std::vector<std::string>& names, uint32_t location = 1, uint32_t xact_id = 5) {
    file_send({.operation = PKGDIST_FILE_SEND_LIST,
               .names = names,
               .xact_id = xact_id,
               .type = 3,
               .location = location,
               .priority = 2});
  }
  void remove(const std::vector<std::string>& names, uint32_t location = 1) {
    file_send({.operation = PKGDIST_FILE_SEND_DELETE, .names = names, .location = location});
  }
};

TEST_F(DataFileList, every_file_is_entered_under_the_leads_transaction) {
  list({"a", "b/c"});
  EXPECT_TRUE(logs::contains("DATA Recv File List - Xact Id 5 Name a Num 2 Type 3 Loc 1 Prio 2\n"));
  EXPECT_TRUE(logs::contains("DATA Recv File Add - File a Xact Id 5\n"));
  EXPECT_TRUE(logs::contains("DATA Recv File Add - File b/c Xact Id 5\n"));
  EXPECT_EQ(value(DrtCounter::kMcSendFile), 1u);
  ASSERT_EQ(G_file_recv_db.count, 2u);
  const pkgdist_file_recv_entry* entry = find("b/c");
  EXPECT_EQ(entry->type, 3u);
  EXPECT_EQ(entry->location, 1u);
  EXPECT_EQ(entry->priority, 2u);
  EXPECT_EQ(entry->xacts[0].xact_id, 5u);
  EXPECT_EQ(entry->xacts[0].kind, 2u);
  EXPECT_TRUE(wire::sent().empty());  // the lead sends them unasked
}

TEST_F(DataFileList, one_start_callback_names_all_files) {
  client.attach_all();
  list({"a", "b"});
  client.deliver();
  EXPECT_EQ(client.starts, (std::vector<StartEvent>{{0, {"a", "b"}, 3, 1, 5}}));
}

TEST_F(DataFileList, without_a_start_handler_nothing_is_queued_and_nothing_said) {
  list({"a"});
  EXPECT_EQ(G_file_recv_db.count, 1u);
  for (const Record& record : logs::records()) EXPECT_FALSE(record.error) << record.text;
  EXPECT_EQ(logs::count("Invoke CB"), 0u);
}

TEST_F(DataFileList, a_file_on_its_way_gets_the_transaction) {
  EXPECT_EQ(instcomm_pkgdist_get_file("a", 1, 1, 4, 77, nullptr, nullptr, nullptr), 0u);
  list({"a"});
  EXPECT_TRUE(logs::contains("DATA Recv File Add Xact - File a Xact Id 5\n"));
  ASSERT_EQ(G_file_recv_db.count, 1u);
  EXPECT_EQ(find("a")->xact_count, 2);
  EXPECT_EQ(find("a")->xacts[1].kind, 2u);
  EXPECT_EQ(find("a")->priority, 2u);
  EXPECT_EQ(find("a")->type, 1u);
}

TEST_F(DataFileList, a_file_named_twice_holds_the_transaction_twice) {
  client.attach_all();
  list({"file", "file"});
  EXPECT_EQ(find()->xact_count, 2);
  announce({.size = 4});
  give(0);
  client.deliver();
  EXPECT_EQ(client.files.size(), 2u);
  EXPECT_EQ(client.dones, (std::vector<DoneEvent>{{0, 5}, {0, 5}}));
}

TEST_F(DataFileList, an_empty_list_still_starts_a_transaction) {
  client.attach_all();
  list({});
  EXPECT_TRUE(logs::contains("DATA Recv File List - Xact Id 5 Name  Num 0 Type 3 Loc 1 Prio 2\n"));
  EXPECT_EQ(value(DrtCounter::kMcSendFile), 1u);
  EXPECT_TRUE(G_file_recv_db.empty());
  client.deliver();
  EXPECT_EQ(client.starts, (std::vector<StartEvent>{{0, {}, 3, 1, 5}}));
}

TEST_F(DataFileList, names_that_leave_the_location_are_left_out) {
  client.attach_all();
  list({"a", "../b", "c/../../d", "e"});
  EXPECT_EQ(G_file_recv_db.count, 2u);
  EXPECT_NE(find("a"), nullptr);
  EXPECT_NE(find("e"), nullptr);
  EXPECT_EQ(logs::count("ERR:pkgdist_data_send_file_msg_hdlr: file '../b' leaves"), 1u);
  EXPECT_EQ(logs::count("ERR:pkgdist_data_send_file_msg_hdlr: file 'c/../../d' leaves"), 1u);
  client.deliver();
  EXPECT_EQ(client.starts.at(0).paths.size(), 4u);
}

TEST_F(DataFileList, a_location_that_does_not_exist_is_refused) {
  for (const uint32_t location : {0u, 7u, 0xFFFFFFFFu}) list({"a"}, location);
  EXPECT_TRUE(G_file_recv_db.empty());
  EXPECT_EQ(logs::count("storage location"), 3u);
}

TEST_F(DataFileList, a_file_that_cannot_be_entered_does_not_stop_the_list) {
  faults::fail(Call::kStrdup, 1);
  list({"a", "b"});
  EXPECT_EQ(G_file_recv_db.count, 1u);
  EXPECT_NE(find("b"), nullptr);
}

TEST_F(DataFileList, a_message_that_does_not_decode_is_counted) {
  const uint8_t bytes[] = {1, 2};
  pkgdist_data_send_file_msg_hdlr(bytes, sizeof bytes, 0);
  EXPECT_TRUE(logs::contains(
      "ERR:pkgdist_data_send_file_msg_hdlr: data file send ctrl msg decode failed: -1\n"));
  EXPECT_EQ(value(DrtCounter::kMcBadPktRecv), 1u);
}

TEST_F(DataFileList, every_cut_of_a_list_is_survived) {
  const Bytes whole = encoded_file_send({.operation = PKGDIST_FILE_SEND_LIST, .names = {"a", "b"}});
  for (size_t size = 0; size < whole.size(); ++size) {
    const Bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
    pkgdist_data_send_file_msg_hdlr(cut.data(), cut.size(), 0);
  }
  EXPECT_EQ(value(DrtCounter::kMcBadPktRecv), whole.size());
  EXPECT_TRUE(G_file_recv_db.empty());
}

TEST_F(DataFileList, an_unknown_operation_does_nothing) {
  for (const uint32_t operation : {0u, 4u, 0xFFFFFFFFu})
    file_send({.operation = operation, .names = {"a"}});
  EXPECT_TRUE(G_file_recv_db.empty());
  EXPECT_TRUE(logs::records().empty());
  EXPECT_EQ(value(DrtCounter::kMcSendFile) + value(DrtCounter::kMcSendCancel) +
                value(DrtCounter::kMcSendDelete) + value(DrtCounter::kMcBadPktRecv),
            0u);
}

// --- Delete ---

TEST_F(DataFileList, stored_files_are_deleted) {
  put_file("a", "1");
  put_file("b", "2");
  put_file("c", "3");
  remove({"a", "b"});
  EXPECT_TRUE(logs::contains("DATA Recv Delete File List - Xact Id 5 Name a Num 2 Loc 1\n"));
  EXPECT_TRUE(logs::contains("DATA Recv File Deleted - Path " + path("a") + "\n"));
  EXPECT_TRUE(logs::contains("DATA Recv File Deleted - Path " + path("b") + "\n"));
  EXPECT_EQ(value(DrtCounter::kMcSendDelete), 1u);
  EXPECT_EQ(samples(DrsHistogram::kFileUnlinkTime), 2u);
  EXPECT_FALSE(exists(path("a")));
  EXPECT_FALSE(exists(path("b")));
  EXPECT_TRUE(exists(path("c")));
  EXPECT_TRUE(wire::sent().empty());
}

TEST_F(DataFileList, deleting_a_file_that_does_not_exist_is_silent) {
  remove({"nothing"});
  for (const Record& record : logs::records()) EXPECT_FALSE(record.error) << record.text;
  EXPECT_EQ(samples(DrsHistogram::kFileUnlinkTime), 1u);
}

TEST_F(DataFileList, a_file_that_cannot_be_deleted_is_named_and_the_list_goes_on) {
  put_file("b", "2");
  faults::fail(Call::kUnlink, 1, EBUSY);
  remove({"a", "b"});
  EXPECT_TRUE(logs::contains("ERR:pkgdist_data_send_file_msg_hdlr: failed to unlink file " +
                             path("a") + ", rc=-1, errno=16(Device or resource busy)\n"));
  EXPECT_FALSE(exists(path("b")));
}

TEST_F(DataFileList, deleting_a_file_on_its_way_ends_it) {
  client.attach_all();
  begin(2);
  give(0);
  take_traffic();
  remove({"file"});
  EXPECT_TRUE(logs::contains("DATA Recv File Xfer In Progress Deleted - File file\n"));
  EXPECT_TRUE(G_file_recv_db.empty());
  EXPECT_EQ(value(DrsCounter::kFileRemove), 1u);
  EXPECT_FALSE(exists(path("file.tmp")));
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{7, PKGDIST_STATUS_DELETED, "file", 1}}));
  client.deliver();
  EXPECT_EQ(client.files, (std::vector<FileEvent>{{PKGDIST_STATUS_DELETED, "file", 1, 1, 5}}));
  EXPECT_EQ(client.dones, (std::vector<DoneEvent>{{PKGDIST_STATUS_DELETED, 5}}));
}

TEST_F(DataFileList, an_older_copy_goes_with_the_file_on_its_way) {
  put_file("file", "old");
  begin(2);
  remove({"file"});
  EXPECT_FALSE(exists(path("file")));
  EXPECT_TRUE(G_file_recv_db.empty());
}

TEST_F(DataFileList, names_that_leave_the_location_are_not_deleted) {
  put_file("precious", "1");
  remove({"x/../precious"});
  EXPECT_TRUE(exists(path("precious")));
  EXPECT_EQ(faults::calls(Call::kUnlink), 0u);
  EXPECT_EQ(logs::count("leaves the storage location"), 1u);
}

TEST_F(DataFileList, nothing_is_deleted_in_a_location_that_does_not_exist) {
  for (const uint32_t location : {0u, 7u}) remove({"precious"}, location);
  EXPECT_EQ(faults::calls(Call::kUnlink), 0u);
}

TEST_F(DataFileList, names_reach_nothing_through_a_location_that_was_never_set) {
  put_file("precious", "1");
  file_send({.operation = PKGDIST_FILE_SEND_LIST, .names = {path("precious")}, .location = 3});
  EXPECT_TRUE(G_file_recv_db.empty());
  remove({path("precious")}, 3);
  EXPECT_TRUE(exists(path("precious")));
  EXPECT_EQ(faults::calls(Call::kUnlink), 0u);
  EXPECT_EQ(logs::count("storage location '3' has no path"), 2u);
}

TEST_F(DataFileList, an_empty_delete_list_is_only_counted) {
  remove({});
  EXPECT_TRUE(logs::contains("DATA Recv Delete File List - Xact Id 5 Name  Num 0 Loc 1\n"));
  EXPECT_EQ(value(DrtCounter::kMcSendDelete), 1u);
}

TEST_F(DataFileList, a_location_that_was_set_to_nothing_takes_no_files_of_the_lead) {
  EXPECT_EQ(instcomm_pkgdist_set_recv_repository("", 3, false), 0u);
  list({path("f").substr(1)}, 3);
  remove({path("f").substr(1)}, 3);
  EXPECT_EQ(G_file_recv_db.count, 0u);
  EXPECT_EQ(faults::calls(Call::kUnlink), 0u);
  EXPECT_EQ(logs::count("storage location '3' has no path"), 2u);
}

TEST_F(DataFileList, a_name_that_is_too_long_for_its_location_is_left_out) {
  const std::string longest(251 - directory().size(), 'n');
  list({longest, longest + "n", "f"});
  EXPECT_EQ(G_file_recv_db.count, 2u);
  EXPECT_NE(find(longest), nullptr);
  EXPECT_NE(find("f"), nullptr);
  EXPECT_EQ(logs::count("file '" + longest + "n' is too long for storage location 1\n"), 1u);
  const Bytes question =
      data_datagram(PKGDIST_DATA_MSG_MISS_DONE, encoded_miss_done(0, longest + "n"));
  pkgdist_data_rx_process_msg(question.data(), static_cast<ssize_t>(question.size()));
  EXPECT_EQ(take_traffic().reports.at(0).status, PKGDIST_STATUS_UNKNOWN_FILE);
}

TEST_F(DataFileList, a_name_that_is_too_long_deletes_nothing) {
  const std::string longest(251 - directory().size(), 'n');
  put_file(longest + "n", "kept");
  remove({longest + "n" + "more"});
  EXPECT_TRUE(exists(path(longest + "n")));
  EXPECT_EQ(faults::calls(Call::kUnlink), 0u);
}

}  // namespace
