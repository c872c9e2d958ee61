// The process's table of descriptors.
#pragma once

namespace pkgdist::lead_program {

// Makes room for as many open files as a push has. To be called while the process has one thread: a
// table that threads share grows only after every processor has been through the scheduler, and the
// lead would stand still for 5 to 15 ms at its 64th, 128th and 256th open file. Nothing happens
// where the limit of descriptors is lower.
void make_room_for_descriptors();

}  // namespace pkgdist::lead_program
