// Receptions that go on with a partial file: what the process says is good is not asked for.
#include <sys/stat.h>
#include <unistd.h>

#include "data_support.h"
#include "pkgdist_atomic.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_repair.h"
#include "pkgdist_data_recv_resume.h"

using namespace support;

namespace {

constexpr uint32_t kSize = 42;  // ten segments of four bytes, and one of two

class Resume : public DataTest {
 protected:
  void SetUp() override {
    DataTest::SetUp();
    client.attach_all();
    set(this);
  }
  void TearDown() override {
    pkgdist::store(pkgdist::resume, nullptr);
    DataTest::TearDown();
  }

  // As before start-up.
  PkgdistStatus set(Resume* test) {
    const int socket = pkgdist::load(G_data_req_socket);
    pkgdist::store(G_data_req_socket, -1);
    const PkgdistStatus status = instcomm_pkgdist_data_set_resume(ask, test);
    pkgdist::store(G_data_req_socket, socket);
    return status;
  }

  static void ask(uint32_t location, const char* name, uint32_t size,
                  pkgdist_data_good_part_cb good, void* parts, void* ctx) {
    auto& test = *static_cast<Resume*>(ctx);
    ++test.questions;
    EXPECT_EQ(location, 1u);
    EXPECT_STREQ(name, "file");
    EXPECT_EQ(size, kSize);
    for (const auto& [first, bytes] : test.good) good(first, bytes, parts);
  }

  // The lead's content up to here.
  void put_partial(size_t bytes, mode_t mode = 0644) {
    const Bytes all = content(kSize);
    put_file("file.tmp", std::string(all.begin(), all.begin() + static_cast<ptrdiff_t>(bytes)));
    ASSERT_EQ(0, chmod(path("file.tmp").c_str(), mode));
  }
  std::vector<Single> begin_transfer(uint32_t id = 7) {
    if (find() == nullptr) want("file");
    (void)take_traffic();
    announce({.id = id, .size = kSize});
    return take_traffic().singles;
  }
  void expect_whole() {
    EXPECT_EQ(bytes_of(path("file")), content(kSize));
    EXPECT_FALSE(exists(path("file.tmp")));
    EXPECT_TRUE(G_file_recv_db.empty());
  }

  std::vector<std::pair<uint64_t, uint64_t>> good;
  int questions = 0;
};

TEST_F(Resume, only_what_is_missing_is_asked_for_and_wanted) {
  put_partial(28);
  good = {{0, 12}, {16, 12}};
  EXPECT_EQ(begin_transfer(), (std::vector<Single>{{7, 3, 1}, {7, 7, 4}}));
  EXPECT_EQ(find()->received_count, 6u);
  for (const uint32_t segment : {3, 7, 8, 9, 10}) give(segment, true);
  expect_whole();
}

TEST_F(Resume, a_stream_from_the_beginning_brings_the_rest_too) {
  put_partial(28);
  good = {{8, 20}};
  EXPECT_EQ(begin_transfer(), (std::vector<Single>{{7, 7, 6}}));  // round the end of the file
  for (uint32_t segment = 0; segment < 11; ++segment) give(segment);
  EXPECT_TRUE(take_traffic().singles.empty());
  expect_whole();
}

TEST_F(Resume, only_segments_that_lie_inside_of_a_part_and_of_the_file_count) {
  put_partial(30);
  good = {{1, 6}, {9, 7}, {17, 3}, {21, 0}, {24, UINT64_MAX}, {1'000, 8}};
  (void)begin_transfer();
  std::vector<uint32_t> received;
  for (uint32_t k = 0; k < 11; ++k)
    if (pkgdist_is_segment_set(*find(), k)) received.push_back(k);
  EXPECT_EQ(received, (std::vector<uint32_t>{3, 6}));
}

TEST_F(Resume, a_file_of_which_everything_is_good_ends_at_once) {
  put_partial(kSize);
  good = {{0, kSize}};
  EXPECT_TRUE(begin_transfer().empty());
  expect_whole();
}

TEST_F(Resume, a_partial_file_that_is_longer_is_cut) {
  const Bytes all = content(kSize);
  put_file("file.tmp", std::string(all.begin(), all.end()) + "more");
  good = {{0, kSize + 4}};
  EXPECT_TRUE(begin_transfer().empty());
  expect_whole();
}

TEST_F(Resume, a_request_that_was_lost_is_repeated) {
  put_partial(28);
  good = {{0, 28}};
  (void)begin_transfer();
  find()->repair_time = 0;  // long ago
  (void)pkgdist_data_recv_timeout();
  EXPECT_EQ(take_traffic().singles, (std::vector<Single>{{7, 7, 4}}));
}

TEST_F(Resume, nothing_is_asked_for_ahead_when_nothing_is_good) {
  put_partial(28);
  EXPECT_TRUE(begin_transfer().empty());
  EXPECT_EQ(questions, 1);
  EXPECT_EQ(find()->fd, -1);
  give_all();
  expect_whole();
}

TEST_F(Resume, what_this_process_would_not_have_made_is_made_anew) {
  good = {{0, 28}};
  EXPECT_TRUE(begin_transfer().empty());  // nothing is there
  put_partial(28, 0666);                  // more permissions than the transfer's
  EXPECT_TRUE(begin_transfer(8).empty());
  put_partial(28);
  ASSERT_EQ(0, link(path("file.tmp").c_str(), path("second name").c_str()));
  EXPECT_TRUE(begin_transfer(9).empty());
  ASSERT_EQ(0, unlink(path("file.tmp").c_str()));
  ASSERT_EQ(0, symlink("second name", path("file.tmp").c_str()));
  EXPECT_TRUE(begin_transfer(10).empty());
  EXPECT_EQ(questions, 0);
  give_all(10);
  expect_whole();
  EXPECT_EQ(bytes_of(path("second name")).size(), 28u);
}

TEST_F(Resume, a_new_transfer_goes_on_with_what_the_one_before_has_written) {
  (void)begin_transfer();
  for (uint32_t segment = 0; segment < 7; ++segment) give(segment);
  good = {{0, 28}};
  EXPECT_EQ(begin_transfer(8), (std::vector<Single>{{8, 7, 4}}));
  for (uint32_t segment = 7; segment < 11; ++segment) give(segment, true, 8);
  expect_whole();
}

TEST_F(Resume, what_a_failed_transfer_has_written_stays_for_the_next_one) {
  (void)begin_transfer();
  for (uint32_t segment = 0; segment < 7; ++segment) give(segment);
  announce({.id = 8, .status = PKGDIST_STATUS_FROM_ERRNO(ENOENT)});  // a new lead
  EXPECT_TRUE(G_file_recv_db.empty());
  EXPECT_EQ(bytes_of(path("file.tmp")).size(), 28u);
  good = {{0, 28}};
  EXPECT_EQ(begin_transfer(9), (std::vector<Single>{{9, 7, 4}}));
}

TEST_F(Resume, links_empty_files_and_files_that_are_present_are_no_question) {
  put_partial(28);
  good = {{0, 28}};
  want("file");
  announce({.id = 7, .size = 4, .symlink = true});
  announce({.id = 8, .size = 0});
  put_file("file", std::string(kSize, 'x'), 1'600'000'000);
  announce({.id = 9, .size = kSize, .mtime = 1'600'000'000});
  EXPECT_EQ(questions, 0);
  EXPECT_TRUE(G_file_recv_db.empty());
}

TEST_F(Resume, can_be_set_before_the_data_side_starts_only) {
  const int socket = pkgdist::load(G_data_req_socket);
  pkgdist::store(G_data_req_socket, 0);  // started
  EXPECT_EQ(instcomm_pkgdist_data_set_resume(ask, this), PKGDIST_ERR_INVALID);
  pkgdist::store(G_data_req_socket, -1);
  EXPECT_EQ(instcomm_pkgdist_data_set_resume(nullptr, this), PKGDIST_ERR_INVALID);
  pkgdist::store(G_data_req_socket, socket);
}

}  // namespace
