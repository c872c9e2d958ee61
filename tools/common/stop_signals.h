// SIGINT and SIGTERM as something to wait for, and the promise that they end the program.
//
// A thread of its own takes them, whatever the rest of the program waits in: a write to a pipe that
// nobody reads, a directory on a server that is gone. A program that has not ended by itself
// within kStopSeconds after the signal is ended by that thread.
#pragma once

#include <string>

namespace pkgdist::cli {

// From the signal to the end of the program, at most.
inline constexpr double kStopSeconds = 1.6;

// Keeps the signals from the calling thread and from all that it starts, and begins to wait for
// them. To be called once, before other threads are started. `status`: with which a program ends
// that does not end by itself; `name` for the message.
void watch_stop_signals(const std::string& name, int status);

// The signal that has come; 0: none so far. From any thread, like everything here.
int stop_signal();
// Readable from the signal on, for good; nobody reads it. For poll().
int stop_fd();
// True when a signal has come already or comes within this time.
bool wait_for_stop(double seconds);
// Waits until `fd` is ready for `events` of poll(). False when a signal comes first, or the time is
// over; negative: without limit.
bool wait_unless_stopped(int fd, short events, double seconds);
// 0 before the signal.
double seconds_since_stop();
// "interrupted by SIGINT"; empty before the signal.
std::string stop_text();
// "SIGINT".
std::string signal_name(int signal);

}  // namespace pkgdist::cli
