// Confinement of names to their storage location: the check, by the kernel and by the walk, and
// every step that must not follow a pushed link out.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "data_support.h"
#include "pkgdist_confine.h"
#include "pkgdist_data_recv_file_db.h"
#include "pkgdist_data_recv_process.h"

using namespace support;

namespace {

class Confinement : public DataTest {
 protected:
  void SetUp() override {
    DataTest::SetUp();
    client.attach_all();
    // Beside the location, which is a directory of its own.
    place_ = directory() + "location/";
    outside_ = directory() + "outside";
    std::filesystem::create_directories(place_ + "inside/deep");
    std::filesystem::create_directories(outside_);
    EXPECT_EQ(instcomm_pkgdist_set_recv_repository(place_.c_str(), 1, false), 0u);
  }

  void link(const std::string& name, const std::string& target) const {
    std::filesystem::create_symlink(target, place_ + name);
  }
  void put_outside(const std::string& name, const std::string& text) const {
    put(outside_ + "/" + name, text);
  }
  static void put(const std::string& path, const std::string& text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
  }
  std::vector<std::string> names_outside() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(outside_))
      names.push_back(entry.path().filename());
    return names;
  }

  // Both ways to check must agree.
  static int error_of(const std::string& name, uint32_t location = 1) {
    const pkgdist::FilePath path(location, name.c_str());
    const int by_kernel = pkgdist::confinement_error(path);
    EXPECT_EQ(pkgdist::confinement_error_by_walk(path), by_kernel) << name;
    return by_kernel;
  }

  // Pushes a link as a lead does, and waits for nothing.
  void push_link(const std::string& name, const std::string& target) {
    want(name);
    announce({.id = 9, .name = name, .size = 1, .segment_size = 1000, .symlink = true});
    const Bytes datagram = data_datagram(
        PKGDIST_DATA_MSG_SEGMENT, encoded_segment(9, 0, Bytes(target.begin(), target.end())));
    pkgdist_data_rx_process_msg(datagram.data(), static_cast<ssize_t>(datagram.size()));
    client.deliver();
    ASSERT_EQ(client.files.size(), 1u);
    ASSERT_EQ(client.files[0].status, 0u);
    client.files.clear();
  }
  uint64_t outcome() {
    client.deliver();
    return client.files.size() == 1 ? client.files[0].status : ~0ull;
  }

  std::string place_, outside_;
};

// --- The check ---

TEST_F(Confinement, a_name_without_directories_needs_no_check) {
  EXPECT_EQ(error_of("file"), 0);
  EXPECT_EQ(error_of("/file"), 0);
  EXPECT_EQ(faults::calls(Call::kOpenat2), 0u);
}

TEST_F(Confinement, directories_of_the_location_are_entered) {
  for (const char* name : {"inside/f", "inside/deep/f", "/inside//deep/./f", "inside/"})
    EXPECT_EQ(error_of(name), 0) << name;
}

TEST_F(Confinement, links_that_stay_inside_are_followed) {
  link("same", "inside");
  link("down", "inside/deep");
  link("inside/up", "..");
  link("inside/deep/round", "../../same/./deep");
  for (const char* name :
       {"same/f", "down/f", "inside/up/f", "inside/deep/round/f", "inside/up/inside/up/same/f"})
    EXPECT_EQ(error_of(name), 0) << name;
}

TEST_F(Confinement, links_that_lead_out_are_refused) {
  link("absolute", outside_);
  link("absolute-inside", place_ + "inside");  // a kernel cannot tell where it would begin
  link("relative", "../outside");
  link("inside/climbs", "../../outside");
  link("twice", "inside/climbs");
  link("back", "../location/inside");
  for (const char* name : {"absolute/f", "absolute-inside/f", "relative/f", "inside/climbs/f",
                           "twice/f", "back/f", "absolute/missing/f"})
    EXPECT_EQ(error_of(name), EXDEV) << name;
}

TEST_F(Confinement, links_that_never_end_are_refused) {
  link("a", "b");
  link("b", "a");
  EXPECT_EQ(error_of("a/f"), ELOOP);
}

TEST_F(Confinement, what_cannot_be_entered_is_left_to_the_call) {
  put(place_ + "file", "x");
  link("dangling", "missing/inside");
  for (const char* name : {"missing/f", "missing/deep/f", "file/f", "dangling/f"})
    EXPECT_EQ(error_of(name), 0) << name;
}

TEST_F(Confinement, the_last_component_is_not_followed) {
  link("out", outside_);
  EXPECT_EQ(error_of("out"), 0);
}

TEST_F(Confinement, a_prefix_that_ends_in_a_name_is_confined_to_its_directory) {
  ASSERT_EQ(instcomm_pkgdist_set_recv_repository((place_ + "pre-").c_str(), 2, false), 0u);
  std::filesystem::create_directories(place_ + "pre-inside");
  link("pre-out", outside_);
  link("pre-same", "inside");
  EXPECT_EQ(error_of("inside/f", 2), 0);
  EXPECT_EQ(error_of("same/f", 2), 0);
  EXPECT_EQ(error_of("out/f", 2), EXDEV);
}

TEST_F(Confinement, a_kernel_that_cannot_resolve_beneath_is_no_hole) {
  link("out", outside_);
  for (const int error : {ENOSYS, EPERM}) {
    faults::fail_always(Call::kOpenat2, error);
    EXPECT_EQ(error_of("out/f"), EXDEV);
    EXPECT_EQ(error_of("inside/f"), 0);
    faults::clear();
  }
}

TEST_F(Confinement, a_check_that_cannot_be_made_is_a_failure) {
  faults::fail(Call::kOpenat2, 2, EMFILE);
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "inside/f")), EMFILE);
  faults::fail(Call::kOpenat2, 1, ENOMEM);
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "inside/f")), ENOMEM);
}

TEST_F(Confinement, a_directory_that_is_renamed_meanwhile_is_looked_at_again) {
  faults::fail(Call::kOpenat2, 2, EAGAIN);
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "inside/f")), 0);
}

TEST_F(Confinement, no_descriptor_stays_open) {
  link("out", outside_);
  const int next = dup(0);
  close(next);
  (void)error_of("inside/deep/f");
  (void)error_of("out/f");
  (void)error_of("missing/f");
  const int after = dup(0);
  close(after);
  EXPECT_EQ(after, next);
}

// --- What a batch remembers ---

TEST_F(Confinement, a_directory_is_checked_once_in_a_batch) {
  pkgdist::ConfinementMemory batch;
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "inside/f")), 0);
  const uint64_t calls = faults::calls(Call::kOpenat2);
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "inside/g")), 0);
  EXPECT_EQ(faults::calls(Call::kOpenat2), calls);
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "inside/deep/g")), 0);
  EXPECT_EQ(faults::calls(Call::kOpenat2), 2 * calls);
}

TEST_F(Confinement, the_same_directory_of_another_location_is_checked) {
  ASSERT_EQ(instcomm_pkgdist_set_recv_repository((directory() + "outside/").c_str(), 2, false), 0u);
  std::filesystem::create_symlink(place_, outside_ + "/inside");
  pkgdist::ConfinementMemory batch;
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "inside/f")), 0);
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(2, "inside/f")), EXDEV);
}

TEST_F(Confinement, the_next_batch_remembers_nothing) {
  {
    pkgdist::ConfinementMemory batch;
    (void)error_of("inside/f");
  }
  std::filesystem::remove_all(place_ + "inside");
  link("inside", outside_);
  EXPECT_EQ(error_of("inside/f"), EXDEV);
  pkgdist::ConfinementMemory batch;
  EXPECT_EQ(error_of("inside/f"), EXDEV);
}

TEST_F(Confinement, a_pushed_link_makes_the_batch_forget) {
  pkgdist::ConfinementMemory batch;
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "inside/f")), 0);
  std::filesystem::remove_all(place_ + "inside");
  push_link("inside", outside_);
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "inside/f")), EXDEV);
}

TEST_F(Confinement, what_was_refused_is_looked_at_again) {
  link("out", outside_);
  pkgdist::ConfinementMemory batch;
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "out/f")), EXDEV);
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "out/f")), EXDEV);
}

TEST_F(Confinement, a_pushed_link_for_a_directory_that_was_missing_is_seen) {
  pkgdist::ConfinementMemory batch;
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "later/f")), 0);
  push_link("later", outside_);
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "later/f")), EXDEV);
}

TEST_F(Confinement, a_batch_of_many_directories_remembers_the_youngest) {
  pkgdist::ConfinementMemory batch;
  for (const char* name : {"a/f", "b/f", "c/f", "d/f", "inside/f"})
    EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, name)), 0);
  std::filesystem::create_directories(place_ + "a");
  link("b", outside_);  // by somebody on this host, who is trusted with it
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "b/f")), 0);
  const uint64_t calls = faults::calls(Call::kOpenat2);
  EXPECT_EQ(pkgdist::confinement_error(pkgdist::FilePath(1, "a/f")), 0);
  EXPECT_GT(faults::calls(Call::kOpenat2), calls);
}

// --- The steps ---

TEST_F(Confinement, a_file_behind_a_pushed_link_that_leads_out_fails_and_leaves_nothing_there) {
  push_link("a", outside_);
  begin(1, "a/secret");
  give(0);
  EXPECT_EQ(outcome(), PKGDIST_STATUS_FROM_ERRNO(EXDEV));
  EXPECT_TRUE(names_outside().empty());
}

TEST_F(Confinement, directories_are_not_made_outside) {
  push_link("a", outside_);
  begin(1, "a/b/c/secret");
  give(0);
  EXPECT_EQ(outcome(), PKGDIST_STATUS_FROM_ERRNO(EXDEV));
  EXPECT_TRUE(names_outside().empty());
}

TEST_F(Confinement, a_link_that_comes_while_a_file_is_received_stops_its_rename) {
  begin(2, "inside/deep/file");
  give(0);
  std::filesystem::rename(place_ + "inside/deep", outside_ + "/deep");
  link("inside/deep", outside_ + "/deep");
  give(1);
  EXPECT_EQ(outcome(), PKGDIST_STATUS_FROM_ERRNO(EXDEV));
  EXPECT_FALSE(exists(outside_ + "/deep/file"));
}

TEST_F(Confinement, a_link_behind_a_link_that_leads_out_is_not_made) {
  put_outside("victim", "kept");
  push_link("a", outside_);
  want("a/victim");
  announce({.name = "a/victim", .size = 1, .segment_size = 1000, .symlink = true});
  give(0);
  EXPECT_EQ(outcome(), PKGDIST_STATUS_FROM_ERRNO(EXDEV));
  EXPECT_EQ(bytes_of(outside_ + "/victim"), Bytes({'k', 'e', 'p', 't'}));
  EXPECT_FALSE(std::filesystem::is_symlink(outside_ + "/victim"));
}

TEST_F(Confinement, a_delete_does_not_reach_outside) {
  put_outside("victim", "kept");
  push_link("a", outside_);
  file_send({.operation = PKGDIST_FILE_SEND_DELETE, .names = {"a/victim"}});
  EXPECT_TRUE(exists(outside_ + "/victim"));
  EXPECT_EQ(logs::count("failed to unlink file " + place_ + "a/victim, rc=-1, errno=18("), 1u);
}

TEST_F(Confinement, a_file_outside_is_not_taken_for_the_one_that_is_present) {
  put_outside("same", std::string(4, 'x'));
  const timespec times[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (outside_ + "/same").c_str(), times, 0), 0);
  push_link("a", outside_);
  want("a/same");
  announce({.name = "a/same", .size = 4, .mtime = 1000});
  EXPECT_EQ(value(DrsCounter::kFileSkip), 0u);
  EXPECT_NE(find("a/same"), nullptr);
}

TEST_F(Confinement, what_is_given_up_is_not_removed_outside) {
  begin(2, "inside/deep/file");
  give(0);
  std::filesystem::rename(place_ + "inside/deep", outside_ + "/deep");
  link("inside/deep", outside_ + "/deep");
  file_send({.operation = PKGDIST_FILE_SEND_CANCEL, .names = {}});
  EXPECT_EQ(outcome(), PKGDIST_STATUS_CANCELLED);
  EXPECT_TRUE(exists(outside_ + "/deep/file.tmp"));
}

TEST_F(Confinement, files_behind_links_that_stay_inside_arrive) {
  push_link("lib", "inside");
  begin(2, "lib/deep/new/file");
  give_all();
  EXPECT_EQ(outcome(), 0u);
  EXPECT_EQ(bytes_of(place_ + "inside/deep/new/file"), content(8));
}

// --- What stands under the partial name ---

class Leftover : public Confinement {
 protected:
  struct stat partial() const {
    struct stat found {};
    EXPECT_EQ(lstat((place_ + "file.tmp").c_str(), &found), 0);
    return found;
  }
};

TEST_F(Leftover, a_link_is_replaced_and_not_followed) {
  put_outside("victim", "kept");
  link("file.tmp", outside_ + "/victim");
  begin(2);
  give_all();
  EXPECT_EQ(outcome(), 0u);
  EXPECT_EQ(bytes_of(place_ + "file"), content(8));
  EXPECT_EQ(bytes_of(outside_ + "/victim"), Bytes({'k', 'e', 'p', 't'}));
}

TEST_F(Leftover, a_second_name_of_another_file_is_replaced) {
  put(place_ + "other", "kept");
  ASSERT_EQ(::link((place_ + "other").c_str(), (place_ + "file.tmp").c_str()), 0);
  begin(2);
  give(0);
  EXPECT_EQ(partial().st_nlink, 1u);
  give(1);
  EXPECT_EQ(outcome(), 0u);
  struct stat other {};
  EXPECT_EQ(lstat((place_ + "other").c_str(), &other), 0);
  EXPECT_EQ(other.st_nlink, 1u);
  EXPECT_EQ(bytes_of(place_ + "other"), Bytes({'k', 'e', 'p', 't'}));
}

TEST_F(Leftover, another_mode_is_replaced) {
  put(place_ + "file.tmp", "old");
  ASSERT_EQ(chmod((place_ + "file.tmp").c_str(), 0666), 0);
  begin(2);  // 0644
  give(0);
  EXPECT_EQ(partial().st_mode & 07777, 0644u);
}

TEST_F(Leftover, a_queue_is_replaced) {
  ASSERT_EQ(mkfifo((place_ + "file.tmp").c_str(), 0644), 0);
  begin(2);
  give_all();
  EXPECT_EQ(outcome(), 0u);
  EXPECT_EQ(bytes_of(place_ + "file"), content(8));
}

TEST_F(Leftover, of_another_user_is_replaced) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  put(place_ + "file.tmp", "theirs");
  ASSERT_EQ(chown((place_ + "file.tmp").c_str(), 65534, 65534), 0);
  begin(2);
  give(0);
  EXPECT_EQ(partial().st_uid, geteuid());
}

TEST_F(Leftover, a_file_that_may_not_be_opened_is_removed_first) {
  put(place_ + "file.tmp", "theirs");
  begin(2);
  faults::fail(Call::kOpen, 1, EACCES);
  give_all();
  EXPECT_EQ(outcome(), 0u);
  EXPECT_EQ(value(DrsCounter::kFileError), 0u);
}

TEST_F(Leftover, what_cannot_be_removed_is_not_written_to) {
  put(place_ + "file.tmp", "kept");
  ASSERT_EQ(chmod((place_ + "file.tmp").c_str(), 0666), 0);
  begin(2);
  faults::fail_always(Call::kUnlink, EPERM);
  give(0);
  faults::clear();
  EXPECT_EQ(outcome(), PKGDIST_STATUS_FROM_ERRNO(EEXIST));
  EXPECT_EQ(bytes_of(place_ + "file.tmp"), Bytes({'k', 'e', 'p', 't'}));
}

TEST_F(Leftover, a_directory_stays_and_is_a_failure) {
  std::filesystem::create_directory(place_ + "file.tmp");
  begin(2);
  give(0);
  EXPECT_EQ(outcome(), PKGDIST_STATUS_FROM_ERRNO(EISDIR));
  EXPECT_TRUE(exists(place_ + "file.tmp"));
}

TEST_F(Leftover, of_this_process_is_used_as_it_is) {
  put(place_ + "file.tmp", "old");
  const ino_t old = partial().st_ino;
  begin(2);
  give(0);
  EXPECT_EQ(partial().st_ino, old);
  EXPECT_EQ(faults::calls(Call::kUnlink), 0u);
}

TEST_F(Leftover, of_this_process_that_was_longer_leaves_nothing_behind_the_end) {
  put(place_ + "file.tmp", "longer than the new one");
  begin(2);
  give_all();
  EXPECT_EQ(outcome(), 0u);
  EXPECT_EQ(bytes_of(place_ + "file"), content(8));
}

TEST_F(Leftover, what_may_not_be_emptied_is_removed) {
  put(place_ + "file.tmp", "old");
  begin(2);
  faults::fail(Call::kFtruncate, 1, EPERM);
  give_all();
  EXPECT_EQ(outcome(), 0u);
  EXPECT_EQ(bytes_of(place_ + "file"), content(8));
}

TEST_F(Leftover, what_cannot_be_emptied_is_a_failure) {
  put(place_ + "file.tmp", "old");
  begin(2);
  faults::fail_always(Call::kFtruncate, EIO);
  give(0);
  faults::clear();
  EXPECT_EQ(outcome(), PKGDIST_STATUS_FROM_ERRNO(EIO));
}

// --- Releasing an old record ---

TEST_F(Confinement, an_old_record_leaves_the_partial_file_of_a_newer_one_alone) {
  begin(2);
  give(0);
  pkgdist_file_recv_entry* old = find();
  {
    const pkgdist::FileRecvDbGuard lock;
    pkgdist::file_recv_take(old);
  }
  ASSERT_EQ(unlink((place_ + "file.tmp").c_str()), 0);
  put(place_ + "file.tmp", "newer");
  pkgdist_file_recv_db_free(old);
  EXPECT_TRUE(exists(place_ + "file.tmp"));
}

TEST_F(Confinement, an_old_record_leaves_the_finished_object_of_a_newer_one_alone) {
  begin(2, "object", 2);
  give(0);
  pkgdist_file_recv_entry* old = find("object", 2);
  {
    const pkgdist::FileRecvDbGuard lock;
    pkgdist::file_recv_take(old);
  }
  ASSERT_EQ(unlink(memory_path("object").c_str()), 0);
  begin(2, "object", 2);
  give_all();
  ASSERT_TRUE(exists(memory_path("object")));
  pkgdist_file_recv_db_free(old);
  EXPECT_EQ(bytes_of(memory_path("object")), content(8));
}

}  // namespace
