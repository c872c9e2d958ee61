#include "flush_service.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <thread>

#include "pkgdist/pkgdist_recv.h"

namespace pkgdist::node_program {

namespace {

constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// The library retransmits the message until the lead acknowledges it. If it is given up, the lead
// sends its question again.
void send(const std::string& text) {
  (void)instcomm_pkgdist_ctrl_send_lead_msg(text.data(), text.size(), cli::kFlushClass, nullptr,
                                            nullptr, nullptr);
}

}  // namespace

FlushService::FlushService() : disks_(std::make_shared<Disks>()) {}

void FlushService::add_location(uint32_t number, const std::string& directory) {
  const int fd = ::open(directory.c_str(), kDirectory);
  if (fd >= 0) disks_->places[number] = {directory, fd};
}

// 0, or an errno value.
int FlushService::write_disk(const Place& place) {
  const int now = ::open(place.directory.c_str(), kDirectory);
  if (now < 0) return errno;
  struct stat kept {
  }, found{};
  const bool same = ::fstat(place.descriptor, &kept) == 0 && ::fstat(now, &found) == 0 &&
                    kept.st_dev == found.st_dev;
  const int error = ::syncfs(same ? place.descriptor : now) == 0 ? 0 : errno;
  ::close(now);
  return error;
}

void FlushService::flush(const std::shared_ptr<Disks>& disks, const cli::FlushQuestion& question) {
  int error = ENOTSUP;  // in memory, or no location of this node
  if (const auto found = disks->places.find(question.location); found != disks->places.end()) {
    const std::lock_guard lock(disks->busy);
    error = write_disk(found->second);
  }
  {
    const std::lock_guard lock(disks->under_way_mutex);
    std::erase(disks->under_way, question);
  }
  send(cli::flush_answer_text({question, error}));
}

// False when it is under way already.
bool FlushService::begin(Disks& disks, const cli::FlushQuestion& question) {
  const std::lock_guard lock(disks.under_way_mutex);
  if (std::find(disks.under_way.begin(), disks.under_way.end(), question) != disks.under_way.end())
    return false;
  disks.under_way.push_back(question);
  return true;
}

bool FlushService::on_message(uint32_t msg_class, std::span<const uint8_t> bytes) {
  if (msg_class != cli::kFlushClass) return false;
  const auto question = cli::parse_flush_question(bytes);
  if (!question) return false;
  if (!begin(*disks_, *question)) {
    send(cli::flush_progress_text(*question));
    return true;
  }
  try {
    std::thread(flush, disks_, *question).detach();
  } catch (const std::system_error&) {
    flush(disks_, *question);  // no thread to be had
  }
  return true;
}

}  // namespace pkgdist::node_program
