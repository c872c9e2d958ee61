// The full-screen view of a push, on the terminal.
//
// A thread of its own draws and takes keys, so that a terminal that takes nothing holds up nobody.
// The owner hands it states of the push and asks for what the keys want.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "push_state.h"

namespace pkgdist::lead_program {

class TopScreen {
 public:
  // Takes the terminal of `input` (standard input, or /dev/tty) and of standard output. Throws
  // std::runtime_error when that is none. `can_stop`: nodes can be stopped.
  TopScreen(int input, bool can_stop);
  // Gives the terminal back; one that takes nothing is left after a moment.
  ~TopScreen();
  TopScreen(const TopScreen&) = delete;
  TopScreen& operator=(const TopScreen&) = delete;

  void show(const PushState& state);
  // A line about what happened.
  void tell(const std::string& line);

  // Somebody wants to leave the view.
  bool left() const;
  // The nodes that somebody wants to be stopped, since the last call.
  std::vector<uint32_t> take_stops();

 private:
  struct Shared;
  std::shared_ptr<Shared> shared_;  // with the thread
};

}  // namespace pkgdist::lead_program
