// The C++ side of the interface, over the real library: who is called back, and for how long.
#include <fcntl.h>
#include <sys/select.h>

#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "pkgdist/pkgdist.hpp"
#include "scripted_lead.h"

using pkgdist::FileOutcome;
using pkgdist::Status;
using support::Bytes;

namespace {

std::span<const std::byte> bytes_of(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

TEST(CppStatus, prints_its_text) {
  std::ostringstream out;
  out << Status() << ", " << Status(PKGDIST_ERR_INVALID);
  EXPECT_EQ(out.str(), "success, an argument was rejected");
  EXPECT_EQ(Status(PKGDIST_STATUS_CANCELLED).text(), "cancelled");
  EXPECT_TRUE(Status().ok());
  EXPECT_FALSE(Status(PKGDIST_STATUS_CANCELLED).ok());
  EXPECT_EQ(Status(PKGDIST_ERR_SEND), PKGDIST_ERR_SEND);
}

class CppFace : public testing::Test {
 protected:
  void SetUp() override { lead_.start_node(directory_.path()); }

  template <class Done>
  [[nodiscard]] bool run_until(Done done) {
    const auto end = std::chrono::steady_clock::now() + support::kPatience;
    while (!done() && std::chrono::steady_clock::now() < end)
      (void)loop_.run_once(std::chrono::milliseconds(10));
    return done();
  }

  // The library has taken in everything that was sent to it before.
  void settle(uint32_t sequence) {
    lead_.ping(sequence);
    lead_.expect_control(PKGDIST_CTRL_MSG_PING_REPLY);
  }

  // A message of class 2, acknowledged: it stands in the queue of the loop.
  void message(uint32_t sequence, uint8_t byte) {
    lead_.message(sequence, 2, {byte}, 1000, 0);
    lead_.expect_control(PKGDIST_CTRL_MSG_ACK);
  }

  // A file of one byte, pushed and written.
  void push(uint32_t sequence, const std::string& name) {
    lead_.file_list(sequence, 100 + sequence, {name});
    lead_.expect_control(PKGDIST_CTRL_MSG_ACK);
    answer(sequence, name);
  }

  void answer(uint32_t file_id, const std::string& name) {
    lead_.file_info(file_id, name, 1, 1000);
    lead_.segment(file_id, 0, {'x'});
    EXPECT_EQ(lead_.expect_done(file_id), 0u);
  }

  support::TemporaryDirectory directory_;
  support::ScriptedLead lead_;
  pkgdist::EventLoop loop_;
};

TEST_F(CppFace, a_pushed_file_is_reported_with_its_transaction) {
  std::vector<std::string> events;
  pkgdist::TransactionStartHandler starts;
  pkgdist::FileHandler files;
  pkgdist::TransactionDoneHandler dones;
  ASSERT_TRUE(starts
                  .attach(loop_,
                          [&](const pkgdist::TransactionStart& start) {
                            ASSERT_EQ(start.paths.size(), 1u);
                            events.push_back("start " + std::string(start.paths[0]));
                            EXPECT_EQ(start.transaction, 101u);
                          })
                  .ok());
  ASSERT_TRUE(files
                  .attach(loop_,
                          [&](const FileOutcome& file) {
                            events.push_back("file " + std::string(file.path) + ": " +
                                             file.status.text());
                            EXPECT_EQ(file.location, 1u);
                            EXPECT_EQ(file.transaction, 101u);
                          })
                  .ok());
  ASSERT_TRUE(dones
                  .attach(loop_,
                          [&](Status status, uint32_t transaction) {
                            EXPECT_TRUE(status.ok());
                            events.push_back("done " + std::to_string(transaction));
                          })
                  .ok());
  push(1, "a");
  ASSERT_TRUE(run_until([&] { return events.size() == 3; }));
  std::sort(events.begin(), events.end());  // between the kinds no order is promised
  EXPECT_EQ(events, (std::vector<std::string>{"done 101", "file a: success", "start a"}));
}

TEST_F(CppFace, a_destroyed_file_handler_is_silent_and_the_next_one_hears) {
  int first = 0, second = 0, ends = 0;
  pkgdist::TransactionDoneHandler dones;
  ASSERT_TRUE(dones.attach(loop_, [&](Status, uint32_t) { ++ends; }).ok());
  {
    pkgdist::FileHandler files;
    ASSERT_TRUE(files.attach(loop_, [&](const FileOutcome&) { ++first; }).ok());
    push(1, "a");
    ASSERT_TRUE(run_until([&] { return first == 1 && ends == 1; }));
    push(2, "b");
  }
  ASSERT_TRUE(run_until([&] { return ends == 2; }));
  (void)loop_.run_once(std::chrono::milliseconds(0));
  pkgdist::FileHandler files;
  ASSERT_TRUE(files.attach(loop_, [&](const FileOutcome&) { ++second; }).ok());
  push(3, "c");
  ASSERT_TRUE(run_until([&] { return second == 1; }));
  EXPECT_EQ(first, 1);
}

TEST_F(CppFace, a_destroyed_message_handler_hears_nothing_more) {
  std::vector<std::byte> heard;
  {
    pkgdist::MessageHandler messages;
    ASSERT_TRUE(messages
                    .attach(loop_, 2,
                            [&](std::span<const std::byte> bytes) {
                              heard.insert(heard.end(), bytes.begin(), bytes.end());
                            })
                    .ok());
    message(1, 7);
    ASSERT_TRUE(run_until([&] { return !heard.empty(); }));
    message(2, 8);
  }
  message(3, 9);
  EXPECT_EQ(loop_.run_once(std::chrono::milliseconds(0)), 0);
  EXPECT_EQ(heard, std::vector{std::byte{7}});
}

TEST_F(CppFace, a_message_handler_may_destroy_itself_in_its_callback) {
  auto messages = std::make_unique<pkgdist::MessageHandler>();
  std::string heard;
  ASSERT_TRUE(messages
                  ->attach(loop_, 2,
                           [&, kept = std::string("a string that is not short")](
                               std::span<const std::byte>) {
                             messages.reset();
                             heard += kept;  // of the callback that runs
                           })
                  .ok());
  message(1, 1);
  message(2, 2);
  ASSERT_TRUE(run_until([&] { return !heard.empty(); }));
  EXPECT_EQ(loop_.run_once(std::chrono::milliseconds(0)), 0);
  EXPECT_EQ(heard, "a string that is not short");
}

TEST_F(CppFace, a_handler_that_was_replaced_leaves_its_successor_alone) {
  int first = 0, second = 0;
  const pkgdist::EventLoop other;
  auto old = std::make_unique<pkgdist::MessageHandler>();
  pkgdist::MessageHandler current;
  ASSERT_TRUE(old->attach(other, 2, [&](auto) { ++first; }).ok());
  EXPECT_TRUE(old->attached());
  ASSERT_TRUE(current.attach(loop_, 2, [&](auto) { ++second; }).ok());
  EXPECT_FALSE(old->attached());
  old.reset();
  EXPECT_TRUE(current.attached());
  message(1, 1);
  ASSERT_TRUE(run_until([&] { return second == 1; }));
  EXPECT_EQ(first, 0);
}

TEST_F(CppFace, a_message_handler_moves_to_the_loop_it_is_attached_to_last) {
  pkgdist::MessageHandler messages;
  int first = 0, second = 0;
  {
    const pkgdist::EventLoop other;
    ASSERT_TRUE(messages.attach(other, 2, [&](auto) { ++first; }).ok());
    ASSERT_TRUE(messages.attach(loop_, 2, [&](auto) { ++second; }).ok());
  }
  message(1, 1);
  ASSERT_TRUE(run_until([&] { return second == 1; }));
  EXPECT_EQ(first, 0);
}

TEST_F(CppFace, the_lead_that_is_heard_is_reported) {
  std::optional<pkgdist::Lead> heard;
  pkgdist::LeadChangeHandler changes;
  ASSERT_TRUE(changes.attach(loop_, [&](const pkgdist::Lead& lead) { heard = lead; }).ok());
  settle(1);
  ASSERT_TRUE(run_until([&] { return heard.has_value(); }));
  EXPECT_EQ(heard->address, support::kScriptedLead);
  EXPECT_EQ(heard->pid, 100u);
  EXPECT_FALSE(heard->failover);
  heard.reset();
  changes.detach();
  EXPECT_FALSE(changes.attached());
  lead_.pid = 101;
  settle(2);
  EXPECT_EQ(loop_.run_once(std::chrono::milliseconds(0)), 0);
  EXPECT_FALSE(heard.has_value());
}

TEST_F(CppFace, a_requested_file_is_reported_once) {
  settle(1);
  int calls = 0;
  const uint32_t transaction = pkgdist::next_transaction();
  ASSERT_TRUE(pkgdist::get_file(
                  loop_, {.path = "wanted"},
                  [&](const FileOutcome& file) {
                    ++calls;
                    EXPECT_TRUE(file.status.ok()) << file.status;
                    EXPECT_EQ(file.path, "wanted");
                    EXPECT_EQ(file.transaction, transaction);
                  },
                  transaction)
                  .ok());
  lead_.expect_data(PKGDIST_DATA_MSG_FILE_REQ);
  answer(1, "wanted");
  ASSERT_TRUE(run_until([&] { return calls != 0; }));
  EXPECT_EQ(loop_.run_once(std::chrono::milliseconds(0)), 0);
  EXPECT_EQ(calls, 1);
}

TEST_F(CppFace, a_refused_request_calls_nobody_and_keeps_nothing) {
  auto counted = std::make_shared<int>();
  EXPECT_EQ(pkgdist::get_file(loop_, {.path = "../outside"}, [counted](const FileOutcome&) {}),
            PKGDIST_ERR_INVALID);
  EXPECT_EQ(pkgdist::send_message(loop_, bytes_of("x"), 6, [counted](Status) {}),
            PKGDIST_ERR_INVALID);
  EXPECT_EQ(pkgdist::get_file(loop_, {.path = "a"}, nullptr), PKGDIST_ERR_INVALID);
  EXPECT_EQ(counted.use_count(), 1);
  EXPECT_EQ(loop_.run_once(std::chrono::milliseconds(0)), 0);
}

TEST_F(CppFace, a_cancelled_request_is_reported_as_that) {
  settle(1);
  std::optional<Status> outcome;
  const uint32_t transaction = pkgdist::next_transaction();
  ASSERT_TRUE(pkgdist::get_file(
                  loop_, {.path = "unwanted"},
                  [&](const FileOutcome& file) { outcome = file.status; }, transaction)
                  .ok());
  EXPECT_TRUE(pkgdist::cancel(transaction).ok());
  ASSERT_TRUE(run_until([&] { return outcome.has_value(); }));
  EXPECT_EQ(*outcome, PKGDIST_STATUS_CANCELLED);
}

TEST_F(CppFace, who_still_waits_for_a_file_gets_it_when_another_request_is_cancelled) {
  settle(1);
  std::vector<std::string> pushed, other, cancelled;
  const auto into = [](std::vector<std::string>& outcomes) {
    return [&outcomes](const FileOutcome& file) { outcomes.push_back(file.status.text()); };
  };
  pkgdist::FileHandler files;
  ASSERT_TRUE(files.attach(loop_, into(pushed)).ok());
  const uint32_t transaction = pkgdist::next_transaction();
  ASSERT_TRUE(pkgdist::get_file(loop_, {.path = "shared"}, into(cancelled), transaction).ok());
  lead_.expect_data(PKGDIST_DATA_MSG_FILE_REQ);
  ASSERT_TRUE(pkgdist::get_file(loop_, {.path = "shared"}, into(other)).ok());
  lead_.file_list(2, 102, {"shared"});
  lead_.expect_control(PKGDIST_CTRL_MSG_ACK);
  EXPECT_TRUE(pkgdist::cancel(transaction).ok());
  ASSERT_TRUE(run_until([&] { return !cancelled.empty(); }));
  answer(2, "shared");
  ASSERT_TRUE(run_until([&] { return !pushed.empty() && !other.empty(); }));
  EXPECT_EQ(cancelled, std::vector<std::string>{"cancelled"});
  EXPECT_EQ(other, std::vector<std::string>{"success"});
  EXPECT_EQ(pushed, std::vector<std::string>{"success"});
  EXPECT_EQ(pkgdist::cancel(transaction), PKGDIST_ERR_NOT_FOUND);
}

TEST_F(CppFace, the_status_of_a_message_comes_once_and_its_callback_goes) {
  settle(1);
  auto counted = std::make_shared<int>();
  std::optional<Status> outcome;
  ASSERT_TRUE(pkgdist::send_message(loop_, bytes_of("hello"), 2, [&, counted](Status status) {
                outcome = status;
              }).ok());
  const support::ControlArrival arrival = lead_.expect_control(PKGDIST_CTRL_MSG_CTRL);
  lead_.acknowledge(arrival.header.sequence);
  ASSERT_TRUE(run_until([&] { return outcome.has_value(); }));
  EXPECT_TRUE(outcome->ok());
  EXPECT_EQ(counted.use_count(), 1);
}

TEST_F(CppFace, what_a_callback_throws_comes_out_of_the_round_that_ran_it) {
  int calls = 0;
  pkgdist::MessageHandler messages;
  ASSERT_TRUE(
      messages
          .attach(loop_, 2,
                  [&](auto) { throw std::runtime_error("from call " + std::to_string(++calls)); })
          .ok());
  message(1, 1);
  message(2, 2);
  try {
    (void)run_until([] { return false; });
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "from call 1");
  }
  EXPECT_EQ(calls, 2);  // what was queued has been delivered
  EXPECT_EQ(loop_.run_once(std::chrono::milliseconds(0)), 0);
}

TEST_F(CppFace, what_a_callback_throws_ends_run_which_may_go_on) {
  int calls = 0;
  pkgdist::MessageHandler messages;
  ASSERT_TRUE(messages
                  .attach(loop_, 2,
                          [&](auto) {
                            if (++calls == 1) throw std::runtime_error("first");
                            loop_.stop();
                          })
                  .ok());
  message(1, 1);
  EXPECT_THROW(loop_.run(), std::runtime_error);
  message(2, 2);
  EXPECT_NO_THROW(loop_.run());
  EXPECT_EQ(calls, 2);
}

TEST_F(CppFace, a_loop_may_be_destroyed_with_requests_under_way) {
  settle(1);
  auto other = std::make_unique<pkgdist::EventLoop>();
  int calls = 0;
  ASSERT_TRUE(pkgdist::get_file(*other, {.path = "a"}, [&](const FileOutcome&) { ++calls; }).ok());
  const int descriptor = other->fd();
  other.reset();
  // The library knows the loop by its address, so that must not become another's.
  EXPECT_NE(fcntl(descriptor, F_GETFD), -1);
  lead_.expect_data(PKGDIST_DATA_MSG_FILE_REQ);
  answer(1, "a");
  EXPECT_EQ(loop_.run_once(std::chrono::milliseconds(0)), 0);
  EXPECT_EQ(calls, 0);
}

TEST_F(CppFace, a_callback_may_destroy_the_loop_that_runs_it) {
  settle(1);
  auto other = std::make_unique<pkgdist::EventLoop>();
  const auto* running = other.get();
  bool called = false;
  ASSERT_TRUE(pkgdist::get_file(*other, {.path = "a"}, [&](const FileOutcome&) {
                called = true;
                running->stop();
                other.reset();
              }).ok());
  lead_.expect_data(PKGDIST_DATA_MSG_FILE_REQ);
  answer(1, "a");
  running->run();
  EXPECT_TRUE(called);
}

TEST_F(CppFace, the_descriptor_is_readable_while_there_is_something_to_do) {
  bool heard = false;
  pkgdist::MessageHandler messages;
  ASSERT_TRUE(messages.attach(loop_, 2, [&](auto) { heard = true; }).ok());
  EXPECT_TRUE(pkgdist::set_node_identity(1, 2, 3).ok());
  const auto readable = [&] {
    fd_set descriptors;
    FD_ZERO(&descriptors);
    FD_SET(loop_.fd(), &descriptors);
    timeval none{};
    return select(loop_.fd() + 1, &descriptors, nullptr, nullptr, &none) == 1;
  };
  EXPECT_FALSE(readable());
  message(1, 1);
  EXPECT_TRUE(readable());
  (void)loop_.run_once(std::chrono::milliseconds(0));
  EXPECT_TRUE(heard);
  EXPECT_FALSE(readable());
}

}  // namespace
