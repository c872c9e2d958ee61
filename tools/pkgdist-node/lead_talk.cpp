#include "lead_talk.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "file_io.h"
#include "pkgdist/pkgdist_recv.h"
#include "poller.h"

namespace pkgdist::node_program {

namespace {

namespace fs = std::filesystem;

std::string host_name() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

// That this user may write; nothing in shared memory, where names are only a prefix.
std::optional<uint64_t> free_bytes(const cli::Location& location) {
  struct statvfs info {};
  if (location.memory || ::statvfs(location.path.c_str(), &info) != 0) return std::nullopt;
  return uint64_t{info.f_bavail} * info.f_frsize;
}

std::string error_text(int error) {
  return std::generic_category().message(error);
}

// What stands under a name, without following a link; an error number when that cannot be told.
struct Seen {
  int error = 0;
  mode_t mode = 0;
};

Seen seen_on_disk(const std::string& directory, const std::string& name, cli::Fd& parent) {
  const cli::Fd top(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  const size_t slash = name.rfind('/');
  const std::string inside = slash == std::string::npos ? "." : name.substr(0, slash);
  open_how how{};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH;
  parent = cli::Fd(
      static_cast<int>(::syscall(SYS_openat2, top.get(), inside.c_str(), &how, sizeof how)));
  // Then no link is followed, not even one that stays inside.
  if (!parent && errno == ENOSYS)
    parent =
        cli::Fd(release::open_beneath_by_steps(top.get(), inside.c_str(), O_PATH | O_DIRECTORY));
  if (!parent) return {errno, 0};
  struct stat status {};
  const std::string last = name.substr(slash == std::string::npos ? 0 : slash + 1);
  if (::fstatat(parent.get(), last.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return {errno, 0};
  return {0, status.st_mode};
}

Seen seen_in_memory(const std::string& name) {
  const cli::Fd object(::shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0));
  return object ? Seen{0, S_IFREG} : Seen{errno, 0};
}

bool is_absent(const Seen& seen) {
  return seen.error == ENOENT || seen.error == ENOTDIR;
}

std::string state_text(const Seen& seen) {
  if (is_absent(seen)) return cli::kStateAbsent;
  if (seen.error != 0) return error_text(seen.error);
  return S_ISDIR(seen.mode) ? cli::kStateDirectory : cli::kStateFile;
}

}  // namespace

void send_to_lead(const std::string& text) {
  (void)instcomm_pkgdist_ctrl_send_lead_msg(text.data(), text.size(), cli::kProgramClass, nullptr,
                                            nullptr, nullptr);
}

void LeadTalk::introduce() const {
  cli::Introduction own;
  own.pid = static_cast<uint32_t>(::getpid());
  own.host = host_name();
  own.version = cli::version();
  own.answers = true;
  own.trees = own.compares = takes_question && releases_.name.empty();
  own.complete_seconds = complete_seconds;
  for (const auto& [number, location] : options_.locations) {
    own.places.push_back({number, location.memory, free_bytes(location), std::nullopt});
    if (!releases_.name.empty()) own.places.back().releases = releases_.name;
  }
  send_to_lead(cli::introduction_text(own));
}

bool LeadTalk::on_message(uint32_t msg_class, std::span<const uint8_t> bytes) {
  if (msg_class != cli::kProgramClass) return false;
  if (const auto question = cli::parse_question(bytes)) {
    if (on_question) on_question(cli::subject_text(question->kind));
    if (!takes_question || !takes_question(*question)) answer(*question);
    return true;
  }
  const auto unset = cli::parse_unset(bytes);
  if (unset && on_unset) on_unset(*unset);
  return unset.has_value();
}

void LeadTalk::answer(const cli::NodeQuestion& question) const {
  cli::NodeAnswer said;
  said.number = question.number;
  if (question.kind == cli::NodeQuestion::Kind::kTransaction)
    said.states.push_back(open_.contains(question.transaction) ? cli::kStateOpen
                                                               : cli::kStateUnknown);
  for (const std::string& name : question.names)
    said.states.push_back(
        state_of(question.location, name, question.kind == cli::NodeQuestion::Kind::kRemove));
  send_to_lead(cli::answer_text(said));
}

// Removes a directory first, if that is asked for: beneath its location, links as links.
std::string LeadTalk::state_of(uint32_t number, const std::string& name, bool remove) const {
  const auto location = options_.locations.find(number);
  if (location == options_.locations.end()) return cli::kStateNoLocation;
  if (location->second.memory) return state_text(seen_in_memory(location->second.path + name));
  cli::Fd parent;
  const Seen seen = seen_on_disk(location->second.path, name, parent);
  // A file that is being received stands under its partial name.
  if (is_absent(seen) && parent)
    return state_text(seen_on_disk(location->second.path, name + ".tmp", parent));
  if (!remove || seen.error != 0 || !S_ISDIR(seen.mode)) return state_text(seen);
  if (!releases_.name.empty()) return error_text(EPERM);
  const std::string last = name.substr(name.rfind('/') + 1);
  if (last == "." || last == "..") return "not a name";
  std::error_code error;
  fs::remove_all("/proc/self/fd/" + std::to_string(parent.get()) + '/' + last, error);
  return error ? error.message() : cli::kStateAbsent;
}

}  // namespace pkgdist::node_program
