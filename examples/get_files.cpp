// Asks the lead for files by name, in C++:  get_files OWN-ADDRESS DIRECTORY/ NAME...
// The exit status says whether all of them have arrived.
#include <arpa/inet.h>

#include <chrono>
#include <cstdint>
#include <iostream>
#include <pkgdist/pkgdist.hpp>
#include <string>
#include <vector>

namespace {

constexpr std::chrono::seconds kPatience{60};
constexpr std::chrono::milliseconds kReportTime{200};

// Asks for all files; the loop runs until each has ended, or patience is over.
bool get_all(const pkgdist::EventLoop& loop, const std::vector<std::string>& names) {
  size_t waiting = 0, arrived = 0;
  const auto on_file = [&](const pkgdist::FileOutcome& file) {
    std::cout << file.path << ": " << file.status << std::endl;
    --waiting;
    arrived += file.status.ok() ? 1 : 0;
  };
  for (const std::string& name : names) {
    const pkgdist::Status status = pkgdist::get_file(loop, {.path = name}, on_file);
    if (status.ok() || status == PKGDIST_ERR_SEND)  // what was not sent is sent again
      ++waiting;
    else
      std::cerr << name << ": " << status << '\n';
  }
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (waiting > 0 && std::chrono::steady_clock::now() < end)
    (void)loop.run_once(std::chrono::seconds(1));
  // The lead is told the end of a file just after the callback: give the library time for it.
  (void)loop.run_once(kReportTime);
  return arrived == names.size();
}

// Whoever asks before a lead is known has nobody to ask.
bool wait_for_lead(const pkgdist::EventLoop& loop) {
  bool known = false;
  pkgdist::LeadChangeHandler changes;
  if (!changes.attach(loop, [&](const pkgdist::Lead&) { known = true; }).ok()) return false;
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!known && std::chrono::steady_clock::now() < end)
    (void)loop.run_once(std::chrono::seconds(1));
  return known;
}

}  // namespace

int main(int argc, char** argv) {
  in_addr own{};
  if (argc < 4 || inet_pton(AF_INET, argv[1], &own) != 1) {
    std::cerr << "usage: " << argv[0] << " OWN-ADDRESS DIRECTORY/ NAME...\n";
    return 2;
  }
  const pkgdist::EventLoop loop;
  // Groups and ports are the defaults of pkgdist-lead.
  pkgdist::Status status = pkgdist::start_control({.address = ntohl(own.s_addr)});
  if (status.ok()) status = pkgdist::start_data({});
  if (status.ok()) status = pkgdist::set_location(1, argv[2]);
  if (!status.ok()) {
    std::cerr << status << '\n';
    return 1;
  }
  if (!wait_for_lead(loop)) {
    std::cerr << "no lead was heard\n";
    return 1;
  }
  return get_all(loop, {argv + 3, argv + argc}) ? 0 : 1;
}
