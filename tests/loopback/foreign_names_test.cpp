// A process in which every function of the platform has a namesake that is something else
// (foreign_names.c): the library finds its own platform and works.
#include <string>
#include <vector>

#include "pkgdist/pkgdist.hpp"
#include "scripted_lead.h"

namespace {

TEST(ForeignNames, files_and_messages_still_arrive) {
  const support::TemporaryDirectory directory;
  support::ScriptedLead lead;
  lead.start_node(directory.path());
  const pkgdist::EventLoop loop;
  std::vector<std::string> events;
  pkgdist::FileHandler files;
  pkgdist::MessageHandler messages;
  ASSERT_TRUE(files
                  .attach(loop,
                          [&](const pkgdist::FileOutcome& file) {
                            events.push_back(std::string(file.path) + ": " + file.status.text());
                          })
                  .ok());
  ASSERT_TRUE(
      messages.attach(loop, 2, [&](std::span<const std::byte>) { events.emplace_back("message"); })
          .ok());

  lead.file_list(1, 7, {"directory/pushed"});
  lead.expect_control(PKGDIST_CTRL_MSG_ACK);
  lead.file_info(3, "directory/pushed", 1, 1000);
  lead.segment(3, 0, {'x'});
  EXPECT_EQ(lead.expect_done(3), 0u);
  lead.message(2, 2, {'m'}, 1000, 0);
  lead.expect_control(PKGDIST_CTRL_MSG_ACK);
  lead.ping(2);
  lead.expect_control(PKGDIST_CTRL_MSG_PING_REPLY);

  const auto end = std::chrono::steady_clock::now() + support::kPatience;
  while (events.size() < 2 && std::chrono::steady_clock::now() < end)
    (void)loop.run_once(std::chrono::milliseconds(10));
  std::sort(events.begin(), events.end());
  EXPECT_EQ(events, (std::vector<std::string>{"directory/pushed: success", "message"}));
}

}  // namespace
