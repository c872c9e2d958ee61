// Dispatch of data datagrams. On DATA_FILE.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "pkgdist/status.h"
#include "pkgdist_data_recv_segment_run.h"

// Dispatches one received datagram.
void pkgdist_data_rx_process_msg(const uint8_t* data, ssize_t length);

// Handlers of the bodies; `length` encoded bytes each.
void pkgdist_data_process_file_info(const uint8_t* body, size_t length, uint32_t node_ip);
PkgdistStatus pkgdist_data_process_file_segment(const uint8_t* body, size_t length);
void pkgdist_data_process_miss_done(const uint8_t* body, size_t length);

namespace pkgdist {

// Dispatches one of several datagrams that were received together. A segment may stay in the run,
// with views into `data`; whatever else comes ends the run first.
void process_datagram(const uint8_t* data, ssize_t length, SegmentRun& run);

// Takes an encoded segment into the run.
PkgdistStatus process_segment(const uint8_t* body, size_t length, SegmentRun& run);

// Whether a list of nodes means this one; an empty list means everybody.
bool names_this_node(const uint32_t* node_list, uint32_t count);

}  // namespace pkgdist
