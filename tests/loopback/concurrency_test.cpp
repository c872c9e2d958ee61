// Many threads at once: callers that ask, cancel, attach, detach, send and register while files
// arrive and the lead changes.
//
// Every test has a bounded amount of work and ends when all of it is accounted for: each request
// was answered once, nothing is left in a database, the counters agree with what was done, and what
// stands on disk is what the lead sent. The order in which the library locks is watched all the
// time (lock_order.h).
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "lock_order.h"
#include "pkgdist_atomic.h"
#include "pkgdist_ctrl_recv.h"
#include "pkgdist_ctrl_recv_ctx.h"
#include "pkgdist_ctrl_recv_lead_msg.h"
#include "pkgdist_ctrl_recv_rx_msg_db.h"
#include "pkgdist_data_recv.h"
#include "pkgdist_data_recv_ctx.h"
#include "pkgdist_data_recv_file_db.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "pkgdist_stats.h"
#include "platform/inst_common.h"
#include "serving_lead.h"

using support::Bytes;
using support::ServingLead;

namespace {

constexpr uint32_t kOtherLead = 0x7F000003;
constexpr uint64_t kMillisecond = 1'000'000;
// Far beyond what a loaded machine needs, also under a sanitizer.
constexpr std::chrono::seconds kBound{60};

class Locked {
 public:
  explicit Locked(pthread_mutex_t& mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
  ~Locked() { pthread_mutex_unlock(&mutex_); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  pthread_mutex_t& mutex_;
};

template <class Counter>
uint32_t value(Counter counter) {
  constexpr size_t kWordsPerEntry = 5;
  const auto* words = static_cast<const uint32_t*>(pkgdist::block_of(counter));
  const Locked lock(atomic_mutex);
  return words[static_cast<size_t>(counter) * kWordsPerEntry];
}

template <class Db>
uint32_t entries(Db& db) {
  const Locked lock(db.mutex);
  return db.count;
}

Bytes stored(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A caller with an event loop of its own, which it turns itself.
class Caller {
 public:
  levm_handle_t loop() const { return loop_.get(); }

  // Turns the loop until `done`; fails the test when the bound passes.
  void turn_until(const std::function<bool()>& done) const {
    const auto end = std::chrono::steady_clock::now() + kBound;
    while (!done() && std::chrono::steady_clock::now() < end) (void)levm_run_once(loop(), 5);
    EXPECT_TRUE(done());
  }
  void turn() const { (void)levm_run_once(loop(), 0); }

 private:
  support::Loop loop_;
};

class Concurrency : public testing::Test {
 protected:
  void SetUp() override {
    using pkgdist::store;
    store(G_ctrl_rto.rx_select_timeout, 5'000);
    store(G_ctrl_rto.scan_interval, 5 * kMillisecond);
    store(G_ctrl_rto.lead_ack_timeout, 30 * kMillisecond);
    store(G_ctrl_rto.lead_silence_timeout, 0);  // who speaks leads
    store(G_ctrl_rto.max_retries, 1000);
    store(G_data_rto.receive_wait, 5'000);
    store(G_data_rto.timer_period, 5 * kMillisecond);
    store(G_data_rto.file_info_timeout, 60 * kMillisecond);
    store(G_data_rto.segment_timeout, 60 * kMillisecond);
    store(G_data_rto.not_done_timeout, 60 * kMillisecond);
    store(G_data_rto.stat_age, 20 * kMillisecond);
    store(G_data_rto.max_retries, 1000);
    lead_.socket().start_node(directory_.path());
    ASSERT_EQ(instcomm_pkgdist_ctrl_register_lead_change(main_.loop(), on_lead, this), 0u);
    lead_.start();
    other_.start();
    lead_.lead(true);
    main_.turn_until([this] { return lead_changes_ > 0; });
  }

  static void on_lead(uint32_t, uint32_t, bool, void* ctx) {
    ++static_cast<Concurrency*>(ctx)->lead_changes_;
  }

  void hand_over(ServingLead& from, ServingLead& to) {
    from.lead(false);
    to.lead(true);
  }

  bool is_right(const std::string& name) const {
    return stored(directory_.path() + name) == ServingLead::content_of(name);
  }

  // Nothing is on its way, the data threads have gone, nothing half stands on disk, and what was
  // added was taken away.
  void expect_nothing_left() {
    main_.turn_until([] {
      return !pkgdist::load(G_data_rx_thread_running) &&
             !pkgdist::load(G_data_recv_file_thread_running) &&
             value(DrsCounter::kRxThreadStart) == value(DrsCounter::kRxThreadStop) &&
             value(DrsCounter::kFileThreadStart) == value(DrsCounter::kFileThreadStop);
    });
    EXPECT_EQ(entries(G_file_recv_db), 0u);
    EXPECT_EQ(entries(G_file_stat_db), 0u);
    EXPECT_EQ(entries(G_ctrl_recv_msg_db), 0u);
    EXPECT_EQ(pkgdist::load(G_data_rx_socket), -1);
    EXPECT_EQ(value(DrsCounter::kFileAdd), value(DrsCounter::kFileRemove));
    EXPECT_EQ(value(DrsCounter::kStatAdd), value(DrsCounter::kStatRemove));
    EXPECT_EQ(value(CrsCounter::kUcAddMsg), value(CrsCounter::kUcDeleteMsg));
    EXPECT_EQ(value(DrsCounter::kFileError), 0u);
    for (const auto& file : std::filesystem::recursive_directory_iterator(directory_.path()))
      EXPECT_NE(file.path().extension(), ".tmp") << file.path();
  }

  support::TemporaryDirectory directory_;
  ServingLead lead_;
  ServingLead other_{kOtherLead};
  Caller main_;
  unsigned lead_changes_ = 0;
};

// --- Requests ---

struct Request {
  std::string name;
  uint32_t xact_id = 0;
  unsigned answers = 0;
  uint64_t answer = 0;
  bool withdrawn = false;
};

// Asks for files, some of which it withdraws at once or after a turn of its loop.
class Requester {
 public:
  Requester(unsigned number, size_t files) {
    for (size_t i = 0; i < files; ++i)
      requests_.push_back({"r" + std::to_string(number) + "/" + std::to_string(i)});
  }

  void run() {
    size_t asked = 0;
    for (Request& request : requests_) {
      ask(request);
      ++asked;
      if (asked % 5 == 0) withdraw(request);
      if (asked % 7 == 0) caller_.turn(), withdraw(request);
      caller_.turn_until([&] { return answered() + kOutstanding >= asked; });
    }
    caller_.turn_until([&] { return answered() == requests_.size(); });
    caller_.turn();
  }

  const std::vector<Request>& requests() const { return requests_; }

 private:
  static constexpr size_t kOutstanding = 16;

  static void on_file(uint64_t status, const char* path, uint32_t, uint32_t location,
                      uint32_t xact_id, void* ctx) {
    Request& request = *static_cast<Request*>(ctx);
    ++request.answers;
    request.answer = status;
    EXPECT_EQ(path, request.name);
    EXPECT_EQ(location, 1u);
    EXPECT_EQ(xact_id, request.xact_id);
  }

  void ask(Request& request) {
    request.xact_id = instcomm_pkgdist_get_receive_xact_id();
    EXPECT_EQ(instcomm_pkgdist_get_file(request.name.c_str(), 1, 1, 1, request.xact_id,
                                        caller_.loop(), on_file, &request),
              0u);
  }

  static void withdraw(Request& request) {
    if (request.withdrawn) return;
    const PkgdistStatus status = instcomm_pkgdist_get_file_cancel(request.xact_id);
    request.withdrawn = status == 0;
    EXPECT_TRUE(status == 0 || status == PKGDIST_ERR_NOT_FOUND) << std::hex << status;
  }

  size_t answered() const {
    return static_cast<size_t>(std::count_if(requests_.begin(), requests_.end(),
                                             [](const Request& r) { return r.answers != 0; }));
  }

  std::vector<Request> requests_;
  Caller caller_;
};

// --- Messages to the lead ---

class Sender {
 public:
  explicit Sender(size_t messages) : answers_(messages) {}

  void run() {
    for (size_t i = 0; i < answers_.size(); ++i) {
      const std::string text = "message " + std::to_string(i);
      while (!send(text, answers_[i])) ++refused_;
      caller_.turn_until([&] { return answered() + kOutstanding > i; });
    }
    caller_.turn_until([&] { return answered() == answers_.size(); });
    caller_.turn();
  }

  struct Answers {
    unsigned count = 0;
    uint64_t status = 0;
  };
  // Messages that could not leave, because the socket was about to be made anew.
  unsigned refused() const { return refused_; }
  const std::vector<Answers>& answers() const { return answers_; }

 private:
  static constexpr size_t kOutstanding = 8;

  bool send(const std::string& text, Answers& answers) const {
    const PkgdistStatus status = instcomm_pkgdist_ctrl_send_lead_msg(
        text.data(), text.size(), 2, caller_.loop(), on_status, &answers);
    EXPECT_TRUE(status == 0 || status == PKGDIST_ERR_SEND) << std::hex << status;
    return status == 0;
  }

  static void on_status(uint64_t status, void* ctx) {
    Answers& answers = *static_cast<Answers*>(ctx);
    ++answers.count;
    answers.status = status;
  }
  size_t answered() const {
    return static_cast<size_t>(std::count_if(answers_.begin(), answers_.end(),
                                             [](const Answers& a) { return a.count != 0; }));
  }

  std::vector<Answers> answers_;
  unsigned refused_ = 0;
  Caller caller_;
};

void expect_each_answered(const Sender& sender, std::set<uint64_t> statuses) {
  for (const Sender::Answers& answers : sender.answers()) {
    EXPECT_EQ(answers.count, 1u);
    EXPECT_EQ(statuses.count(answers.status), 1u) << std::hex << answers.status;
  }
}

// --- Handlers that come and go ---

// Attaches and detaches one message class and the lead-change registration, over and over, on loops
// that last for one round: half of them go before what is attached to them.
void come_and_go(unsigned rounds, uint32_t msg_class) {
  const auto on_message = [](const void*, uint64_t, void* ctx) { ++*static_cast<unsigned*>(ctx); };
  for (unsigned round = 0; round < rounds; ++round) {
    unsigned calls = 0;
    levm_handle_t loop = levm_create();
    EXPECT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop, msg_class, on_message, &calls), 0u);
    (void)levm_run_once(loop, static_cast<int>(round % 3));
    const bool loop_goes_first = round % 2 == 0;
    if (loop_goes_first) levm_destroy(loop);
    EXPECT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop, msg_class, nullptr, nullptr), 0u);
    if (!loop_goes_first) levm_destroy(loop);
  }
}

// --- The lead's transactions ---

struct Pushes {
  std::map<uint32_t, unsigned> started, done;
  std::map<std::string, unsigned> files;
  std::multiset<Bytes> messages;

  static void on_start(uint64_t, const char* const*, uint32_t, uint32_t, uint32_t, uint32_t xact_id,
                       void* ctx) {
    ++static_cast<Pushes*>(ctx)->started[xact_id];
  }
  static void on_file(uint64_t status, const char* path, uint32_t, uint32_t, uint32_t, void* ctx) {
    auto& self = *static_cast<Pushes*>(ctx);
    ++self.files[path];
    EXPECT_EQ(status, 0u) << path << std::hex << " " << status;
  }
  static void on_done(uint64_t status, uint32_t xact_id, void* ctx) {
    auto& self = *static_cast<Pushes*>(ctx);
    ++self.done[xact_id];
    EXPECT_EQ(status, 0u) << xact_id;
  }
  static void on_message(const void* bytes, uint64_t size, void* ctx) {
    const auto* start = static_cast<const uint8_t*>(bytes);
    static_cast<Pushes*>(ctx)->messages.emplace(start, start + size);
  }

  void attach(levm_handle_t loop) {
    EXPECT_EQ(instcomm_pkgdist_data_file_xact_start_hdlr_attach(loop, on_start, this), 0u);
    EXPECT_EQ(instcomm_pkgdist_data_file_hdlr_attach(loop, on_file, this), 0u);
    EXPECT_EQ(instcomm_pkgdist_data_file_xact_done_hdlr_attach(loop, on_done, this), 0u);
    EXPECT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop, 2, on_message, this), 0u);
  }
};

Bytes text(const std::string& string) {
  return {string.begin(), string.end()};
}

TEST_F(Concurrency, whatever_is_asked_at_once_is_answered_once_while_the_lead_changes) {
  constexpr unsigned kRequesters = 3;
  constexpr size_t kFilesEach = 120;
  constexpr size_t kMessages = 80;
  // Identifiers of the lead's transactions are not those of the requests, which count up from 1.
  constexpr uint32_t kFirstPush = 0x80000000;
  constexpr unsigned kPushes = 12;
  constexpr unsigned kFilesOfPush = 8;
  constexpr unsigned kLeadMessages = 60;
  constexpr unsigned kComings = 150;

  Pushes pushes;
  pushes.attach(main_.loop());
  std::vector<std::unique_ptr<Requester>> requesters;
  for (unsigned i = 0; i < kRequesters; ++i)
    requesters.push_back(std::make_unique<Requester>(i, kFilesEach));
  Sender sender(kMessages);

  std::vector<std::thread> threads;
  std::atomic<unsigned> running{0};
  const auto begin = [&](auto work) {
    ++running;
    threads.emplace_back([&running, work] {
      work();
      --running;
    });
  };
  for (const auto& requester : requesters) begin([&] { requester->run(); });
  begin([&] { sender.run(); });
  begin([] { come_and_go(kComings, 3); });

  // The main thread is the lead's owner meanwhile, and hears of pushes.
  ServingLead* leading = &lead_;
  ServingLead* waiting = &other_;
  unsigned handed_over = 0;
  size_t expected_files = 0;
  for (unsigned i = 0; i < kLeadMessages; ++i) {
    leading->message(2, text("to all " + std::to_string(i)));
    leading->message(3, text("to who comes and goes"));
    if (i % 5 == 0 && i / 5 < kPushes) {
      std::vector<std::string> names;
      for (unsigned file = 0; file < kFilesOfPush; ++file)
        names.push_back("p" + std::to_string(i) + "/" + std::to_string(file));
      leading->push(kFirstPush + i, names);
      expected_files += names.size();
    }
    const unsigned before = lead_changes_;
    main_.turn_until([&] { return pushes.messages.size() > i; });
    if (i % 3 == 0) {
      hand_over(*leading, *waiting);
      std::swap(leading, waiting);
      ++handed_over;
      main_.turn_until([&] { return lead_changes_ > before; });
    }
  }
  // What the former lead could not say any more it says now.
  hand_over(*leading, *waiting);
  main_.turn_until([&] { return pushes.done.size() == kPushes || running == 0; });
  hand_over(*waiting, *leading);
  main_.turn_until([&] {
    return running == 0 && pushes.done.size() == kPushes && pushes.files.size() == expected_files;
  });
  for (std::thread& thread : threads) thread.join();

  // Requests.
  size_t cancelled = 0;
  for (const auto& requester : requesters)
    for (const Request& request : requester->requests()) {
      EXPECT_EQ(request.answers, 1u) << request.name;
      EXPECT_EQ(request.answer, request.withdrawn ? uint64_t{PKGDIST_STATUS_CANCELLED} : 0u)
          << request.name;
      const bool stands = std::filesystem::exists(directory_.path() + request.name);
      EXPECT_EQ(stands, !request.withdrawn) << request.name;
      EXPECT_TRUE(!stands || is_right(request.name)) << request.name;
      cancelled += request.withdrawn ? 1 : 0;
    }
  EXPECT_GT(cancelled, 0u);
  // Pushes.
  EXPECT_EQ(pushes.files.size(), expected_files);
  for (const auto& [name, calls] : pushes.files) {
    EXPECT_EQ(calls, 1u) << name;
    EXPECT_TRUE(is_right(name)) << name;
  }
  for (const auto& [xact_id, calls] : pushes.done) EXPECT_EQ(calls, 1u) << xact_id;
  for (const auto& [xact_id, calls] : pushes.started) EXPECT_EQ(calls, 1u) << xact_id;
  EXPECT_EQ(pushes.started.size(), kPushes);
  // Messages, both ways.
  for (unsigned i = 0; i < kLeadMessages; ++i)
    EXPECT_EQ(pushes.messages.count(text("to all " + std::to_string(i))), 1u) << i;
  EXPECT_EQ(pushes.messages.size(), kLeadMessages);
  expect_each_answered(sender, {0});
  EXPECT_EQ(sender.refused(), 0u);
  EXPECT_GE(lead_changes_, handed_over);

  lead_.stop();
  other_.stop();
  std::set<Bytes> heard;
  for (const ServingLead* lead : {&lead_, &other_})
    for (const auto& [sequence, bytes] : lead->received()) heard.insert(bytes);
  EXPECT_EQ(heard.size(), kMessages);

  expect_nothing_left();
  const uint32_t files = kRequesters * kFilesEach + static_cast<uint32_t>(expected_files);
  EXPECT_EQ(value(DrsCounter::kFileAdd), files);
  EXPECT_EQ(value(DrsCounter::kXactAdd), 0u);  // no file was wanted twice
  EXPECT_EQ(value(DrsCounter::kStatAdd), files);
  EXPECT_EQ(value(DrsCounter::kFileXferCb), files);
  EXPECT_EQ(value(DrsCounter::kFileStartCb), kPushes);
  EXPECT_EQ(value(DrsCounter::kFileDoneCb), kPushes);
  EXPECT_EQ(value(CrsCounter::kUcAddMsg), kMessages);
  EXPECT_EQ(value(CrsCounter::kUcStatusCb), kMessages);
  EXPECT_EQ(value(CrsCounter::kLeadChangeCb), lead_changes_);
  EXPECT_EQ(entries(G_data_recv_ctx_db), 3u);  // the handlers of pushes
  EXPECT_EQ(entries(G_ctrl_recv_ctx_db), 2u);  // lead changes and class 2
  EXPECT_EQ(entries(G_data_recv_qitc_db), 3u);
  EXPECT_EQ(entries(G_ctrl_recv_qitc_db), 2u);
}

// --- Callbacks that call back ---

// From each callback the next thing begins, on four loops at once: a file is followed by a message,
// the message's status by the next file, with handlers attached and detached in between.
class Chain {
 public:
  Chain(unsigned number, unsigned links) : number_(number), links_(links) {}

  void run() {
    ask();
    caller_.turn_until([this] { return files_ == links_ && statuses_ == links_; });
    caller_.turn();
    EXPECT_EQ(files_, links_);
    EXPECT_EQ(statuses_, links_);
    EXPECT_EQ(cancelled_, links_);
  }

  std::string name(unsigned link) const {
    return "chain" + std::to_string(number_) + "/" + std::to_string(link);
  }

 private:
  static void on_file(uint64_t status, const char*, uint32_t, uint32_t, uint32_t, void* ctx) {
    EXPECT_EQ(status, 0u);
    auto& self = *static_cast<Chain*>(ctx);
    ++self.files_;
    self.cancel_another();
    self.attach_and_detach();
    EXPECT_EQ(
        instcomm_pkgdist_ctrl_send_lead_msg("link", 4, 2, self.caller_.loop(), on_status, ctx), 0u);
  }
  static void on_status(uint64_t status, void* ctx) {
    EXPECT_EQ(status, 0u);
    auto& self = *static_cast<Chain*>(ctx);
    ++self.statuses_;
    self.attach_and_detach();
    if (self.files_ < self.links_) self.ask();
  }
  static void on_cancelled(uint64_t status, const char*, uint32_t, uint32_t, uint32_t, void* ctx) {
    EXPECT_EQ(status, PKGDIST_STATUS_CANCELLED);
    ++static_cast<Chain*>(ctx)->cancelled_;
  }
  static void on_message(const void*, uint64_t, void* ctx) {
    // Detaches the handler that it is.
    auto& self = *static_cast<Chain*>(ctx);
    EXPECT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(self.caller_.loop(), self.msg_class(), nullptr,
                                                   nullptr),
              0u);
  }

  uint32_t msg_class() const { return 3 + number_ % 3; }

  void ask() {
    EXPECT_EQ(instcomm_pkgdist_get_file(name(files_).c_str(), 1, 1, 1,
                                        instcomm_pkgdist_get_receive_xact_id(), caller_.loop(),
                                        on_file, this),
              0u);
  }
  // A file that the lead does not answer for: only the cancel ends it.
  void cancel_another() {
    const uint32_t xact_id = instcomm_pkgdist_get_receive_xact_id();
    const std::string never = ServingLead::kNever + std::to_string(xact_id);
    EXPECT_EQ(instcomm_pkgdist_get_file(never.c_str(), 1, 1, 1, xact_id, caller_.loop(),
                                        on_cancelled, this),
              0u);
    EXPECT_EQ(instcomm_pkgdist_get_file_cancel(xact_id), 0u);
  }
  void attach_and_detach() {
    if (files_ % 2 == 0)
      EXPECT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(caller_.loop(), msg_class(), on_message, this),
                0u);
    else
      EXPECT_EQ(instcomm_pkgdist_ctrl_mc_hdlr_attach(caller_.loop(), msg_class(), nullptr, nullptr),
                0u);
  }

  unsigned number_;
  unsigned links_;
  unsigned files_ = 0, statuses_ = 0, cancelled_ = 0;
  Caller caller_;
};

TEST_F(Concurrency, callbacks_of_several_loops_call_back_into_the_library) {
  constexpr unsigned kChains = 3;  // one for each message class that they attach
  constexpr unsigned kLinks = 60;
  std::vector<std::unique_ptr<Chain>> chains;
  std::vector<std::thread> threads;
  std::atomic<unsigned> running{kChains};
  for (unsigned i = 0; i < kChains; ++i) {
    chains.push_back(std::make_unique<Chain>(i, kLinks));
    threads.emplace_back([&running, chain = chains.back().get()] {
      chain->run();
      --running;
    });
  }
  unsigned messages = 0;
  main_.turn_until([&] {
    if (lead_.acknowledged() == messages) lead_.message(3 + messages++ % 3, {1});
    return running == 0;
  });
  for (std::thread& thread : threads) thread.join();
  for (const auto& chain : chains)
    for (unsigned link = 0; link < kLinks; ++link) EXPECT_TRUE(is_right(chain->name(link)));
  main_.turn_until([&] { return lead_.acknowledged() == messages; });
  lead_.stop();
  expect_nothing_left();
  EXPECT_EQ(value(DrsCounter::kFileXferCb), 2 * kChains * kLinks);
  EXPECT_EQ(value(CrsCounter::kUcStatusCb), kChains * kLinks);
  EXPECT_EQ(entries(G_data_recv_ctx_db), 0u);
  EXPECT_EQ(entries(G_data_recv_qitc_db), 0u);
}

// --- Registration for lead changes ---

TEST_F(Concurrency, registration_at_the_moment_of_a_new_lead_hears_of_it) {
  ASSERT_EQ(instcomm_pkgdist_ctrl_register_lead_change(main_.loop(), nullptr, nullptr), 0u);
  using Heard = std::vector<uint32_t>;
  const auto on_change = [](uint32_t lead, uint32_t, bool, void* ctx) {
    static_cast<Heard*>(ctx)->push_back(lead);
  };
  ServingLead* leading = &lead_;
  ServingLead* waiting = &other_;
  std::mt19937 random(1);
  std::uniform_int_distribution<int> turns(0, 200'000);
  constexpr unsigned kRounds = 300;
  for (unsigned round = 0; round < kRounds; ++round) {
    Heard heard;
    hand_over(*leading, *waiting);
    std::swap(leading, waiting);
    const uint32_t now_leading = leading == &lead_ ? support::kScriptedLead : kOtherLead;
    for (volatile int turn = turns(random); turn > 0;) turn = turn - 1;
    ASSERT_EQ(instcomm_pkgdist_ctrl_register_lead_change(main_.loop(), on_change, &heard), 0u);
    // Whatever came first: the new lead is reported, by the registration or by its appearance, and
    // no report of its predecessor comes later.
    main_.turn_until([&] { return !heard.empty() && heard.back() == now_leading; });
    ASSERT_EQ(heard.back(), now_leading) << round << testing::PrintToString(heard);
    ASSERT_EQ(instcomm_pkgdist_ctrl_register_lead_change(main_.loop(), nullptr, nullptr), 0u);
  }
  EXPECT_EQ(entries(G_ctrl_recv_ctx_db), 0u);
  EXPECT_EQ(entries(G_ctrl_recv_qitc_db), 0u);
}

// --- Start-up under a live receive thread ---

// A second start-up closes the sockets under the threads that use them: what they do at that moment
// fails and is repeated. Thread sanitizer reports it, and here it is meant.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "race:^pkgdist::close_socket\nrace:^pkgdist::udp_socket\n";
}

TEST_F(Concurrency, start_up_again_and_again_under_the_live_receive_thread_loses_no_message) {
  Pushes pushes;
  pushes.attach(main_.loop());
  const auto open_descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  Sender sender(40);
  const auto before = open_descriptors();
  constexpr unsigned kStartUps = 100;
  constexpr unsigned kMessages = 20;
  std::atomic<bool> done{false};
  std::atomic<unsigned> messages{0};
  std::thread starter([&] {
    for (unsigned i = 0; i < kStartUps || messages < kMessages; ++i) {
      const uint32_t pings = value(CrtCounter::kMcPingRecv);
      EXPECT_EQ(instcomm_pkgdist_ctrl_recv_init(
                    pkgdist::load(G_ctrl_tx_mc_addr), pkgdist::load(G_ctrl_tx_mc_port),
                    pkgdist::load(G_ctrl_rx_uc_port), pkgdist::load(G_ctrl_tx_uc_port), 3,
                    support::kNodeUnderTest, 0),
                0u);
      // Without a datagram between two of them nothing would ever get through.
      while (value(CrtCounter::kMcPingRecv) == pings) std::this_thread::yield();
    }
    done = true;
  });
  std::thread sending([&] { sender.run(); });
  main_.turn_until([&] {
    if (lead_.acknowledged() == messages && !done)
      lead_.message(2, text(std::to_string(messages++)));
    return done && pushes.messages.size() >= messages;
  });
  starter.join();
  sending.join();
  for (unsigned i = 0; i < messages; ++i)
    EXPECT_EQ(pushes.messages.count(text(std::to_string(i))), 1u) << i;
  // One that was to be sent again while there was no socket ends with that.
  expect_each_answered(sender, {0, PKGDIST_ERR_SEND});
  // The thread still serves both sockets, and the old ones are closed.
  const uint32_t pings = value(CrtCounter::kMcPingRecv);
  main_.turn_until([&] { return value(CrtCounter::kMcPingRecv) > pings + 2; });
  EXPECT_EQ(open_descriptors(), before);
}

// --- The order of locks ---

TEST(LockOrder, a_lock_against_the_order_ends_the_process) {
  const auto against = [] {
    pthread_mutex_lock(&support::lock_order::mutex_of("file receive db"));
    pthread_mutex_lock(&support::lock_order::mutex_of("control receive db"));
  };
  EXPECT_DEATH(against(), "lock order: control receive db is taken while file receive db is held");
  const auto together = [] {
    pthread_mutex_lock(&support::lock_order::mutex_of("data contexts"));
    pthread_mutex_lock(&support::lock_order::mutex_of("data channels"));
  };
  EXPECT_DEATH(together(), "lock order: data channels is taken while data contexts is held");
  const auto twice = [] {
    pthread_mutex_lock(&support::lock_order::mutex_of("file stat db"));
    pthread_mutex_lock(&support::lock_order::mutex_of("file stat db"));
  };
  EXPECT_DEATH(twice(), "lock order: file stat db is taken while file stat db is held");
}

TEST(LockOrder, has_no_cycle) {
  using support::lock_order::allows;
  const std::vector<std::string> names = {
      "control receive db", "file stat db",     "file receive db", "data contexts",
      "data channels",      "DATA_RX mutex",    "DATA_FILE mutex", "atomic_mutex",
      "lead messages",      "control contexts", "control channels"};
  for (const std::string& a : names)
    for (const std::string& b : names) {
      EXPECT_FALSE(allows(a, b) && allows(b, a)) << a << ", " << b;
      for (const std::string& c : names)
        EXPECT_TRUE(!allows(a, b) || !allows(b, c) || allows(a, c)) << a << ", " << b << ", " << c;
    }
  EXPECT_TRUE(allows("DATA_RX mutex", "DATA_FILE mutex"));
  EXPECT_FALSE(allows("data contexts", "DATA_FILE mutex"));
}

TEST(LockOrder, is_the_documented_one) {
  std::ifstream page(PKGDIST_SOURCE_DIR "/docs/architecture.md");
  std::string words, word;
  while (page >> word) words += word + " ";
  for (const char* line : support::lock_order::kOrder)
    EXPECT_NE(words.find(line), std::string::npos) << line;
}

}  // namespace
