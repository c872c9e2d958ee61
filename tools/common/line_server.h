// Takes commands over a control socket: lines of JSON from other programs of the same host, and
// lines in answer.
//
// Bounded on every side: few connections, lines of limited length, and no connection that dawdles
// over its request. A client that stops reading costs progress and events, which are left out and
// counted, never results. Everything here is for one thread.
#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "control_socket.h"
#include "output.h"

namespace pkgdist::cli {

class LineServer;

// One connection. Kept by whoever answers it for as long as there is something to say.
class LineClient {
 public:
  using Json = nlohmann::ordered_json;
  // Bytes that may wait when another line of this kind comes.
  static constexpr size_t kMaxWaitingForProgress = size_t{1} << 20;
  static constexpr size_t kMaxWaitingForEvents = size_t{16} << 20;

  void say(const Json& line, Output::Kind kind = Output::Kind::kResult);
  // Says that the request is refused, and why; nothing more follows.
  void refuse(const std::string& why);
  // Nothing more follows, but for `last` and what tells that lines were left out before it.
  void finish();
  void finish(const Json& last);
  // The request is whole: the client may now take its time. Unless `patient`, it must read its
  // answers without long pauses.
  void begin(bool patient = false);
  bool begun() const { return begun_; }
  // The program at the other end has gone, or was left.
  bool gone() const { return gone_; }
  bool finished() const { return finished_; }

 private:
  friend class LineServer;
  using Clock = std::chrono::steady_clock;

  Fd fd_;
  std::string in_;
  std::string out_;
  size_t sent_ = 0;  // of out_
  Clock::time_point heard_ = Clock::now();
  Clock::time_point taken_ = heard_;  // when it last took something, or had nothing to take
  Output::LeftOut left_out_;
  bool begun_ = false;
  bool patient_ = false;
  bool finished_ = false;
  bool gone_ = false;
};

class LineServer {
 public:
  using Client = std::shared_ptr<LineClient>;
  // A line of a client, without its end. False: it cannot be handled yet, and comes again with the
  // next run(). An exception refuses the request.
  using OnLine = std::function<bool(const Client&, const std::string&)>;
  using OnTrouble = std::function<void(const std::string&)>;

  // Throws as listen_on(). `max_line`: bytes.
  LineServer(const std::string& path, Poller& poller, size_t max_line, OnLine on_line,
             OnTrouble on_trouble);
  ~LineServer();
  LineServer(const LineServer&) = delete;
  LineServer& operator=(const LineServer&) = delete;

  // Hands on the lines that came. To be called after each wait of the poller, and once a second at
  // least.
  void run();
  // Sends what was said, and lets go of clients that are done with. To be called after run() and
  // after whatever has something to say.
  void flush();
  // A request has not been answered, or not wholly.
  bool busy() const { return !clients_.empty(); }
  size_t clients() const { return clients_.size(); }

 private:
  void accept();
  void receive(LineClient& client);
  void flush(LineClient& client);
  void hand_on(const Client& client);
  bool keep(LineClient& client);

  const std::string path_;
  Poller& poller_;
  const size_t max_line_;
  const OnLine on_line_;
  const OnTrouble on_trouble_;
  Fd listener_;
  ino_t inode_ = 0;
  std::list<Client> clients_;
};

}  // namespace pkgdist::cli
