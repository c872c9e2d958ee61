// What the system's resolver calls addresses, asked on a thread of its own: a name server that does
// not answer holds up nobody, neither the owner's loop nor the end of the process.
//
// Each address is asked about once. Everything here is for one thread, the owner's.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace pkgdist::cli {

class NameResolver {
 public:
  // Asks about no more addresses than this in its life.
  static constexpr size_t kMaxAddresses = 8192;

  NameResolver();
  // Does not wait for an answer that is due.
  ~NameResolver();
  NameResolver(const NameResolver&) = delete;
  NameResolver& operator=(const NameResolver&) = delete;

  void ask(uint32_t address);
  // The names that have come since the last call, by address. Addresses without a name do not come.
  std::vector<std::pair<uint32_t, std::string>> take();

 private:
  struct Shared;
  std::shared_ptr<Shared> shared_;  // with the thread
  std::set<uint32_t> asked_;
};

}  // namespace pkgdist::cli
