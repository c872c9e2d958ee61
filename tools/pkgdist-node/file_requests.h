// Files that somebody wants from the lead: asks for them in turns and counts what becomes of them.
//
// "NAME.tmp" is where NAME is received, so a name is asked for when those with fewer such suffixes
// have arrived. Must live until nothing is waited for: the library calls it back.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "node_options.h"
#include "pkgdist/pkgdist_recv.h"

namespace pkgdist::node_program {

// What `get` asks for.
struct Wanted {
  std::vector<std::string> paths;
  uint32_t location = 1;
  uint32_t type = 1;
  uint32_t priority = 2;
};
Wanted wanted_of(const NodeOptions& options);

class FileRequests {
 public:
  using Ended = std::function<void(uint64_t status, const char* path, uint32_t location,
                                   uint32_t transaction)>;

  FileRequests(Wanted wanted, levm_handle_t loop, Ended ended);
  FileRequests(const FileRequests&) = delete;
  FileRequests& operator=(const FileRequests&) = delete;

  // Asks for the next turn when nothing of the one before is waited for. True when all have ended.
  bool run();
  bool waits() const { return waiting_ != 0; }
  size_t left() const { return count_ - ended_ - refused_; }  // that have not ended
  size_t received_or_failed() const { return ended_; }        // the lead hears of these
  size_t failed() const { return failed_; }

 private:
  static void on_file(uint64_t status, const char* path, uint32_t type, uint32_t location,
                      uint32_t transaction, void* ctx);
  void request(const std::string& path);

  const Wanted wanted_;
  const levm_handle_t loop_;
  const Ended on_ended_;
  std::map<size_t, std::vector<std::string>> turns_;  // by number of suffixes
  const size_t count_;
  size_t waiting_ = 0, ended_ = 0, failed_ = 0, refused_ = 0;
};

}  // namespace pkgdist::node_program
