// Files end to end: pushes, repairs, requests, and the threads that come and go with them.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>

#include "pkgdist/pkgdist.hpp"
#include "pkgdist_atomic.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "scripted_lead.h"

using support::Bytes;

namespace {

struct Events {
  std::vector<std::vector<std::string>> started;
  std::vector<std::pair<std::string, uint64_t>> files;
  std::vector<std::pair<uint32_t, uint64_t>> done;
};

void on_start(uint64_t, const char* const* paths, uint32_t count, uint32_t, uint32_t, uint32_t,
              void* ctx) {
  static_cast<Events*>(ctx)->started.emplace_back(paths, paths + count);
}
void on_file(uint64_t status, const char* path, uint32_t, uint32_t, uint32_t, void* ctx) {
  static_cast<Events*>(ctx)->files.emplace_back(path, status);
}
void on_done(uint64_t status, uint32_t xact_id, void* ctx) {
  static_cast<Events*>(ctx)->done.emplace_back(xact_id, status);
}

Bytes content(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Bytes filled(size_t size, uint8_t value) {
  return Bytes(size, value);
}

class Files : public testing::Test {
 protected:
  void SetUp() override {
    lead_.start_node(directory_.path());
    instcomm_pkgdist_data_file_xact_start_hdlr_attach(loop_.get(), on_start, &events_);
    instcomm_pkgdist_data_file_hdlr_attach(loop_.get(), on_file, &events_);
    instcomm_pkgdist_data_file_xact_done_hdlr_attach(loop_.get(), on_done, &events_);
  }

  // Announces the files and waits until the node has entered them.
  void push(std::vector<std::string> names, uint32_t xact_id = 9, uint32_t location = 1) {
    lead_.file_list(1, xact_id, std::move(names), location);
    lead_.expect_control(PKGDIST_CTRL_MSG_ACK);
  }

  support::TemporaryDirectory directory_;
  support::ScriptedLead lead_;
  support::Loop loop_;
  Events events_;
};

// A node whose gate refuses one name, has another already, and keeps what is deleted.
class GatedFiles : public Files {
 protected:
  void SetUp() override {
    ASSERT_TRUE(pkgdist::set_gate([](const pkgdist::GateQuestion& question) {
                  if (question.operation == PKGDIST_GATE_DELETE) return EPERM;
                  if (question.name == std::string_view("refused")) return EPERM;
                  if (question.name == std::string_view("present")) return PKGDIST_GATE_PRESENT;
                  return question.operation == PKGDIST_GATE_INFORMATION && question.size > 1000
                             ? EFBIG
                             : PKGDIST_GATE_ACCEPT;
                }).ok());
    Files::SetUp();
  }
};

TEST_F(GatedFiles, what_the_gate_refuses_ends_with_its_status_and_the_rest_arrives) {
  push({"refused", "present", "large", "small"});
  EXPECT_EQ(lead_.expect_done(0), PKGDIST_STATUS_FROM_ERRNO(EPERM));
  lead_.file_info(4, "large", 1001, 1000);
  EXPECT_EQ(lead_.expect_done(4), PKGDIST_STATUS_FROM_ERRNO(EFBIG));
  lead_.file_info(5, "small", 1000, 1000);
  lead_.segment(5, 0, filled(1000, 'a'));
  EXPECT_EQ(lead_.expect_done(5), 0u);
  ASSERT_TRUE(loop_.run_until([&] { return !events_.done.empty(); }));
  EXPECT_EQ(events_.files, (std::vector<std::pair<std::string, uint64_t>>{
                               {"refused", PKGDIST_STATUS_FROM_ERRNO(EPERM)},
                               {"present", 0},
                               {"large", PKGDIST_STATUS_FROM_ERRNO(EFBIG)},
                               {"small", 0}}));
  EXPECT_EQ(events_.done.size(), 1u);
  EXPECT_EQ(content(directory_.path() + "small").size(), 1000u);
  for (const char* name : {"refused", "present", "large", "large.tmp"})
    EXPECT_FALSE(std::filesystem::exists(directory_.path() + name)) << name;
  EXPECT_FALSE(pkgdist::set_gate([](const pkgdist::GateQuestion&) { return 0; }).ok());
}

TEST_F(Files, pushed_file_arrives_with_content_mode_and_time) {
  umask(0);
  push({"sub/dir/file"});
  lead_.file_info(4, "sub/dir/file", 2500, 1000);
  lead_.segment(4, 0, filled(1000, 'a'));
  lead_.segment(4, 1, filled(1000, 'b'));
  EXPECT_FALSE(std::filesystem::exists(directory_.path() + "sub/dir/file"));
  lead_.segment(4, 2, filled(500, 'c'));
  EXPECT_EQ(lead_.expect_done(4), 0u);
  ASSERT_TRUE(loop_.run_until([&] { return !events_.done.empty(); }));
  const Bytes got = content(directory_.path() + "sub/dir/file");
  ASSERT_EQ(got.size(), 2500u);
  EXPECT_EQ(got[999], 'a');
  EXPECT_EQ(got[1000], 'b');
  EXPECT_EQ(got[2499], 'c');
  struct stat info {};
  ASSERT_EQ(stat((directory_.path() + "sub/dir/file").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0640u);
  EXPECT_EQ(info.st_mtime, 1'000'000'000);
  EXPECT_EQ(events_.started, std::vector<std::vector<std::string>>{{"sub/dir/file"}});
  EXPECT_EQ(events_.files.at(0), std::make_pair(std::string("sub/dir/file"), uint64_t{0}));
  EXPECT_EQ(events_.done.at(0), std::make_pair(9u, uint64_t{0}));
}

TEST_F(Files, gap_is_asked_for_at_once_and_its_repair_completes_the_file) {
  push({"gap"});
  lead_.file_info(5, "gap", 6, 1);
  for (uint32_t i : {0u, 1u, 4u}) lead_.segment(5, i, filled(1, static_cast<uint8_t>(i)));
  const support::DataArrival arrival = lead_.expect_data(PKGDIST_DATA_MSG_REQ_SINGLE);
  pkgdist::Owned<struct pkgdist_data_send_req_single> request;
  ASSERT_EQ(pkgdist::decode(arrival.body.data(), arrival.body.size(), *request), 0);
  EXPECT_EQ(request->file_id, 5u);
  EXPECT_EQ(request->segment, 2u);
  EXPECT_EQ(request->num, 2u);
  lead_.segment(5, 5, filled(1, 5));
  lead_.segment(5, 2, filled(1, 2), true);
  lead_.segment(5, 3, filled(1, 3), true);
  EXPECT_EQ(lead_.expect_done(5), 0u);
  EXPECT_EQ(content(directory_.path() + "gap"), (Bytes{0, 1, 2, 3, 4, 5}));
}

TEST_F(Files, reception_may_begin_anywhere_and_wraps) {
  push({"round"});
  lead_.file_info(6, "round", 4, 1);
  for (uint32_t i : {2u, 3u, 0u, 1u}) lead_.segment(6, i, filled(1, static_cast<uint8_t>('0' + i)));
  EXPECT_EQ(lead_.expect_done(6), 0u);
  EXPECT_EQ(content(directory_.path() + "round"), (Bytes{'0', '1', '2', '3'}));
}

TEST_F(Files, silent_stream_makes_the_node_ask_for_the_tail) {
  pkgdist::store(G_data_rto.segment_timeout, 100'000'000);
  pkgdist::store(G_data_rto.timer_period, 20'000'000);
  push({"tail"});
  lead_.file_info(7, "tail", 3, 1);
  lead_.segment(7, 0, filled(1, 'x'));
  const support::DataArrival arrival = lead_.expect_data(PKGDIST_DATA_MSG_REQ_SINGLE);
  pkgdist::Owned<struct pkgdist_data_send_req_single> request;
  ASSERT_EQ(pkgdist::decode(arrival.body.data(), arrival.body.size(), *request), 0);
  EXPECT_EQ(request->segment, 1u);
  EXPECT_EQ(request->num, 2u);
}

TEST_F(Files, file_that_the_lead_cannot_send_ends_with_its_status) {
  push({"gone"});
  lead_.file_info(8, "gone", 0, 0, 0, false, PKGDIST_STATUS_FROM_ERRNO(ENOENT));
  EXPECT_EQ(lead_.expect_done(8), PKGDIST_STATUS_FROM_ERRNO(ENOENT));
  ASSERT_TRUE(loop_.run_until([&] { return !events_.files.empty(); }));
  EXPECT_EQ(events_.files[0].second, PKGDIST_STATUS_FROM_ERRNO(ENOENT));
}

TEST_F(Files, symbolic_link_and_empty_file_arrive) {
  push({"empty", "link"});
  lead_.file_info(1, "empty", 0, 1000);
  lead_.segment(1, 0, {});
  EXPECT_EQ(lead_.expect_done(1), 0u);
  lead_.file_info(2, "link", 6, 1000, 0, true);
  lead_.segment(2, 0, {'t', 'a', 'r', 'g', 'e', 't'});
  EXPECT_EQ(lead_.expect_done(2), 0u);
  EXPECT_EQ(std::filesystem::file_size(directory_.path() + "empty"), 0u);
  EXPECT_EQ(std::filesystem::read_symlink(directory_.path() + "link"), "target");
}

TEST_F(Files, memory_location_makes_a_shared_memory_object) {
  const std::string prefix = "/pkgdist-loopback-" + std::to_string(getpid()) + "-";
  ASSERT_EQ(instcomm_pkgdist_set_recv_repository(prefix.c_str(), 2, true), 0u);
  push({"object"}, 9, 2);
  lead_.file_info(3, "object", 5, 3, 0, false, 0, 2);
  lead_.segment(3, 0, {'a', 'b', 'c'});
  lead_.segment(3, 1, {'d', 'e'});
  EXPECT_EQ(lead_.expect_done(3), 0u);
  EXPECT_EQ(content("/dev/shm" + prefix + "object"), (Bytes{'a', 'b', 'c', 'd', 'e'}));
  EXPECT_EQ(shm_unlink((prefix + "object").c_str()), 0);
}

TEST_F(Files, requested_file_is_asked_for_and_its_callback_comes_once) {
  lead_.ping(1);
  lead_.expect_control(PKGDIST_CTRL_MSG_PING_REPLY);
  Events mine;
  ASSERT_EQ(instcomm_pkgdist_get_file("wanted", 1, 1, 2, instcomm_pkgdist_get_receive_xact_id(),
                                      loop_.get(), on_file, &mine),
            0u);
  const support::DataArrival arrival = lead_.expect_data(PKGDIST_DATA_MSG_FILE_REQ);
  pkgdist::Owned<pkgdist_data_send_req> request;
  ASSERT_EQ(pkgdist::decode(arrival.body.data(), arrival.body.size(), *request), 0);
  EXPECT_STREQ(request->name, "wanted");
  EXPECT_EQ(request->priority, 2u);
  lead_.file_info(11, "wanted", 1, 1000);
  lead_.segment(11, 0, {'!'});
  ASSERT_TRUE(loop_.run_until([&] { return !mine.files.empty(); }));
  EXPECT_EQ(mine.files, (std::vector<std::pair<std::string, uint64_t>>{{"wanted", 0}}));
  EXPECT_TRUE(events_.files.empty());
}

TEST_F(Files, miss_done_is_answered_by_what_the_node_knows) {
  push({"known"});
  lead_.miss_done(77, "stranger");
  EXPECT_EQ(lead_.expect_done(77), PKGDIST_STATUS_UNKNOWN_FILE);
  lead_.file_info(12, "known", 2, 1);
  lead_.segment(12, 0, {'k'});
  lead_.miss_done(12, "known");
  EXPECT_EQ(lead_.expect_done(12), PKGDIST_STATUS_IN_PROGRESS);
  lead_.segment(12, 1, {'n'});
  EXPECT_EQ(lead_.expect_done(12), 0u);
  lead_.miss_done(12, "known");
  EXPECT_EQ(lead_.expect_done(12), 0u);
}

TEST_F(Files, data_threads_end_when_nothing_is_left_and_come_back_with_the_next_file) {
  pkgdist::store(G_data_rto.stat_age, 0);
  pkgdist::store(G_data_rto.timer_period, 10'000'000);
  pkgdist::store(G_data_rto.receive_wait, 10'000);
  push({"first"});
  lead_.file_info(1, "first", 1, 1000);
  lead_.segment(1, 0, {'1'});
  EXPECT_EQ(lead_.expect_done(1), 0u);
  ASSERT_TRUE(loop_.run_until([] {
    return !pkgdist::load(G_data_rx_thread_running) &&
           !pkgdist::load(G_data_recv_file_thread_running);
  }));
  EXPECT_EQ(pkgdist::load(G_data_rx_socket), -1);
  lead_.file_list(2, 10, {"second"});
  lead_.expect_control(PKGDIST_CTRL_MSG_ACK);
  lead_.file_info(2, "second", 1, 1000);
  lead_.segment(2, 0, {'2'});
  EXPECT_EQ(lead_.expect_done(2), 0u);
}

}  // namespace
