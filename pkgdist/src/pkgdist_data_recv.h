// Data side: start-up, storage locations, and the state that its modules share.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pkgdist/pkgdist_recv.h"

inline constexpr size_t kLocations = 6;
inline constexpr size_t kRepositoryPathBytes = 128;
inline constexpr size_t kFilePathBytes = 256;

extern "C" {
extern uint32_t G_data_tx_mc_addr;  // data multicast group
extern uint16_t G_data_tx_mc_port;
extern uint16_t G_data_req_uc_port;                                    // the lead's request port
extern int G_data_req_socket;                                          // -1 when closed
extern char G_data_recv_repository[kLocations][kRepositoryPathBytes];  // [location - 1]
extern uint8_t G_data_recv_memory[kLocations];
}

// Opens the socket that requests and reports to the lead leave from.
PkgdistStatus pkgdist_data_recv_req_init();

namespace pkgdist {

// The transaction identifier that was given out last.
extern uint32_t receive_xact_counter;

constexpr bool is_location(uint32_t location) {
  return location >= 1 && location <= kLocations;
}

// Whether the name stays below its storage location: no component of it is "..".
bool is_confined(const char* name);

// Whether files of this location are shared-memory objects. False for no location.
bool is_memory_location(uint32_t location);

// Appended to the name of a disk file that is not complete.
inline constexpr char kPartialSuffix[] = ".tmp";

// The one way from a location and a name to a path: the location's prefix, the name and a suffix. A
// name that is not confined, one that makes more than 255 characters, or a location that does not
// exist, gives the empty path, which no file-system call accepts.
class FilePath {
 public:
  FilePath(uint32_t location, const char* name, const char* suffix = "");
  const char* c_str() const { return text_; }
  bool empty() const { return text_[0] == '\0'; }
  // Characters of the directory that the location itself stands in, with its slash; 0 for none.
  size_t base_length() const { return base_length_; }

 private:
  char text_[kFilePathBytes];
  size_t base_length_ = 0;
};

// Whether the name makes a path in the location, the suffix of an incomplete file included. Cut
// paths would make two names one file, or show a partial file under its final name.
bool has_room(uint32_t location, const char* name);

// now - stamp, and 0 for a stamp that was set after `now` was taken.
constexpr uint64_t elapsed(uint64_t now, uint64_t stamp) {
  return now > stamp ? now - stamp : 0;
}

}  // namespace pkgdist
