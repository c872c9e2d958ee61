// The file list of a push, cut into pieces that are announced one at a time: a node asks for a file
// that it was told of and heard nothing about for a second, and gives it up after 21, so a list
// must not run far ahead of the stream.
#pragma once

#include <string>
#include <vector>

#include "pkgdist_lead/push.h"

namespace pkgdist::lead {

// Files [first, end) of a push.
struct FileRange {
  uint32_t first = 0;
  uint32_t end = 0;
  uint32_t level = 0;  // see levels_of()
};

// On a node "NAME.tmp" is where NAME arrives, so a push with both names (or with NAME.tmp/FILE)
// brings them one after the other: first the files of level 0, then those whose name is taken while
// one of level 0 arrives, and so on.
std::vector<uint32_t> levels_of(const std::vector<PushFile>& files);

// `levels`: of the files, ascending; none means that all have the same. A piece has one level.
std::vector<FileRange> cut_file_list(const std::vector<PushFile>& files,
                                     const std::vector<uint32_t>& levels = {});

// The control message of operation 1 for some files of a push, encoded. Several messages when the
// names do not fit into one.
std::vector<std::vector<uint8_t>> encode_file_lists(const PushRequest& push, uint32_t xact,
                                                    const std::vector<uint32_t>& files);

// The control messages of operations 2 and 3.
std::vector<uint8_t> encode_cancel(uint32_t xact);
std::vector<uint8_t> encode_delete(uint32_t location, const std::vector<std::string>& names);
// The same for any number of names, in messages of the size of a list.
std::vector<std::vector<uint8_t>> encode_deletes(uint32_t location,
                                                 const std::vector<std::string>& names);

}  // namespace pkgdist::lead
