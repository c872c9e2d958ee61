// Withdrawing requests: by the caller and by the lead.
#include "data_support.h"

using namespace support;

namespace {

class DataCancel : public DataTest {
 protected:
  PkgdistStatus get(const char* path, uint32_t xact_id) {
    return instcomm_pkgdist_get_file(path, 1, 1, 1, xact_id, client.loop(), Client::file_cb,
                                     &client);
  }
  void cancel_by_lead(uint32_t xact_id) {
    file_send({.operation = PKGDIST_FILE_SEND_CANCEL, .names = {}, .xact_id = xact_id});
  }
  std::vector<uint32_t> xacts_of(const char* name) {
    std::vector<uint32_t> result;
    const pkgdist_file_recv_entry* entry = find(name);
    for (int32_t i = 0; i < entry->xact_count; ++i) result.push_back(entry->xacts[i].xact_id);
    return result;
  }
};

// --- By the caller ---

TEST_F(DataCancel, identifier_zero_is_refused) {
  EXPECT_EQ(instcomm_pkgdist_get_file_cancel(0), PKGDIST_ERR_INVALID);
  EXPECT_TRUE(logs::contains("ERR:instcomm_pkgdist_get_file_cancel: xact id '0' is invalid\n"));
}

TEST_F(DataCancel, an_unknown_identifier_is_not_found) {
  EXPECT_EQ(get("f", 5), 0u);
  EXPECT_EQ(instcomm_pkgdist_get_file_cancel(6), PKGDIST_ERR_NOT_FOUND);
  EXPECT_TRUE(logs::contains(
      "ERR:instcomm_pkgdist_get_file_cancel: file cancel not found for xact id 6\n"));
  EXPECT_NE(find("f"), nullptr);
}

TEST_F(DataCancel, cancelling_the_only_transaction_ends_the_file) {
  EXPECT_EQ(get("f", 5), 0u);
  take_traffic();
  EXPECT_EQ(instcomm_pkgdist_get_file_cancel(5), 0u);
  EXPECT_TRUE(logs::contains("DATA File Get Cancel - Xact Id 5 Name f\n"));
  EXPECT_TRUE(G_file_recv_db.empty());
  EXPECT_EQ(value(DrsCounter::kFileRemove), 1u);
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{0, PKGDIST_STATUS_CANCELLED, "f", 1}}));
  EXPECT_EQ(G_file_stat_db.head->status, PKGDIST_STATUS_CANCELLED);
  client.deliver();
  EXPECT_EQ(client.files, (std::vector<FileEvent>{{PKGDIST_STATUS_CANCELLED, "f", 1, 1, 5}}));
  EXPECT_TRUE(G_data_recv_ctx_db.empty());
}

TEST_F(DataCancel, a_cancelled_partial_file_is_deleted) {
  EXPECT_EQ(get("file", 5), 0u);
  announce({.size = 8});
  give(0);
  EXPECT_TRUE(exists(path("file.tmp")));
  EXPECT_EQ(instcomm_pkgdist_get_file_cancel(5), 0u);
  EXPECT_FALSE(exists(path("file.tmp")));
}

TEST_F(DataCancel, the_first_file_of_a_transaction_goes_alone) {
  EXPECT_EQ(get("a", 5), 0u);
  EXPECT_EQ(get("b", 5), 0u);
  EXPECT_EQ(instcomm_pkgdist_get_file_cancel(5), 0u);
  EXPECT_EQ(find("a"), nullptr);
  EXPECT_NE(find("b"), nullptr);
}

TEST_F(DataCancel, a_failed_report_to_the_lead_is_the_result) {
  EXPECT_EQ(get("f", 5), 0u);
  faults::fail(Call::kSendto, 1, EPERM);
  EXPECT_EQ(instcomm_pkgdist_get_file_cancel(5), PKGDIST_ERR_SEND);
  EXPECT_TRUE(G_file_recv_db.empty());
}

// When other transactions remain, the call returns with the file database locked for good. Only a
// process of its own can show that.
using DataCancelDeathTest = DataCancel;

TEST_F(DataCancelDeathTest, cancelling_one_of_several_transactions_leaves_the_database_locked) {
  EXPECT_EQ(get("f", 5), 0u);
  EXPECT_EQ(get("f", 6), 0u);
  EXPECT_EXIT(
      {
        const bool returned = instcomm_pkgdist_get_file_cancel(5) == 0;
        const bool locked = pthread_mutex_trylock(&G_file_recv_db.mutex) == EBUSY;
        const pkgdist_file_recv_entry* left = G_file_recv_db.head;
        const bool removed = left->xact_count == 1 && left->xacts[0].xact_id == 6;
        client.deliver();
        const bool told = client.files.size() == 1 && client.files[0].xact_id == 5 &&
                          client.files[0].status == PKGDIST_STATUS_CANCELLED;
        _exit((returned ? 1 : 0) + (locked ? 2 : 0) + (removed ? 4 : 0) + (told ? 8 : 0));
      },
      testing::ExitedWithCode(15), "");
}

TEST_F(DataCancelDeathTest, an_element_that_moved_into_a_freed_place_is_not_examined) {
  EXPECT_EQ(get("f", 5), 0u);
  EXPECT_EQ(get("f", 5), 0u);
  EXPECT_EQ(get("f", 5), 0u);
  EXPECT_EXIT(
      {
        (void)instcomm_pkgdist_get_file_cancel(5);
        _exit(G_file_recv_db.head->xact_count);
      },
      testing::ExitedWithCode(1), "");  // the first and the third are gone
}

// --- By the caller, whoever else wants the file ---

using DataWithdraw = DataCancel;

TEST_F(DataWithdraw, an_identifier_that_nobody_waits_under_is_refused) {
  EXPECT_EQ(instcomm_pkgdist_get_file_withdraw(0), PKGDIST_ERR_INVALID);
  EXPECT_TRUE(logs::contains("ERR:instcomm_pkgdist_get_file_withdraw: xact id '0' is invalid\n"));
  EXPECT_EQ(get("f", 5), 0u);
  EXPECT_EQ(instcomm_pkgdist_get_file_withdraw(6), PKGDIST_ERR_NOT_FOUND);
  EXPECT_TRUE(logs::contains(
      "ERR:instcomm_pkgdist_get_file_withdraw: file cancel not found for xact id 6\n"));
  EXPECT_NE(find("f"), nullptr);
}

TEST_F(DataWithdraw, the_only_request_ends_the_file) {
  EXPECT_EQ(get("f", 5), 0u);
  take_traffic();
  EXPECT_EQ(instcomm_pkgdist_get_file_withdraw(5), 0u);
  EXPECT_TRUE(G_file_recv_db.empty());
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{0, PKGDIST_STATUS_CANCELLED, "f", 1}}));
  client.deliver();
  EXPECT_EQ(client.files, (std::vector<FileEvent>{{PKGDIST_STATUS_CANCELLED, "f", 1, 1, 5}}));
}

TEST_F(DataWithdraw, a_file_that_others_want_goes_on_with_no_lock_held) {
  client.attach_all();
  want("f", 4);  // pushed
  EXPECT_EQ(get("f", 5), 0u);
  EXPECT_EQ(get("f", 6), 0u);
  take_traffic();
  EXPECT_EQ(instcomm_pkgdist_get_file_withdraw(5), 0u);
  ASSERT_EQ(pthread_mutex_trylock(&G_file_recv_db.mutex), 0);
  EXPECT_EQ(pthread_mutex_unlock(&G_file_recv_db.mutex), 0);
  EXPECT_EQ(xacts_of("f"), (std::vector<uint32_t>{4, 6}));
  EXPECT_TRUE(take_traffic().reports.empty());
  client.deliver();
  EXPECT_EQ(client.files, (std::vector<FileEvent>{{PKGDIST_STATUS_CANCELLED, "f", 1, 1, 5}}));
}

TEST_F(DataWithdraw, a_failed_report_to_the_lead_is_the_result) {
  EXPECT_EQ(get("f", 5), 0u);
  faults::fail(Call::kSendto, 1, EPERM);
  EXPECT_EQ(instcomm_pkgdist_get_file_withdraw(5), PKGDIST_ERR_SEND);
  EXPECT_TRUE(G_file_recv_db.empty());
}

// --- By the lead ---

TEST_F(DataCancel, the_lead_cancels_a_transaction_of_all_files) {
  client.attach_all();
  want("a", 5);
  want("b", 5);
  want("c", 6);
  cancel_by_lead(5);
  EXPECT_EQ(value(DrtCounter::kMcSendCancel), 1u);
  EXPECT_EQ(G_file_recv_db.count, 1u);
  EXPECT_NE(find("c"), nullptr);
  EXPECT_EQ(value(DrsCounter::kFileRemove), 2u);
  EXPECT_TRUE(logs::contains("DATA File Send Cancel - Xact Id 5 Name a\n"));
  EXPECT_TRUE(logs::contains("DATA File Send Cancel - Xact Id 5 Name b\n"));
  client.deliver();
  EXPECT_EQ(client.files, (std::vector<FileEvent>{{PKGDIST_STATUS_CANCELLED, "a", 1, 1, 5},
                                                  {PKGDIST_STATUS_CANCELLED, "b", 1, 1, 5}}));
  EXPECT_EQ(client.dones, (std::vector<DoneEvent>{{PKGDIST_STATUS_CANCELLED, 5}}));
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{0, PKGDIST_STATUS_CANCELLED, "a", 1},
                                                         {0, PKGDIST_STATUS_CANCELLED, "b", 1}}));
}

TEST_F(DataCancel, a_file_that_others_want_stays_when_the_lead_cancels) {
  client.attach_all();
  want("a", 5);
  want_also("a", 6);
  cancel_by_lead(5);
  EXPECT_EQ(xacts_of("a"), (std::vector<uint32_t>{6}));
  EXPECT_TRUE(wire::sent().empty());
  EXPECT_EQ(value(DrsCounter::kFileRemove), 0u);
  client.deliver();
  EXPECT_EQ(client.files.size(), 1u);
  EXPECT_EQ(client.dones, (std::vector<DoneEvent>{{PKGDIST_STATUS_CANCELLED, 5}}));
}

TEST_F(DataCancel, the_lead_cancels_a_callers_request_without_ending_a_transaction) {
  client.attach_all();
  EXPECT_EQ(get("a", 5), 0u);
  cancel_by_lead(5);
  EXPECT_TRUE(G_file_recv_db.empty());
  client.deliver();
  EXPECT_EQ(client.files.size(), 1u);
  EXPECT_TRUE(client.dones.empty());
}

TEST_F(DataCancel, the_lead_too_skips_what_moved_into_a_freed_place) {
  client.attach_all();
  want("a", 5);
  want_also("a", 5);
  want_also("a", 5);
  cancel_by_lead(5);
  EXPECT_EQ(xacts_of("a"), (std::vector<uint32_t>{5}));
  client.deliver();
  EXPECT_EQ(client.files.size(), 2u);
  EXPECT_TRUE(client.dones.empty());  // the transaction still waits
}

TEST_F(DataCancel, an_unknown_transaction_of_the_lead_changes_nothing) {
  want("a", 5);
  cancel_by_lead(77);
  EXPECT_EQ(value(DrtCounter::kMcSendCancel), 1u);
  EXPECT_EQ(G_file_recv_db.count, 1u);
  EXPECT_TRUE(wire::sent().empty());
}

TEST_F(DataCancel, an_empty_database_can_be_cancelled) {
  cancel_by_lead(5);
  EXPECT_EQ(value(DrtCounter::kMcSendCancel), 1u);
}

}  // namespace
