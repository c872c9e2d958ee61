// Which database is locked at which step. Completion and callbacks run with neither file database
// locked, walks that let go of the lock take it again, and the stat lock comes before the receive
// lock.
#include <functional>

#include "data_support.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_data_recv_repair.h"
#include "platform/inst_common.h"

using namespace support;

namespace {

using Steps = std::vector<std::string>;

class DataLocks : public DataTest {
 protected:
  void SetUp() override {
    DataTest::SetUp();
    client.attach_all();
  }

  // The databases that `body` locks, in order: "recv" and "stat" for the file databases, "ctx" for
  // the clients', which is where an event begins to be queued. Behind a name stands what is held.
  template <class Body>
  static Steps locks_of(Body&& body) {
    Steps steps;
    faults::on_lock([&](const pthread_mutex_t* mutex) {
      const char* const name = name_of(mutex);
      if (name == nullptr) return;
      steps.push_back(name);
      if (is_held(G_file_stat_db.mutex)) steps.back() += " stat";
      if (is_held(G_file_recv_db.mutex)) steps.back() += " recv";
    });
    body();
    faults::on_lock(nullptr);
    return steps;
  }

  static Steps joined(std::initializer_list<Steps> parts) {
    Steps all;
    for (const Steps& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
  }

 private:
  static const char* name_of(const pthread_mutex_t* mutex) {
    if (mutex == &G_file_recv_db.mutex) return "recv:";
    if (mutex == &G_file_stat_db.mutex) return "stat:";
    return mutex == &G_data_recv_ctx_db.mutex ? "ctx:" : nullptr;
  }
  static bool is_held(pthread_mutex_t& mutex) {
    if (pthread_mutex_trylock(&mutex) != 0) return true;
    pthread_mutex_unlock(&mutex);
    return false;
  }
};

// The end of a file that one push of the lead wanted: its callback, the memory of the outcome, and
// the end of the transaction, which is looked for in the receive database.
const Steps kCompletion = {"ctx:", "stat:", "recv:", "ctx: recv"};

TEST_F(DataLocks, a_request_is_entered_under_the_lock_and_sent_without) {
  EXPECT_EQ(locks_of([&] {
              (void)instcomm_pkgdist_get_file("file", 1, 1, 1, 5, client.loop(), Client::file_cb,
                                              &client);
            }),
            (Steps{"ctx:", "recv:"}));
}

TEST_F(DataLocks, a_list_is_entered_under_one_lock_and_reported_without) {
  EXPECT_EQ(locks_of([&] {
              file_send({.operation = PKGDIST_FILE_SEND_LIST, .names = {"a", "b"}});
            }),
            (Steps{"recv:", "ctx:"}));
}

TEST_F(DataLocks, an_announcement_that_ends_a_file_completes_it_without_locks) {
  want("file");
  EXPECT_EQ(locks_of([&] { announce({.status = 0x1234}); }), joined({{"recv:"}, kCompletion}));
}

TEST_F(DataLocks, a_segment_that_ends_a_file_completes_it_without_locks) {
  begin(2);
  EXPECT_EQ(locks_of([&] { give(0); }), (Steps{"recv:"}));
  EXPECT_EQ(locks_of([&] { give(1); }), joined({{"recv:"}, kCompletion}));
}

TEST_F(DataLocks, what_becomes_of_a_partial_file_is_decided_under_the_receive_lock) {
  begin(2);
  give(0);
  // Between the memory of the outcome and the end of the transaction.
  EXPECT_EQ(locks_of([&] { announce({.size = 8, .status = 0x1234}); }),
            (Steps{"recv:", "ctx:", "stat:", "recv:", "recv:", "ctx: recv"}));
}

TEST_F(DataLocks, a_time_out_pass_without_work_ends_with_both_locks) {
  want("file");
  EXPECT_EQ(locks_of([] { (void)pkgdist_data_recv_timeout(); }),
            (Steps{"recv:", "stat:", "recv: stat"}));
}

TEST_F(DataLocks, a_walk_of_the_time_outs_takes_the_lock_again_after_each_failure) {
  want("a", 5);
  want("b", 6);
  find("a")->timeout_count = find("b")->timeout_count = G_data_rto.max_retries;
  clock::advance(100 * kSecond);
  EXPECT_EQ(
      locks_of([] { (void)pkgdist_data_recv_timeout(); }),
      joined({{"recv:"}, kCompletion, {"recv:"}, kCompletion, {"recv:", "stat:", "recv: stat"}}));
}

TEST_F(DataLocks, a_callers_cancel_tells_the_client_under_the_lock_and_completes_without) {
  want("file", 5);
  EXPECT_EQ(locks_of([] { (void)instcomm_pkgdist_get_file_cancel(5); }),
            (Steps{"recv:", "ctx: recv", "stat:", "recv:"}));
}

TEST_F(DataLocks, the_leads_cancel_takes_the_lock_again_after_each_file) {
  for (const char* name : {"a", "b"}) want(name, 5);
  const Steps end = {"stat:", "recv:", "recv:"};  // completion without clients, then on with it
  EXPECT_EQ(locks_of([&] {
              file_send({.operation = PKGDIST_FILE_SEND_CANCEL, .names = {}, .xact_id = 5});
            }),
            joined({{"recv:", "ctx: recv"}, end, {"ctx: recv", "ctx: recv"}, end}));
}

TEST_F(DataLocks, a_delete_takes_the_lock_again_after_each_file) {
  want("a", 5);
  want("b", 6);
  EXPECT_EQ(locks_of([&] {
              file_send({.operation = PKGDIST_FILE_SEND_DELETE, .names = {"a", "b"}});
            }),
            joined({{"recv:"}, kCompletion, {"recv:"}, kCompletion, {"recv:"}}));
}

TEST_F(DataLocks, a_question_of_the_lead_looks_at_one_database_after_the_other) {
  want("file");
  EXPECT_EQ(pkgdist_file_stat_add(9, "ended", 1, 0), 0u);
  const auto ask = [](uint32_t id, const char* name) {
    const Bytes body = encoded_miss_done(id, name);
    pkgdist_data_process_miss_done(body.data(), body.size());
  };
  EXPECT_EQ(locks_of([&] { ask(9, "ended"); }), (Steps{"stat:"}));
  EXPECT_EQ(locks_of([&] { ask(7, "file"); }), (Steps{"stat:", "recv:"}));
}

TEST_F(DataLocks, a_new_lead_is_asked_under_the_receive_lock) {
  want("file");
  EXPECT_EQ(locks_of([] { pkgdist_data_recv_new_lead(); }), (Steps{"recv:"}));
}

// --- Walks that let go of the lock ---

TEST_F(DataLocks, the_leads_cancel_goes_on_behind_a_file_that_went_meanwhile) {
  for (const char* name : {"a", "b", "c"}) want(name, 5);
  int turn = 0;
  faults::on_lock([&](const pthread_mutex_t* mutex) {
    if (mutex != &G_file_stat_db.mutex || ++turn != 1) return;
    pkgdist_file_recv_entry* next =
        find("b");  // the lock is free: another thread ends the next one
    {
      const pkgdist::FileRecvDbGuard lock;
      pkgdist::file_recv_take(next);
    }
    pkgdist_file_recv_db_free(next);
  });
  file_send({.operation = PKGDIST_FILE_SEND_CANCEL, .names = {}, .xact_id = 5});
  faults::on_lock(nullptr);
  EXPECT_EQ(find("c"), nullptr);
  EXPECT_TRUE(G_file_recv_db.empty());
}

TEST_F(DataLocks, the_leads_cancel_does_not_come_back_to_a_file_it_has_left) {
  want("kept", 5);
  want_also("kept", 5);  // moves into the freed place and stays
  want("gone", 5);
  file_send({.operation = PKGDIST_FILE_SEND_CANCEL, .names = {}, .xact_id = 5});
  EXPECT_EQ(find("gone"), nullptr);
  ASSERT_NE(find("kept"), nullptr);
  EXPECT_EQ(find("kept")->xact_count, 1);
}

// --- A lock that fails names the operation that wanted it ---

using DataLocksDeathTest = DataLocks;

struct FailedLock {
  pthread_mutex_t* mutex;
  unsigned nth;
  const char* reporter;
};

void fail_lock(const FailedLock& lock, const std::function<void()>& body) {
  g_inst_common_debug_verbosity_level = 1;
  faults::inject([lock, seen = 0u](Call call, const void* object) mutable {
    return call == Call::kMutexLock && object == lock.mutex && ++seen == lock.nth ? EINVAL : 0;
  });
  body();
}

TEST_F(DataLocksDeathTest, a_lock_that_fails_names_the_operation_that_wanted_it) {
  begin(2);
  give(0);
  const auto expect = [](const FailedLock& lock, const std::function<void()>& body) {
    EXPECT_DEATH(fail_lock(lock, body), std::string("ERR:") + lock.reporter +
                                            " pthread_mutex_lock failed: Invalid argument")
        << lock.reporter << ", lock " << lock.nth;
  };
  pthread_mutex_t* const recv = &G_file_recv_db.mutex;
  pthread_mutex_t* const stat = &G_file_stat_db.mutex;
  const auto ask = [] {
    const Bytes body = encoded_miss_done(99, "stranger");
    pkgdist_data_process_miss_done(body.data(), body.size());
  };
  const auto pass = [] { (void)pkgdist_data_recv_timeout(); };
  const auto end = [&] { announce({.size = 8, .status = 0x1234}); };
  expect({recv, 1, "instcomm_pkgdist_get_file"},
         [] { (void)instcomm_pkgdist_get_file("f", 1, 1, 1, 5, nullptr, nullptr, nullptr); });
  expect({&G_data_recv_ctx_db.mutex, 1, "instcomm_pkgdist_get_file"},
         [] { (void)instcomm_pkgdist_get_file("f", 1, 1, 1, 5, nullptr, nullptr, nullptr); });
  expect({recv, 1, "instcomm_pkgdist_get_file_cancel"},
         [] { (void)instcomm_pkgdist_get_file_cancel(5); });
  for (const uint32_t operation :
       {PKGDIST_FILE_SEND_LIST, PKGDIST_FILE_SEND_CANCEL, PKGDIST_FILE_SEND_DELETE})
    expect({recv, 1, "pkgdist_data_send_file_msg_hdlr"},
           [&] { file_send({.operation = operation, .names = {"f"}}); });
  expect({recv, 1, "pkgdist_data_process_file_info"}, end);
  expect({stat, 1, "pkgdist_file_stat_add"}, end);
  expect({recv, 2, "pkgdist_file_recv_db_free"}, end);
  expect({recv, 3, "pkgdist_file_recv_file_done"}, end);
  expect({recv, 1, "pkgdist_data_process_file_segment"}, [&] { give(1); });
  expect({recv, 1, "pkgdist_data_recv_timeout"}, pass);
  expect({stat, 1, "pkgdist_data_recv_timeout"}, pass);
  expect({recv, 2, "pkgdist_data_recv_timeout"}, pass);
  expect({stat, 1, "pkgdist_data_process_miss_done"}, ask);
  expect({recv, 1, "pkgdist_data_process_miss_done"}, ask);
  expect({recv, 1, "pkgdist_data_recv_new_lead"}, [] { pkgdist_data_recv_new_lead(); });
}

}  // namespace
