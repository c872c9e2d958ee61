// A control socket: lines in, lines out, and clients that do not behave.
#include "line_server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "line_connection.h"

namespace pkgdist::cli {
namespace {

using Kind = Output::Kind;
using Json = nlohmann::ordered_json;

class LineServerTest : public ::testing::Test {
 protected:
  LineServerTest() : path_("/tmp/line-server-test-" + std::to_string(::getpid()) + ".sock") {}

  LineServer& start(LineServer::OnLine on_line) {
    server_ = std::make_unique<LineServer>(path_, poller_, 1000, std::move(on_line),
                                           [](const std::string&) {});
    return *server_;
  }
  LineConnection connect() { return {std::move(*connect_to(path_, false)), "server"}; }
  // Everything that is ready: a connection first, then what it says.
  void turn() {
    for (int i = 0; i < 3; ++i) {
      poller_.dispatch();
      server_->run();
      server_->flush();
    }
  }

  const std::string path_;
  Poller poller_;
  std::unique_ptr<LineServer> server_;
};

TEST_F(LineServerTest, answers_a_line_with_lines) {
  start([](const LineServer::Client& client, const std::string& line) {
    client->say(Json::parse(line));
    client->finish({{"event", "done"}});
    return true;
  });
  LineConnection client = connect();
  client.send({{"number", 7}});
  turn();
  EXPECT_EQ(client.answer(1).at("number"), 7);
  EXPECT_EQ(client.answer(1).at("event"), "done");
  EXPECT_THROW((void)client.answer(1), std::runtime_error);  // closed
  EXPECT_FALSE(server_->busy());
}

TEST_F(LineServerTest, refuses_with_the_text_of_an_exception) {
  start([](const LineServer::Client&, const std::string&) -> bool {
    throw std::runtime_error("not that");
  });
  LineConnection client = connect();
  client.send({{"number", 7}});
  turn();
  EXPECT_EQ(client.answer(1).at("text"), "not that");
}

TEST_F(LineServerTest, brings_a_line_again_that_could_not_be_handled) {
  int calls = 0;
  start([&](const LineServer::Client& client, const std::string&) {
    if (++calls < 3) return false;
    client->finish();
    return true;
  });
  LineConnection client = connect();
  client.send({{"number", 7}});
  turn();
  turn();
  EXPECT_EQ(calls, 3);
}

TEST_F(LineServerTest, refuses_a_line_that_is_too_long) {
  start([](const LineServer::Client&, const std::string&) { return true; });
  LineConnection client = connect();
  client.send({{"text", std::string(2000, 'x')}});
  turn();
  EXPECT_EQ(client.answer(1).at("text"), "the request is too long");
}

TEST_F(LineServerTest, leaves_out_progress_and_no_results_when_nobody_reads) {
  LineServer::Client kept;
  start([&](const LineServer::Client& client, const std::string&) {
    kept = client;
    client->begin(true);
    return true;
  });
  LineConnection client = connect();
  client.send({{"number", 7}});
  turn();
  const std::string text(1000, 'x');
  for (int i = 0; i < 3000; ++i) kept->say({{"event", "state"}, {"text", text}}, Kind::kProgress);
  kept->say({{"event", "result"}});
  kept->finish({{"event", "done"}});
  uint64_t states = 0, left_out = 0;
  bool result = false;
  for (bool done = false; !done;) {
    turn();
    const Json line = client.answer(1);
    const std::string event = line.at("event");
    states += event == "state";
    result |= event == "result";
    if (event == "left-out") left_out = line.at("progress");
    done = event == "done";
  }
  EXPECT_TRUE(result);
  EXPECT_GT(left_out, 0u);
  EXPECT_EQ(states + left_out, 3000u);
}

TEST_F(LineServerTest, tells_that_a_client_has_gone) {
  LineServer::Client kept;
  start([&](const LineServer::Client& client, const std::string&) {
    kept = client;
    client->begin();
    return true;
  });
  {
    LineConnection client = connect();
    client.send({{"number", 7}});
    turn();
    EXPECT_FALSE(kept->gone());
  }
  turn();
  EXPECT_TRUE(kept->gone());
  EXPECT_FALSE(server_->busy());
}

TEST_F(LineServerTest, a_second_one_is_refused_by_name_of_the_process) {
  start([](const LineServer::Client&, const std::string&) { return true; });
  try {
    (void)listen_on(path_);
    FAIL();
  } catch (const SocketTaken& taken) {
    EXPECT_NE(std::string(taken.what()).find("process " + std::to_string(::getpid())),
              std::string::npos);
  }
}

TEST_F(LineServerTest, nobody_is_there_when_it_has_ended) {
  start([](const LineServer::Client&, const std::string&) { return true; });
  server_.reset();
  EXPECT_FALSE(connect_to(path_, false));
  EXPECT_NE(::access(path_.c_str(), F_OK), 0);
}

}  // namespace
}  // namespace pkgdist::cli
