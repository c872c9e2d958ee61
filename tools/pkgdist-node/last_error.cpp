#include "last_error.h"

#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <stdexcept>

#include "pkgdist/status.h"
#include "process_object.h"
#include "status_text.h"
#include "trace_reader.h"

namespace pkgdist::node_program {

namespace {

// "ERR:function: text" without what is for programmers.
std::string reason_of(const std::string& text) {
  const size_t end = text.rfind("ERR:", 0) == 0 ? text.find(": ") : std::string::npos;
  return end == std::string::npos ? text : text.substr(end + 2);
}

}  // namespace

std::string last_error(ErrorOf whose) {
  const auto own_thread = static_cast<uint32_t>(::gettid());
  std::string own;
  std::string any;
  const std::string path =
      tools::trace_directory() + "/" QTRACE_LAYOUT_FILE_PREFIX + std::to_string(::getpid());
  struct stat status {};
  // What a dead process of another user left under this number tells nothing of this process.
  if (::stat(path.c_str(), &status) != 0 || status.st_uid != ::geteuid()) return "";
  try {
    trace::TraceReader reader(path);
    for (const trace::Record& record : reader.next(0)) {
      const std::optional<trace::Catalogue> catalogue = reader.catalogue(record.ring);
      if (!catalogue || record.point >= catalogue->points.size()) continue;
      const trace::Point& point = catalogue->points[record.point];
      if (point.second != 0) continue;
      any = reason_of(trace::render(point, record));
      if (record.thread == own_thread) own = any;
    }
  } catch (const std::runtime_error&) {
    // Another platform library may keep no trace, or one without texts.
  }
  return whose == ErrorOf::kThisThread && !own.empty() ? own : any;
}

std::string status_with_error(uint64_t status) {
  if (status != PKGDIST_ERR_SYSTEM && status != PKGDIST_ERR_SEND) return cli::status_text(status);
  const std::string reason = last_error(ErrorOf::kAnyThread);
  return reason.empty() ? cli::status_text(status) : pkgdist_status_str(status) + (": " + reason);
}

std::string message_text(uint64_t status) {
  return status == 0 ? "acknowledged" : status_with_error(status);
}

}  // namespace pkgdist::node_program
