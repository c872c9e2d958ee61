#include "process_name.h"

#include <cstring>

#include "platform/ship_layout.h"
#include "printable.h"
#include "process_object.h"

namespace pkgdist::tools {

std::string process_name(pid_t pid) {
  try {
    const ObjectFile file(kShmDirectory + std::string(SHIP_LAYOUT_OBJECT_PREFIX) +
                          std::to_string(pid));
    ship_layout_header header{};
    file.read(0, &header, sizeof header);
    if (header.magic != SHIP_LAYOUT_MAGIC || header.version != SHIP_LAYOUT_VERSION ||
        header.table_count == 0)
      return "";
    ship_layout_table table{};
    file.read(header.table_offset, &table, sizeof table);
    return cli::printable(std::string(table.process, strnlen(table.process, sizeof table.process)));
  } catch (const BadObject&) {
    return "";
  }
}

}  // namespace pkgdist::tools
