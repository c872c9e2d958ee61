// Answers the lead's question of `push --durable`: writes a location's file system to its disk and
// says so. That may take long, so each question has a thread of its own; one at a time works, since
// they would only wait for the same disk. To a question that comes again meanwhile it says that it
// is at work.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "flush_messages.h"

namespace pkgdist::node_program {

class FlushService {
 public:
  FlushService();

  // A descriptor is kept from now on: syncfs() tells of errors since it was opened. Where another
  // file system is mounted over it later, that one is written.
  void add_location(uint32_t number, const std::string& directory);
  // A message of the lead; false when it is another one.
  bool on_message(uint32_t msg_class, std::span<const uint8_t> bytes);

 private:
  struct Place {
    std::string directory;
    int descriptor = -1;
  };
  struct Disks {  // outlives the process's other objects, because threads may still use it
    std::map<uint32_t, Place> places;  // by location
    std::mutex busy;
    std::mutex under_way_mutex;  // of the next one
    std::vector<cli::FlushQuestion> under_way;
  };
  static int write_disk(const Place& place);
  static bool begin(Disks& disks, const cli::FlushQuestion& question);
  static void flush(const std::shared_ptr<Disks>& disks, const cli::FlushQuestion& question);

  const std::shared_ptr<Disks> disks_;
};

}  // namespace pkgdist::node_program
