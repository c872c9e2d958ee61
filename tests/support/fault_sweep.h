// Every failure in turn: a scenario is driven once for each call that it makes, with that call
// failing, and after each failure the library must be whole and still do its work.
//
// A scenario's test gives a table of what each failure brings: for each kind of call, in the order
// of the calls, the words of the error record and the status that the caller is told. The table is
// complete: a call that is not in it, or a row whose call is never made, fails the test. So it is
// also the list of everything in that scenario that can fail.
//
// Mutexes and the timed wait end the process when they fail. They are driven from one run: at each
// such call a child process takes the failure and must end as it should, while the parent goes on.
#pragma once

#include <initializer_list>
#include <set>

#include "ctrl_support.h"
#include "data_support.h"

namespace support {

// What one failure brings. Empty words: no error record beyond those of a run without failures.
struct Failure {
  const char* words;
  PkgdistStatus told = 0;  // to a caller or a callback; 0: nobody is told
  unsigned times = 1;      // for as many calls in a row
};
struct Failures {
  Call call;
  std::vector<Failure> rows;
  int error = 0;  // with which the calls fail, if not with the usual one of their kind
};

// As the error of an encode: it reports more bytes than any datagram has.
inline constexpr int kTooLarge = 5'000;

struct Scenario {
  std::function<void()> prepare;   // under no fault
  std::function<void()> exercise;  // what is swept; statuses that it is told go to tell()
  std::function<void()> recover;   // what a caller does after a failure; under no fault
};

// The control and the data side at rest, with a caller of both. Both callers use their own loop.
class FaultSweep : public CtrlTest, public DataTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  void sweep(const Scenario& scenario, const std::vector<Failures>& expected);

  // A status that the scenario's caller got.
  PkgdistStatus tell(PkgdistStatus status);
  // Both loops, until nothing is waiting.
  void deliver();
  // Through the queue and the file thread's loop, as datagrams come in.
  void data_arrives(uint32_t msg_id, const Bytes& body);
  void file_arrives(const Info& info, const std::vector<uint32_t>& segments);
  static Bytes segment_bytes(const Info& info, uint32_t segment);
  static void run_file_loop();
  // A control message of the lead, next in order.
  static Bytes next_control(const std::string& data, uint32_t msg_class);
  // Time passes until nothing is left to be done: all time-outs and ages are over.
  void let_time_pass();

 private:
  struct Outcome {
    std::vector<std::string> errors;  // in the order of their writing
    std::multiset<PkgdistStatus> told;
  };
  Outcome outcome();
  void start_anew();
  void prepare(const Scenario& scenario);
  void run_without_failure(const Scenario& scenario);
  void sweep_call(const Scenario& scenario, const Failures& expected);
  void sweep_fatal(const Scenario& scenario);
  bool run_with_failure(const Scenario& scenario, Call call, unsigned nth, int error);
  void expect_row(const Failure* row, const std::string& where);
  void expect_whole();
  void expect_database_counts();
  void expect_references();
  void expect_good_file();
  void expect_good_message();

  std::multiset<PkgdistStatus> told_;
  Outcome usual_;               // of a run without failures
  bool callback_lost_ = false;  // the failure under test may cost a callback
  size_t descriptors_ = 0;
  unsigned injected_ = 0;
  std::string found_;  // the table as it would have to be
};

}  // namespace support
