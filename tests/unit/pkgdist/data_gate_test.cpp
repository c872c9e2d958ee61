// The gate: what the process lets the lead write and delete, and how what it refuses ends.
#include <cerrno>

#include "data_support.h"
#include "pkgdist_atomic.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_gate.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_status.h"

using namespace support;

namespace {

struct Question {
  uint32_t operation, location;
  std::string name;
  uint32_t size, mode, kind;
  bool operator==(const Question&) const = default;
};

class Gate : public DataTest {
 protected:
  void SetUp() override {
    DataTest::SetUp();
    client.attach_all();
    set(this);
  }
  void TearDown() override {
    pkgdist::store(pkgdist::gate, nullptr);
    DataTest::TearDown();
  }

  // As before start-up.
  PkgdistStatus set(Gate* gate) {
    const int socket = pkgdist::load(G_data_req_socket);
    pkgdist::store(G_data_req_socket, -1);
    const PkgdistStatus status = instcomm_pkgdist_data_set_gate(ask, gate);
    pkgdist::store(G_data_req_socket, socket);
    return status;
  }

  static int ask(uint32_t operation, uint32_t location, const char* name, uint32_t size,
                 uint32_t mode, uint32_t kind, void* ctx) {
    auto& test = *static_cast<Gate*>(ctx);
    test.questions.push_back({operation, location, name, size, mode, kind});
    const auto answer = test.answers.find(operation);
    return answer == test.answers.end() ? PKGDIST_GATE_ACCEPT : answer->second;
  }

  void list(const std::vector<std::string>& names, uint32_t type = 3) {
    file_send({.operation = PKGDIST_FILE_SEND_LIST, .names = names, .xact_id = 5, .type = type});
  }
  void remove(const std::vector<std::string>& names, uint32_t location = 1) {
    file_send({.operation = PKGDIST_FILE_SEND_DELETE, .names = names, .location = location});
  }
  static uint64_t status(int error) { return PKGDIST_STATUS_FROM_ERRNO(error); }

  std::vector<Question> questions;
  std::map<uint32_t, int> answers;  // by operation
};

TEST_F(Gate, is_asked_for_each_listed_file_and_at_its_information) {
  list({"a", "b"});
  EXPECT_EQ(questions, (std::vector<Question>{{PKGDIST_GATE_LISTED, 1, "a", 0, 0, 3},
                                              {PKGDIST_GATE_LISTED, 1, "b", 0, 0, 3}}));
  questions.clear();
  announce({.name = "a", .size = 10, .mode = 0640});
  EXPECT_EQ(questions, (std::vector<Question>{{PKGDIST_GATE_INFORMATION, 1, "a", 10, 0640, 3}}));
  EXPECT_EQ(G_file_recv_db.count, 2u);
  EXPECT_EQ(find("a")->segment_count, 3u);
}

TEST_F(Gate, hears_that_a_file_turns_out_to_be_a_link) {
  list({"a"});
  announce({.name = "a", .size = 4, .symlink = true});
  EXPECT_EQ(questions.back().operation, PKGDIST_GATE_INFORMATION);
  EXPECT_EQ(questions.back().kind, PKGDIST_FILE_TYPE_SYMLINK);
}

TEST_F(Gate, a_repeated_announcement_is_no_new_question) {
  list({"file"});
  announce({});
  const size_t asked = questions.size();
  announce({});
  EXPECT_EQ(asked, questions.size());
}

TEST_F(Gate, refused_files_of_a_list_end_with_their_status_and_their_transaction_once) {
  answers[PKGDIST_GATE_LISTED] = EPERM;
  list({"a", "b"});
  EXPECT_TRUE(G_file_recv_db.empty());
  client.deliver();
  EXPECT_EQ(client.starts, (std::vector<StartEvent>{{0, {"a", "b"}, 3, 1, 5}}));
  EXPECT_EQ(client.files,
            (std::vector<FileEvent>{{status(EPERM), "a", 3, 1, 5}, {status(EPERM), "b", 3, 1, 5}}));
  EXPECT_EQ(client.dones, (std::vector<DoneEvent>{{status(EPERM), 5}}));
  EXPECT_EQ(take_traffic().reports,
            (std::vector<Report>{{0, status(EPERM), "a", 1}, {0, status(EPERM), "b", 1}}));
}

TEST_F(Gate, the_leads_question_for_a_refused_file_is_answered_with_its_status) {
  answers[PKGDIST_GATE_LISTED] = EPERM;
  list({"a"});
  (void)take_traffic();
  announce({.id = 9, .name = "a"});
  const Bytes question = data_datagram(PKGDIST_DATA_MSG_MISS_DONE, encoded_miss_done(9, "a"));
  pkgdist_data_rx_process_msg(question.data(), static_cast<ssize_t>(question.size()));
  const std::vector<Report> reports = take_traffic().reports;
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].status, status(EPERM));
  EXPECT_EQ(reports[0].name, "a");
}

TEST_F(Gate, files_that_are_accepted_are_received_beside_refused_ones) {
  answers[PKGDIST_GATE_INFORMATION] = EACCES;
  list({"a", "b"});
  announce({.id = 7, .name = "a"});
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{7, status(EACCES), "a", 1}}));
  answers.clear();
  announce({.id = 8, .name = "b", .size = 4});
  give(0, false, 8);
  EXPECT_TRUE(exists(path("b")));
  EXPECT_FALSE(exists(path("a")));
  EXPECT_FALSE(exists(path("a.tmp")));
  client.deliver();
  EXPECT_EQ(client.dones, (std::vector<DoneEvent>{{0, 5}}));
}

TEST_F(Gate, a_file_that_the_process_has_ends_as_received_and_is_not_written) {
  answers[PKGDIST_GATE_LISTED] = PKGDIST_GATE_PRESENT;
  list({"a"});
  answers.clear();
  answers[PKGDIST_GATE_INFORMATION] = PKGDIST_GATE_PRESENT;
  list({"b"});
  announce({.id = 7, .name = "b"});
  EXPECT_EQ(take_traffic().reports, (std::vector<Report>{{0, 0, "a", 1}, {7, 0, "b", 1}}));
  EXPECT_FALSE(exists(path("a")));
  EXPECT_FALSE(exists(path("b")));
}

TEST_F(Gate, a_requested_file_is_asked_about_at_its_information_only) {
  EXPECT_EQ(instcomm_pkgdist_get_file("a", 1, 1, 4, 77, client.loop(), Client::file_cb, &client),
            0u);
  EXPECT_TRUE(questions.empty());
  answers[PKGDIST_GATE_INFORMATION] = EPERM;
  announce({.name = "a"});
  client.deliver();
  EXPECT_EQ(client.files, (std::vector<FileEvent>{{status(EPERM), "a", 1, 1, 77}}));
}

TEST_F(Gate, a_new_transfer_that_is_refused_removes_what_the_old_one_wrote) {
  list({"file"});
  announce({});
  give(0);
  ASSERT_TRUE(exists(path("file.tmp")));
  answers[PKGDIST_GATE_INFORMATION] = EPERM;
  announce({.id = 8, .size = 12});
  EXPECT_FALSE(exists(path("file.tmp")));
  EXPECT_TRUE(G_file_recv_db.empty());
}

TEST_F(Gate, a_refused_delete_leaves_file_and_reception_alone) {
  put_file("kept", "x");
  list({"file"});
  questions.clear();
  answers[PKGDIST_GATE_DELETE] = EPERM;
  remove({"kept", "file", "../outside"});
  EXPECT_EQ(questions, (std::vector<Question>{{PKGDIST_GATE_DELETE, 1, "kept", 0, 0, 0},
                                              {PKGDIST_GATE_DELETE, 1, "file", 0, 0, 0}}));
  EXPECT_TRUE(exists(path("kept")));
  EXPECT_NE(find("file"), nullptr);
  answers.clear();
  remove({"kept", "file"});
  EXPECT_FALSE(exists(path("kept")));
  EXPECT_EQ(find("file"), nullptr);
}

TEST_F(Gate, names_that_are_refused_anyway_are_not_asked_about) {
  list({"../a"});
  remove({"a"}, 9);
  EXPECT_TRUE(questions.empty());
}

TEST_F(Gate, is_set_before_the_data_side_starts_and_not_later) {
  pkgdist::store(pkgdist::gate, nullptr);
  EXPECT_EQ(PKGDIST_ERR_INVALID, instcomm_pkgdist_data_set_gate(nullptr, nullptr));
  ASSERT_EQ(0u, instcomm_pkgdist_data_recv_init(0xEFFF4702, 7101, 7104));
  EXPECT_EQ(PKGDIST_ERR_INVALID, instcomm_pkgdist_data_set_gate(ask, this));
  list({"a"});
  EXPECT_TRUE(questions.empty());
}

}  // namespace
