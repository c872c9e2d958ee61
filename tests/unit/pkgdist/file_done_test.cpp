// Completion: who hears what, in which order, and what is left of an unfinished file.
#include <fcntl.h>
#include <unistd.h>

#include "data_support.h"

using namespace support;
using namespace pkgdist;

namespace {

class FileDone : public DataTest {
 protected:
  // Takes the file out and completes it.
  PkgdistStatus end(const std::string& name = "file", PkgdistStatus status = 0x77) {
    pkgdist_file_recv_entry* entry = find(name, 0);
    {
      const FileRecvDbGuard lock;
      file_recv_take(entry);
    }
    return pkgdist_file_recv_file_done(status, entry);
  }
};

TEST_F(FileDone, clients_stat_database_and_lead_hear_the_outcome) {
  client.attach_all();
  begin(2);
  want_also("file", 6, 1, 2);
  take_traffic();
  EXPECT_EQ(end(), 0u);
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{7, 0x77, "file", 1}}));
  EXPECT_EQ(G_file_stat_db.head->status, 0x77u);
  EXPECT_EQ(G_file_stat_db.head->file_id, 7u);
  client.deliver();
  EXPECT_EQ(client.files,
            (std::vector<FileEvent>{{0x77, "file", 1, 1, 5}, {0x77, "file", 1, 1, 6}}));
  EXPECT_EQ(client.dones, (std::vector<DoneEvent>{{0x77, 5}, {0x77, 6}}));
}

TEST_F(FileDone, the_steps_have_their_order) {
  client.attach_all();
  begin(2);
  logs::records().clear();
  end();
  std::vector<std::string> steps;
  for (const Record& record : logs::records())
    steps.push_back(record.text.substr(0, record.text.find(" -")));
  EXPECT_EQ(steps, (std::vector<std::string>{"DATA Send File Xfer Invoke CB", "DATA Send File Done",
                                             "DATA Send File Done Invoke CB"}));
}

TEST_F(FileDone, a_transaction_ends_with_its_last_file) {
  client.attach_all();
  for (const char* name : {"a", "b"}) want(name, 5);
  end("a");
  client.deliver();
  EXPECT_EQ(client.files.size(), 1u);
  EXPECT_TRUE(client.dones.empty());
  end("b", 0x78);
  client.deliver();
  EXPECT_EQ(client.files.size(), 2u);
  EXPECT_EQ(client.dones, (std::vector<DoneEvent>{{0x78, 5}}));
}

TEST_F(FileDone, a_callers_transaction_has_no_end_of_its_own) {
  client.attach_all();
  want("a", 5, 1, 1, 10);
  end("a");
  client.deliver();
  EXPECT_TRUE(client.dones.empty());
}

TEST_F(FileDone, a_transaction_held_twice_ends_twice) {
  client.attach_all();
  want("a", 5);
  want_also("a", 5);
  end("a");
  client.deliver();
  EXPECT_EQ(client.dones.size(), 2u);
}

TEST_F(FileDone, the_result_is_the_report_to_the_lead) {
  want("a", 5, 1, 1, 10);
  faults::fail(Call::kSendto, 1, EPERM);
  EXPECT_EQ(end("a"), PKGDIST_ERR_SEND);
}

TEST_F(FileDone, the_end_of_a_transaction_has_the_last_word_on_the_result) {
  client.attach_all();
  want("a");
  faults::fail(Call::kSendto, 1, EPERM);
  EXPECT_EQ(end("a"), 0u);  // the callback was queued
  pkgdist_data_recv_free_ctx(3);
  want("a");
  EXPECT_EQ(end("a"), PKGDIST_ERR_NOT_FOUND);  // nobody hears of the end
}

TEST_F(FileDone, without_memory_for_the_stat_entry_the_lead_is_still_told) {
  want("a", 5, 1, 1, 10);
  faults::fail(Call::kCalloc, 1);
  EXPECT_EQ(end("a"), 0u);
  EXPECT_TRUE(G_file_stat_db.empty());
  EXPECT_EQ(take_traffic().reports.size(), 1u);
}

TEST_F(FileDone, no_lock_is_held_while_clients_are_told) {
  client.attach_all();
  want("a");
  client.on_file = [](const FileEvent&) { EXPECT_TRUE(all_locks_are_free()); };
  end("a");
  client.deliver();
  EXPECT_EQ(client.files.size(), 1u);
}

// --- Partial files ---

TEST_F(FileDone, a_partial_disk_file_is_deleted) {
  begin(2);
  give(0);
  ASSERT_TRUE(exists(path("file.tmp")));
  end();
  EXPECT_FALSE(exists(path("file.tmp")));
}

TEST_F(FileDone, a_partial_memory_file_is_deleted) {
  begin(2, "file", 2);
  give(0);
  ASSERT_TRUE(exists(memory_path("file")));
  ASSERT_TRUE(is_mapped(memory_path("file")));
  end();
  EXPECT_FALSE(exists(memory_path("file")));
  EXPECT_FALSE(is_mapped(memory_path("file")));
}

TEST_F(FileDone, the_descriptor_of_a_partial_file_is_closed) {
  begin(2);
  give(0);
  const int fd = find()->fd;
  ASSERT_EQ(fcntl(fd, F_GETFD) >= 0, true);
  end();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(FileDone, a_partial_file_that_a_new_reception_writes_stays) {
  begin(2);
  give(0);
  pkgdist_file_recv_entry* old = find();
  {
    const FileRecvDbGuard lock;
    file_recv_take(old);
  }
  want("file");  // asked for again before the old reception has been released
  announce({.id = 8, .size = 8});
  give(0, false, 8);
  pkgdist_file_recv_file_done(PKGDIST_STATUS_CANCELLED, old);
  EXPECT_TRUE(exists(path("file.tmp")));
  give(1, false, 8);
  EXPECT_EQ(bytes_of(path("file")), content(8));
}

TEST_F(FileDone, a_new_entry_that_writes_nothing_yet_does_not_keep_the_partial_file) {
  begin(2);
  give(0);
  pkgdist_file_recv_entry* old = find();
  {
    const FileRecvDbGuard lock;
    file_recv_take(old);
  }
  want("file");
  pkgdist_file_recv_file_done(PKGDIST_STATUS_CANCELLED, old);
  EXPECT_FALSE(exists(path("file.tmp")));
}

TEST_F(FileDone, a_file_that_never_began_leaves_other_files_alone) {
  put_file("file", "old");
  put_file("file.tmp", "foreign");
  want("file");
  end();
  EXPECT_TRUE(exists(path("file")));
  EXPECT_TRUE(exists(path("file.tmp")));
}

}  // namespace
