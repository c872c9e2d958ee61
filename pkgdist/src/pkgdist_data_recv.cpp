// Data start-up, storage locations and transaction identifiers.
//
// Start-up opens the request socket and starts no thread: those come with the first file. The
// tables here are written by callers without a lock before files are asked for.
#include "pkgdist_data_recv.h"

#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "pkgdist_atomic.h"
#include "pkgdist_export.h"
#include "pkgdist_log.h"
#include "pkgdist_socket.h"
#include "pkgdist_stats.h"
#include "platform/fts.h"
#include "platform/quendrel.h"

extern "C" {
PKGDIST_EXPORT uint32_t G_data_tx_mc_addr = 0;
PKGDIST_EXPORT uint16_t G_data_tx_mc_port = 0;
PKGDIST_EXPORT uint16_t G_data_req_uc_port = 0;
PKGDIST_EXPORT int G_data_req_socket = -1;
PKGDIST_EXPORT uint32_t G_data_recv_mode_mask = 07777;
PKGDIST_EXPORT char G_data_recv_repository[kLocations][kRepositoryPathBytes] = {};
PKGDIST_EXPORT uint8_t G_data_recv_memory[kLocations] = {};

PKGDIST_EXPORT pkgdist_data_timeouts G_data_rto = {
    .receive_wait = 5'000'000,
    .timer_period = 500'000'000,
    .file_info_timeout = 1'000'000'000,
    .segment_timeout = 2'000'000'000,
    .not_done_timeout = 2'000'000'000,
    .stat_age = 30'000'000'000,
    .max_retries = 5,
    .receive_buffer = 3'145'728,
};
}

using namespace pkgdist;

namespace {

constexpr int kSocketPriority = 4;
constexpr uint64_t kSimulationFactor = 10;

void register_statistics(const char* function) {
  if (int error = register_table(kDrtCounters); error != 0)
    PKGDIST_ERR_IN(function, "data recv transport counters ship register failed: %d", error);
  if (int error = register_table(kDrtWatermarks); error != 0)
    PKGDIST_ERR_IN(function, "data recv transport watermark ship register failed: %d", error);
  if (int error = register_table(kDrtHistograms); error != 0)
    PKGDIST_ERR_IN(function, "data recv transport histograms ship register failed: %d", error);
  if (int error = register_table(kDrsCounters); error != 0)
    PKGDIST_ERR_IN(function, "data recv server counters ship register failed: %d", error);
  if (int error = register_table(kDrsHistograms); error != 0)
    PKGDIST_ERR_IN(function, "data recv server histograms ship register failed: %d", error);
}

void stretch(uint64_t& interval) {
  store(interval, load(interval) * kSimulationFactor);
}

void stretch_timeouts() {
  stretch(G_data_rto.receive_wait);
  stretch(G_data_rto.timer_period);
  stretch(G_data_rto.file_info_timeout);
  stretch(G_data_rto.segment_timeout);
  stretch(G_data_rto.not_done_timeout);
}

// A trace point per location.
void log_location(uint32_t location, const char* path, bool memory) {
  switch (location) {
    case 1:
      PKGDIST_INFO("DATA Storage Loc 1 '%s' Mem '%d'\n", path, memory);
      return;
    case 2:
      PKGDIST_INFO("DATA Storage Loc 2 '%s' Mem '%d'\n", path, memory);
      return;
    case 3:
      PKGDIST_INFO("DATA Storage Loc 3 '%s' Mem '%d'\n", path, memory);
      return;
    case 4:
      PKGDIST_INFO("DATA Storage Loc 4 '%s' Mem '%d'\n", path, memory);
      return;
    case 5:
      PKGDIST_INFO("DATA Storage Loc 5 '%s' Mem '%d'\n", path, memory);
      return;
    default:
      PKGDIST_INFO("DATA Storage Loc 6 '%s' Mem '%d'\n", path, memory);
  }
}

}  // namespace

extern "C" PKGDIST_EXPORT PkgdistStatus instcomm_pkgdist_data_recv_init(uint32_t mc_addr,
                                                                        uint16_t mc_port,
                                                                        uint16_t req_port) {
  store(G_data_tx_mc_addr, mc_addr);
  store(G_data_tx_mc_port, mc_port);
  store(G_data_req_uc_port, req_port);
  PKGDIST_INFO("DATA recv init - mc addr %d.%d.%d.%d port %d uc port %d\n", PKGDIST_OCTETS(mc_addr),
               mc_port, req_port);
  register_statistics(static_cast<const char*>(__func__));
  if (platform_is_sim_platform()) stretch_timeouts();
  return pkgdist_data_recv_req_init();
}

PkgdistStatus pkgdist_data_recv_req_init() {
  close_socket(G_data_req_socket);
  PkgdistStatus status = 0;
  const int socket = udp_socket();
  store(G_data_req_socket, socket);
  if (socket < 0) {
    PKGDIST_ERR("data req socket create failed: %d(%s)", errno, std::strerror(errno));
    status = PKGDIST_ERR_SYSTEM;
  }
  // Made on -1 too after a failed creation: then it fails and says so.
  if (set_socket_option(socket, SO_PRIORITY, kSocketPriority) != 0) {
    PKGDIST_ERR("data req setsockopt prio failed: %d(%s)", errno, std::strerror(errno));
    status = PKGDIST_ERR_SYSTEM;
  }
  return status;
}

extern "C" PKGDIST_EXPORT PkgdistStatus instcomm_pkgdist_set_recv_repository(const char* path,
                                                                             uint32_t location,
                                                                             bool memory) {
  if (path == nullptr) {
    PKGDIST_ERR("repository path passed is NULL");
    return PKGDIST_ERR_INVALID;
  }
  const size_t length = std::strlen(path);
  if (length >= kRepositoryPathBytes) {
    PKGDIST_ERR("path size of %zd exceeds max %d", length, static_cast<int>(kRepositoryPathBytes));
    return PKGDIST_ERR_INVALID;
  }
  if (!is_location(location)) {
    PKGDIST_ERR("storage location value %d is invalid", location);
    return PKGDIST_ERR_INVALID;
  }
  char* slot = G_data_recv_repository[location - 1];
  store(G_data_recv_memory[location - 1], static_cast<uint8_t>(memory));
  // A location exists once its path begins: a list of the lead that comes at this moment finds all
  // of it or none.
  if (length != 0) (void)quendrel_sstrncpy(slot + 1, path + 1, kRepositoryPathBytes - 1);
  store(slot[0], path[0]);
  log_location(location, slot, memory);
  return 0;
}

extern "C" PKGDIST_EXPORT uint32_t instcomm_pkgdist_get_receive_xact_id(void) {
  std::atomic_ref<uint32_t> counter(receive_xact_counter);
  uint32_t id = counter.fetch_add(1, std::memory_order_relaxed) + 1;
  while (id == 0) id = counter.fetch_add(1, std::memory_order_relaxed) + 1;
  return id;
}

namespace pkgdist {

uint32_t receive_xact_counter = 0;

bool is_confined(const char* name) {
  while (*name != '\0') {
    const size_t length = std::strcspn(name, "/");
    if (length == 2 && name[0] == '.' && name[1] == '.') return false;
    name += length;
    while (*name == '/') ++name;
  }
  return true;
}

bool is_memory_location(uint32_t location) {
  return is_location(location) && load(G_data_recv_memory[location - 1]) != 0;
}

FilePath::FilePath(uint32_t location, const char* name, const char* suffix) : text_{} {
  if (!is_location(location) || !is_confined(name)) return;
  const char* prefix = G_data_recv_repository[location - 1];
  if (std::strlen(prefix) + std::strlen(name) + std::strlen(suffix) >= sizeof text_) return;
  (void)quendrel_sstrncpy(text_, prefix, sizeof text_);
  if (const char* end = std::strrchr(text_, '/'); end != nullptr)
    base_length_ = static_cast<size_t>(end - text_) + 1;
  (void)quendrel_sstrncat(text_, name, sizeof text_);
  (void)quendrel_sstrncat(text_, suffix, sizeof text_);
}

bool has_room(uint32_t location, const char* name) {
  return !FilePath(location, name, is_memory_location(location) ? "" : kPartialSuffix).empty();
}

}  // namespace pkgdist
