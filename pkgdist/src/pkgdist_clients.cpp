#include "pkgdist_clients.h"

#include "pkgdist_log.h"

namespace pkgdist {

int channel_descriptor(const CallbackChannel& channel) {
  return channel.qitc != nullptr ? qitc_handle_fd(channel.qitc) : -1;
}

void log_reference_added(const char* function, uint32_t recv_id, const CallbackChannel& channel) {
  PKGDIST_INFO("%s: Increment ref count for recv id %u, qitc id %u to cfd %d with count %u\n",
               function, recv_id, channel.channel_id, channel_descriptor(channel),
               channel.reference_count);
}

void log_reference_dropped(const char* function, uint32_t recv_id, const CallbackChannel& channel) {
  PKGDIST_INFO("%s: Clean up request for recv id %u, qitc id %u to cfd %d with count %u\n",
               function, recv_id, channel.channel_id, channel_descriptor(channel),
               channel.reference_count);
}

void log_channel_detach_failed(const char* function, int error) {
  PKGDIST_ERR_IN(function, "ctrl recv qitc detach failed: %d", error);
}

}  // namespace pkgdist
