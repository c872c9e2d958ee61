// The file stat database, and the locks of both file databases.
#include "data_support.h"
#include "platform/inst_common.h"

using namespace support;
using namespace pkgdist;

namespace {

class FileStat : public DataTest {
 protected:
  static PkgdistStatus add_stat(uint32_t id, const char* name, uint32_t location = 1,
                                PkgdistStatus status = 0) {
    return pkgdist_file_stat_add(id, name, location, status);
  }
  static void expire() {
    const FileStatDbGuard lock;
    file_stat_expire(clock::now());
  }
};

TEST_F(FileStat, a_stat_entry_matches_in_the_same_way) {
  add_stat(7, "a/b", 2);
  const pkgdist_file_stat_entry& entry = *G_file_stat_db.head;
  EXPECT_TRUE(pkgdist_file_stat_path_match(entry, {"a/b", 2}));
  EXPECT_TRUE(pkgdist_file_stat_path_match(entry, {"a/b", 0}));
  EXPECT_FALSE(pkgdist_file_stat_path_match(entry, {"a/b", 1}));
  EXPECT_FALSE(pkgdist_file_stat_path_match(entry, {"a/", 0}));
}

TEST_F(FileStat, file_id_zero_names_nothing) {
  add_stat(0, "b");
  EXPECT_EQ(file_stat_find(0), nullptr);
  EXPECT_NE(file_stat_find("b", 1), nullptr);
}

TEST_F(FileStat, a_stat_entry_remembers_how_a_file_ended) {
  EXPECT_EQ(add_stat(7, "a", 2, PKGDIST_ERR_WRITE), 0u);
  const pkgdist_file_stat_entry& entry = *G_file_stat_db.head;
  EXPECT_EQ(entry.file_id, 7u);
  EXPECT_STREQ(entry.path, "a");
  EXPECT_EQ(entry.location, 2u);
  EXPECT_EQ(entry.status, PKGDIST_ERR_WRITE);
  EXPECT_EQ(entry.time, clock::now());
  EXPECT_EQ(value(DrsCounter::kStatAdd), 1u);
}

TEST_F(FileStat, stat_entries_find_no_memory) {
  faults::fail(Call::kCalloc, 1);
  EXPECT_EQ(add_stat(7, "a"), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(logs::contains("ERR:pkgdist_file_stat_add: malloc() " +
                             std::to_string(sizeof(pkgdist_file_stat_entry)) +
                             " bytes for FILE_STAT_DB failed\n"));
  faults::fail(Call::kStrdup, 1);
  EXPECT_EQ(add_stat(7, "a"), PKGDIST_ERR_NOMEM);
  EXPECT_TRUE(
      logs::contains("ERR:pkgdist_file_stat_add: stddup() for STAT_FILE_DB_FILE_PATH failed\n"));
  EXPECT_TRUE(G_file_stat_db.empty());
  EXPECT_EQ(value(DrsCounter::kStatAdd), 0u);
}

TEST_F(FileStat, stat_entries_go_when_they_are_older_than_the_stat_age) {
  add_stat(1, "a");
  clock::advance(kSecond);
  add_stat(2, "b");
  add_stat(3, "c");
  clock::advance(29 * kSecond);  // the first is exactly as old as allowed
  expire();
  EXPECT_EQ(G_file_stat_db.count, 3u);
  clock::advance(1);
  expire();
  EXPECT_EQ(G_file_stat_db.count, 2u);
  EXPECT_EQ(file_stat_find(1), nullptr);
  EXPECT_EQ(file_stat_find("a", 0), nullptr);
  EXPECT_NE(file_stat_find(2), nullptr);
  EXPECT_EQ(value(DrsCounter::kStatRemove), 1u);
  clock::advance(kSecond);
  expire();
  EXPECT_TRUE(G_file_stat_db.empty());
  EXPECT_EQ(value(DrsCounter::kStatRemove), 3u);
}

TEST_F(FileStat, a_stat_entry_from_the_future_is_not_old) {
  add_stat(1, "a");
  const FileStatDbGuard lock;
  file_stat_expire(clock::now() - 1);
  EXPECT_EQ(G_file_stat_db.count, 1u);
}

// --- Locks that fail end the process, naming who asked ---

using FileStatDeathTest = FileStat;

void lock_for_test(int (*operation)(Caller)) {
  (void)operation(Caller::here("asking_function"));
}

TEST_F(FileStatDeathTest, failing_locks_name_the_function_that_asked) {
  struct Case {
    int (*operation)(Caller);
    Call call;
    const char* words;
  } const cases[] = {
      {pkgdist_file_recv_db_lock, Call::kMutexLock, "pthread_mutex_lock"},
      {pkgdist_file_recv_db_unlock, Call::kMutexUnlock, "pthread_mutex_unlock"},
      {pkgdist_file_stat_db_lock, Call::kMutexLock, "pthread_mutex_lock"},
      {pkgdist_file_stat_db_unlock, Call::kMutexUnlock, "pthread_mutex_unlock"},
  };
  for (const Case& c : cases) {
    EXPECT_DEATH(
        {
          g_inst_common_debug_verbosity_level = 1;
          faults::fail(c.call, 1, EINVAL);
          lock_for_test(c.operation);
        },
        std::string("ERR:asking_function ") + c.words +
            " failed: Invalid argument(.|\n)*Assertion `0' failed");
  }
}

TEST_F(FileStat, locks_return_zero_when_they_succeed) {
  EXPECT_EQ(pkgdist_file_stat_db_lock(), 0);
  EXPECT_EQ(pkgdist_file_recv_db_lock(), 0);
  EXPECT_EQ(pkgdist_file_recv_db_unlock(), 0);
  EXPECT_EQ(pkgdist_file_stat_db_unlock(), 0);
}

}  // namespace
