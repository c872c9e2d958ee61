// The lead's file lists, cancels and deletes, which arrive as control messages.
#pragma once

#include <cstdint>

// Handles one file-send control message of `size` encoded bytes. CTRL_RX, with the control receive
// database locked: nothing here may call back into that database. The last argument is not used.
void pkgdist_data_send_file_msg_hdlr(const uint8_t* data, uint64_t size, uint32_t unused);
