// A mutex that cannot be locked or unlocked ends the process, with the name of who wanted it.
#include "ctrl_support.h"
#include "pkgdist_lock.h"
#include "pkgdist_log.h"
#include "platform/inst_common.h"

using namespace support;

namespace {

class LockDeathTest : public CtrlTest {
 protected:
  // What the child does: `act` with the next lock (or unlock) failing, errors copied to stderr.
  static void with_failing(Call call, const std::function<void()>& act, unsigned nth = 1) {
    g_inst_common_debug_verbosity_level = 1;
    faults::fail(call, nth, EINVAL);
    act();
  }
};

TEST_F(LockDeathTest, a_lock_failure_names_the_caller_and_ends_the_process) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  EXPECT_EXIT(with_failing(Call::kMutexLock, [&] { (void)pkgdist::mutex_lock(mutex); }),
              testing::KilledBySignal(SIGABRT),
              "ERR:operator\\(\\) pthread_mutex_lock failed: Invalid argument\n");
}

TEST_F(LockDeathTest, an_unlock_failure_names_the_caller_and_ends_the_process) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  EXPECT_EXIT(with_failing(Call::kMutexUnlock, [&] { (void)pkgdist::mutex_unlock(mutex); }),
              testing::KilledBySignal(SIGABRT),
              "ERR:operator\\(\\) pthread_mutex_unlock failed: Invalid argument\n");
}

TEST_F(LockDeathTest, the_assertion_is_of_0_and_names_file_and_line_of_the_caller) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  EXPECT_EXIT(with_failing(Call::kMutexLock, [&] { (void)pkgdist::mutex_lock(mutex); }),
              testing::KilledBySignal(SIGABRT), "lock_test.cpp:[0-9]+: .*Assertion `0' failed");
}

TEST_F(LockDeathTest, both_texts_have_no_colon_behind_the_name) {
  unsigned found = 0;
  for (const auto& point : pkgdist::log::catalogue()) {
    const std::string format = point.format;
    if (format.find("pthread_mutex_") == std::string::npos) continue;
    EXPECT_TRUE(format == "ERR:%s pthread_mutex_lock failed: %s\n" ||
                format == "ERR:%s pthread_mutex_unlock failed: %s\n")
        << format;
    ++found;
  }
  EXPECT_GE(found, 2u);
}

TEST_F(LockDeathTest, the_control_databases_report_the_function_that_asked) {
  EXPECT_DEATH(with_failing(Call::kMutexLock, [] { pkgdist::rx_msg_scan(); }),
               "ERR:pkgdist_ctrl_recv_chk_timeout pthread_mutex_lock failed");
  EXPECT_DEATH(with_failing(Call::kMutexUnlock, [] { pkgdist::rx_msg_scan(); }),
               "ERR:pkgdist_ctrl_recv_chk_timeout pthread_mutex_unlock failed");
  EXPECT_DEATH(with_failing(Call::kMutexLock, [] { pkgdist::lead_msg_scan(); }),
               "ERR:pkgdist_ctrl_recv_chk_timeout pthread_mutex_lock failed");
  EXPECT_DEATH(with_failing(Call::kMutexUnlock, [] { pkgdist::lead_msg_scan(); }),
               "ERR:pkgdist_ctrl_recv_chk_timeout pthread_mutex_unlock failed");
}

TEST_F(LockDeathTest, a_message_without_callback_reports_the_function_that_sends_it) {
  const auto send = [] {
    g_inst_common_debug_verbosity_level = 1;
    faults::inject([](Call call, const void* object) {
      return call == Call::kMutexLock && object == &G_ctrl_recv_ctx_db.mutex ? EINVAL : 0;
    });
    (void)instcomm_pkgdist_ctrl_send_lead_msg("m", 1, 1, nullptr, nullptr, nullptr);
  };
  EXPECT_DEATH(send(), "ERR:instcomm_pkgdist_ctrl_send_lead_msg pthread_mutex_lock failed");
}

TEST_F(LockDeathTest, the_client_databases_report_the_function_that_asked) {
  EXPECT_DEATH(with_failing(Call::kMutexLock, [] { pkgdist_ctrl_recv_free_ctx(2); }),
               "ERR:pkgdist_ctrl_recv_free_ctx pthread_mutex_lock failed");
  EXPECT_DEATH(with_failing(Call::kMutexUnlock, [] { pkgdist_ctrl_recv_free_ctx(2); }),
               "ERR:pkgdist_ctrl_recv_free_ctx pthread_mutex_unlock failed");
  EXPECT_DEATH(with_failing(Call::kMutexLock, [this] { status_client(); }),
               "ERR:pkgdist_ctrl_recv_alloc_ctx pthread_mutex_lock failed");
}

TEST_F(LockDeathTest, the_lock_of_the_statistics_is_checked_too) {
  EXPECT_DEATH(with_failing(Call::kMutexLock, [] { pkgdist::count(CrtCounter::kSelectFail); }),
               "pthread_mutex_lock failed");
}

TEST_F(LockDeathTest, wrappers_return_the_result_of_a_call_that_works) {
  EXPECT_EQ(pkgdist_ctrl_recv_rx_msg_db_lock(), 0);
  EXPECT_EQ(pthread_mutex_trylock(&G_ctrl_recv_rx_msg_db.mutex), EBUSY);
  EXPECT_EQ(pkgdist_ctrl_recv_rx_msg_db_unlock(), 0);
  EXPECT_EQ(pthread_mutex_trylock(&G_ctrl_recv_rx_msg_db.mutex), 0);
  pthread_mutex_unlock(&G_ctrl_recv_rx_msg_db.mutex);
  EXPECT_EQ(pkgdist_ctrl_recv_msg_db_lock(), 0);
  EXPECT_EQ(pthread_mutex_trylock(&G_ctrl_recv_msg_db.mutex), EBUSY);
  EXPECT_EQ(pkgdist_ctrl_recv_msg_db_unlock(), 0);
}

}  // namespace
