// Dispatch of data datagrams. On DATA_FILE.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "pkgdist/status.h"

// Dispatches one received datagram.
void pkgdist_data_rx_process_msg(const uint8_t* data, ssize_t length);

// Handlers of the bodies; `length` encoded bytes each.
void pkgdist_data_process_file_info(const uint8_t* body, size_t length, uint32_t node_ip);
PkgdistStatus pkgdist_data_process_file_segment(const uint8_t* body, size_t length);
void pkgdist_data_process_miss_done(const uint8_t* body, size_t length);

namespace pkgdist {

// Whether a list of nodes means this one; an empty list means everybody.
bool names_this_node(const uint32_t* node_list, uint32_t count);

}  // namespace pkgdist
