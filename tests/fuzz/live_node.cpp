#include "live_node.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "ctrl_support.h"
#include "faults.h"
#include "pkgdist_data_recv_file_thread.h"
#include "pkgdist_data_recv_process.h"
#include "pkgdist_data_recv_repair.h"
#include "pkgdist_data_recv_rx_thread.h"
#include "pkgdist_data_recv_send_file.h"

namespace fuzz {

namespace {

using namespace support;
namespace fs = std::filesystem;

constexpr size_t kMaxSteps = 64;
constexpr size_t kMaxStepsWithMuchMemory = 4;  // each may fill a database
constexpr size_t kMaxBurst = 64;
constexpr size_t kMaxFileChecked = 1 << 20;  // bytes
// Memory of the library's machine: what an input of 64 steps needs, and little more. Hostile totals
// and gaps find its end soon, which also bounds the time that an input takes.
constexpr uint64_t kAllocations = 1500;
constexpr uint64_t kManyAllocations = 500'000;
constexpr size_t kLargestAllocation = 64 * 1024;

// How many of the first descriptors are open.
size_t open_descriptors() {
  std::array<pollfd, 128> all{};
  for (size_t i = 0; i < all.size(); ++i) all[i].fd = static_cast<int>(i);
  poll(all.data(), all.size(), 0);
  return static_cast<size_t>(std::count_if(
      all.begin(), all.end(), [](const pollfd& one) { return (one.revents & POLLNVAL) == 0; }));
}

support::Bytes framed_datagram(View payload) {
  Input in(payload);
  const View header = in.take(in.u8());
  const View body = in.rest();
  support::Bytes datagram = framed({header.begin(), header.end()}, {body.begin(), body.end()});
  if (datagram.size() > kDataPacketMax) datagram.resize(kDataPacketMax);
  datagram.shrink_to_fit();  // so that a checker of memory sees reads beyond the end
  return datagram;
}

// A structure of a datagram that releases itself.
template <class T>
class Message {
 public:
  explicit Message(View bytes)
      : ok_(qidl::decode(bytes.data(), bytes.size(), value_, nullptr) == 0) {}
  ~Message() {
    if (ok_) qidl::release(value_, nullptr);
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;
  explicit operator bool() const { return ok_; }
  T* operator->() { return &value_; }
  T& operator*() { return value_; }

 private:
  T value_{};
  bool ok_;
};

// Header and body of a datagram, empty when it is not one.
std::pair<View, View> parts_of(View datagram) {
  Input in(datagram);
  const uint32_t length = in.u32();
  const View header = in.take(length);
  return {header, header.size() == length ? in.rest() : View{}};
}

// "a//b" and "./a/b" are the file "a/b".
std::string canonical(const std::string& name) {
  return fs::path(name).relative_path().lexically_normal().string();
}

Bytes contents_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

// --- Set-up ---

LiveNode& LiveNode::the() {
  static LiveNode node;
  return node;
}

LiveNode::LiveNode() {
  char pattern[] = "/dev/shm/pkgdist-fuzz-XXXXXX";
  FUZZ_CHECK(mkdtemp(pattern) != nullptr);
  directory_ = std::string(pattern) + "/in/";
  memory_prefix_ = "/" + fs::path(pattern).filename().string() + "-object-";
  fs::create_directory(directory_);
  abort_on_failed_expectations();
  static std::string root = pattern;
  std::atexit([] { fs::remove_all(root); });
}

void LiveNode::begin(uint8_t options) {
  options_ = options == kMuchMemory ? 0 : options;
  open_descriptors_ = open_descriptors();
  clock::set(3600 * kSecond);
  reset_library();
  wire::capture(true);
  logs::keep(false);
  G_my_node_ip = kAddress;
  G_lead_uc_addr = (options_ & kNoLeadYet) != 0 ? 0 : kLead;
  G_lead_pid = kLeadPid;
  FUZZ_CHECK(instcomm_pkgdist_set_recv_repository(directory_.c_str(), 1, false) == 0);
  FUZZ_CHECK(instcomm_pkgdist_set_recv_repository(memory_prefix_.c_str(), 2, true) == 0);
  const std::string other = directory_ + "third/";
  FUZZ_CHECK(instcomm_pkgdist_set_recv_repository(other.c_str(), 3, false) == 0);
  loop_ = levm_create();
  FUZZ_CHECK(loop_ != nullptr);
  fault_armed_ = faulty_ = reattached_ = linked_ = storage_used_ = false;
  attached_.clear();
  objects_.clear();
  present_.clear();
  data_datagrams_.clear();
  expected_outcomes_ = outcomes_ = expected_statuses_ = statuses_ = 0;
  faults::on_path([this](Call call, const char* path) { check_path(call, path); });
  faults::on_link([this](const char* target, const char* path) {
    // What is written through a link is beside the point here.
    linked_ = true;
    return std::string(path).starts_with(directory_) && std::string(target) != ".." &&
           std::string(target).find('/') == std::string::npos;
  });
  G_ctrl_rto.max_retries = 2;  // each is a datagram for every missing message
  faults::limit_memory(options == kMuchMemory ? kManyAllocations : kAllocations,
                       kLargestAllocation);
}

// --- Steps ---

void LiveNode::step(Do what, View payload) {
  Input in(payload);
  lead_before_ = G_lead_uc_addr;
  const bool armed = std::exchange(fault_armed_, false);
  switch (what) {
    case Do::kControl:
      control(framed_datagram(payload), false);
      break;
    case Do::kControlUnicast:
      control(framed_datagram(payload), true);
      break;
    case Do::kControlRaw: {
      const bool unicast = in.u8() % 2 != 0;
      control(in.rest(), unicast);
      break;
    }
    case Do::kData:
      data(framed_datagram(payload));
      break;
    case Do::kDataRaw:
      data({payload.begin(), payload.end()});
      break;
    case Do::kFileList: {
      const Bytes body(payload.begin(), payload.end());
      pkgdist_data_send_file_msg_hdlr(body.data(), body.size(), 0);
      break;
    }
    case Do::kBurst:
      burst(in);
      break;
    case Do::kTime:
      pass_time(in.u16() * kMillisecond);
      break;
    case Do::kDeliver:
      deliver();
      break;
    case Do::kAttach:
      attach(in.u8());
      break;
    case Do::kGetFile:
      get_file(in);
      break;
    case Do::kCancel:
      cancel(in.u16());
      break;
    case Do::kSendMessage:
      send_message(in);
      break;
    case Do::kPutFile:
      put_file(in);
      break;
    case Do::kFault:
      arm_fault(in);
      break;
    case Do::kNodeClass:
      G_my_card_class = in.u8();
      break;
  }
  if (armed) faults::clear();
  check_sent();
  check_databases();
}

void LiveNode::control(View datagram, bool unicast) {
  Bytes bytes(datagram.begin(), datagram.begin() + static_cast<ptrdiff_t>(std::min<size_t>(
                                                       datagram.size(), PKGDIST_CTRL_PKT_MAX)));
  bytes.shrink_to_fit();
  receive(bytes, unicast);
}

void LiveNode::data(support::Bytes datagram) {
  if (datagram.size() > kDataPacketMax) datagram.resize(kDataPacketMax);
  pkgdist_data_rx_process_msg(datagram.data(), static_cast<ssize_t>(datagram.size()));
  G_data_recv_file_last_msg = clock::now();
  data_datagrams_.push_back(std::move(datagram));
}

// One datagram after the other, with growing sequences or segments.
void LiveNode::burst(Input in) {
  const size_t times = std::min<size_t>(in.u8(), kMaxBurst);
  const bool on_data = in.u8() % 2 != 0;
  const View header = in.take(in.u8());
  const View body = in.rest();
  Message<pkgdist_ctrl_msg_hdr> first(header);
  Message<pkgdist_data_send_segment> segment(body);
  if (on_data ? !segment : !first) return;
  for (size_t i = 0; i < times; ++i) {
    if (on_data) {
      data(framed({header.begin(), header.end()}, encoded(*segment)));
      ++segment->segment;
    } else {
      control(framed(encoded(*first), {body.begin(), body.end()}), false);
      ++first->sequence;
    }
  }
}

void LiveNode::pass_time(uint64_t nanoseconds) {
  clock::advance(nanoseconds);
  pkgdist_ctrl_recv_chk_timeout();
  (void)pkgdist_data_recv_timeout();
}

void LiveNode::deliver() {
  while (levm_run_once(loop_, 0) > 0) {
  }
}

void LiveNode::attach(uint8_t what) {
  const uint8_t which = what & 7;
  const bool detach = which < 5 && (what & 8) != 0;  // data handlers stay
  if (attached_.contains(which) && !detach) {
    if ((what & 16) == 0) return;
    reattached_ = true;
  }
  PkgdistStatus status = 0;
  if (which < 4) {
    status = instcomm_pkgdist_ctrl_mc_hdlr_attach(loop_, which + 2u, detach ? nullptr : on_message,
                                                  this);
  } else if (which == 4) {
    status =
        instcomm_pkgdist_ctrl_register_lead_change(loop_, detach ? nullptr : on_lead_change, this);
  } else if (which == 5) {
    status = instcomm_pkgdist_data_file_xact_start_hdlr_attach(loop_, on_start, this);
  } else if (which == 6) {
    status = instcomm_pkgdist_data_file_hdlr_attach(loop_, on_file, this);
  } else {
    status = instcomm_pkgdist_data_file_xact_done_hdlr_attach(loop_, on_done, this);
  }
  if (status != 0) {
    FUZZ_CHECK(calls_were_refused());
    reattached_ |= attached_.contains(which);
  }
  if (detach)
    attached_.erase(which);
  else if (status == 0)
    attached_.insert(which);
}

void LiveNode::get_file(Input in) {
  const uint8_t type = in.u8();
  const uint8_t location = in.u8();
  if (location >= 4 && location <= 6) return;  // not set: no owner asks for files there
  const uint8_t priority = in.u8();
  const uint16_t xact = in.u16();
  const bool wants_outcome = in.u8() % 2 == 0;
  const PkgdistStatus status = instcomm_pkgdist_get_file(
      in.text().c_str(), type, location, priority, xact, wants_outcome ? loop_ : nullptr,
      wants_outcome ? on_requested_file : nullptr, this);
  const bool entered = status == 0 || status == PKGDIST_ERR_ENCODE || status == PKGDIST_ERR_SEND;
  FUZZ_CHECK(entered || status == PKGDIST_ERR_INVALID || calls_were_refused());
  if (entered && wants_outcome) ++expected_outcomes_;
}

// Cancelling one of several transactions of a file leaves the database locked, as callers are told:
// nobody does that here.
void LiveNode::cancel(uint32_t xact) {
  const auto* entry = G_file_recv_db.find([=](const pkgdist_file_recv_entry& at) {
    return std::any_of(at.xacts, at.xacts + at.xact_count,
                       [=](const pkgdist_file_xact& element) { return element.xact_id == xact; });
  });
  if (entry != nullptr && entry->xact_count != 1) return;
  const PkgdistStatus status = instcomm_pkgdist_get_file_cancel(xact);
  if (xact == 0) FUZZ_CHECK(status == PKGDIST_ERR_INVALID);
  if (xact != 0 && entry == nullptr) FUZZ_CHECK(status == PKGDIST_ERR_NOT_FOUND);
}

void LiveNode::send_message(Input in) {
  const uint8_t msg_class = in.u8();
  const Bytes content(in.u16() % 6000, msg_class);
  const bool wants_status = in.u8() % 2 == 0;
  const PkgdistStatus status = instcomm_pkgdist_ctrl_send_lead_msg(
      content.data(), content.size(), msg_class, wants_status ? loop_ : nullptr,
      wants_status ? on_status : nullptr, this);
  if (status == 0 && wants_status) ++expected_statuses_;
  FUZZ_CHECK(status == 0 || status == PKGDIST_ERR_INVALID || calls_were_refused());
}

void LiveNode::put_file(Input in) {
  const std::string name = "f" + std::to_string(in.u8() % 8);
  const size_t size = in.u8();
  const auto mtime = static_cast<time_t>(in.u32());
  struct stat present {};
  const std::string path = directory_ + name;
  if (lstat(path.c_str(), &present) == 0 && !S_ISREG(present.st_mode)) return;
  const faults::Paused paused;
  const Bytes content(size, 'p');
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(size));
  const utimbuf times = {mtime, mtime};
  utime(path.c_str(), &times);
  present_[name] = content;
  storage_used_ = true;
}

void LiveNode::arm_fault(Input in) {
  constexpr Call calls[] = {
      Call::kMalloc,       Call::kCalloc,      Call::kRealloc,    Call::kStrdup,
      Call::kOpen,         Call::kLseek,       Call::kWrite,      Call::kRename,
      Call::kUnlink,       Call::kUtime,       Call::kShmOpen,    Call::kFtruncate,
      Call::kMmap,         Call::kQitcCreate,  Call::kQitcPut,    Call::kLevmAttach,
      Call::kNodeidCreate, Call::kNodeidToStr, Call::kCreateDirs, Call::kInstSymlink,
      Call::kSendto,       Call::kLstat,       Call::kQitcGet,    Call::kClose};
  constexpr int errors[] = {EIO, ENOSPC, ENOENT, ENOMEM};
  const Call call = calls[in.u8() % std::size(calls)];
  const unsigned nth = 1 + in.u8() % 8;
  faults::fail(call, nth, errors[in.u8() % std::size(errors)]);
  fault_armed_ = faulty_ = true;
}

// --- What holds after every step ---

bool LiveNode::calls_were_refused() const {
  return faulty_ || faults::memory_ran_out();
}

// Every datagram goes to the lead and can be decoded.
void LiveNode::check_sent() {
  constexpr size_t kLookedAt = 32;
  std::vector<Sent> all = wire::take();
  answers_.clear();
  for (Sent& sent : all) {
    FUZZ_CHECK(sent.address == G_lead_uc_addr || sent.address == lead_before_);
    FUZZ_CHECK(sent.bytes.size() <= PKGDIST_CTRL_PKT_MAX);
    if (answers_.size() >= kLookedAt) continue;
    if (sent.port == G_ctrl_rx_uc_port) {
      const pkgdist_ctrl_msg_hdr header = ctrl_header(sent.bytes);
      if (header.msg_id == PKGDIST_CTRL_MSG_CTRL) const Decoded<pkgdist_ctrl_msg> body(sent.bytes);
    } else {
      FUZZ_CHECK(sent.port == G_data_req_uc_port);
      const pkgdist_data_msg_hdr header = data_header(sent.bytes);
      if (header.msg_id == PKGDIST_DATA_MSG_FILE_REQ)
        const Decoded<pkgdist_data_send_req> body(sent.bytes);
      else if (header.msg_id == PKGDIST_DATA_MSG_REQ_SINGLE)
        const Decoded<struct pkgdist_data_send_req_single> body(sent.bytes);
      else
        const Decoded<pkgdist_data_send_req_done> body(sent.bytes);
    }
    answers_.push_back(std::move(sent));
  }
}

// Nothing stays locked, counters say what the databases hold, those are within their limits.
void LiveNode::check_databases() const {
  FUZZ_CHECK(all_locks_are_free());
  FUZZ_CHECK(value(DrsCounter::kFileAdd) - value(DrsCounter::kFileRemove) == G_file_recv_db.count);
  FUZZ_CHECK(value(DrsCounter::kStatAdd) - value(DrsCounter::kStatRemove) == G_file_stat_db.count);
  FUZZ_CHECK(value(CrsCounter::kUcAddMsg) - value(CrsCounter::kUcDeleteMsg) ==
             G_ctrl_recv_msg_db.count);
  FUZZ_CHECK(value(CrsCounter::kRxAddMcMsg) + value(CrsCounter::kRxOosAddMc) +
                 value(CrsCounter::kRxAddUcMsg) + value(CrsCounter::kRxOosAddUc) -
                 value(CrsCounter::kRxDeleteMcMsg) - value(CrsCounter::kRxDeleteUcMsg) ==
             G_ctrl_recv_rx_msg_db.count);
  FUZZ_CHECK(G_ctrl_recv_rx_msg_db.count <= pkgdist::kRxMsgDbLimit);
}

// Called before anything happens at the path. The empty path reaches nothing.
void LiveNode::check_path(Call call, const char* path) {
  const std::string text = path;
  if (text.empty()) return;
  const bool object = call == Call::kShmOpen || call == Call::kShmUnlink;
  // A link's place in a memory location is where its prefix points to; it is not made here.
  const bool link = call == Call::kInstSymlink || call == Call::kUnlink || call == Call::kUtime;
  const bool in_memory = text.starts_with(memory_prefix_) && (object || link);
  if (!in_memory) {
    FUZZ_CHECK(!object);
    FUZZ_CHECK(text.starts_with(directory_));
    for (const fs::path& part : fs::path(text)) FUZZ_CHECK(part != "..");
    storage_used_ = true;
  }
  if (object) objects_.insert(text);
}

// --- What holds at the end ---

// Every regular file holds what was announced under its name and then sent for it.
void LiveNode::check_contents() const {
  struct Announced {
    uint32_t id, size, segment_size;
  };
  std::map<std::string, std::vector<Announced>> announced;
  std::map<std::string, std::set<std::string>> spellings;
  std::map<std::pair<uint32_t, uint32_t>, std::vector<Bytes>> segments;
  for (const Bytes& datagram : data_datagrams_) {
    const auto [header_bytes, body] = parts_of(datagram);
    Message<pkgdist_data_msg_hdr> header(header_bytes);
    if (!header) continue;
    if (header->msg_id == PKGDIST_DATA_MSG_FILE_INFO) {
      Message<pkgdist_data_send_file_info> info(body);
      if (!info) continue;
      // An announcement without a location is for any.
      const std::pair<uint32_t, const char*> disks[] = {{1, ""}, {3, "third/"}};
      for (const auto& [location, directory] : disks) {
        if (info->location != location && info->location != 0) continue;
        const std::string name = canonical(std::string(directory) + info->name);
        announced[name].push_back({info->file_id, info->size, info->segment_size});
        spellings[name].insert(info->name);
      }
    } else if (header->msg_id == PKGDIST_DATA_MSG_SEGMENT) {
      Message<pkgdist_data_send_segment> segment(body);
      if (!segment) continue;
      segments[{segment->file_id, segment->segment}].emplace_back(
          segment->data, segment->data + segment->data_size);
    }
  }
  const auto explains = [&](const Announced& info, const Bytes& content) {
    if (info.size != content.size() || (info.segment_size == 0 && info.size != 0)) return false;
    const uint64_t step = std::max(info.segment_size, 1u);
    const uint64_t count = std::max<uint64_t>((info.size + step - 1) / step, 1);
    for (uint64_t k = 0; k < count; ++k) {
      const auto from = content.begin() + static_cast<ptrdiff_t>(k * step);
      const auto to =
          content.begin() + static_cast<ptrdiff_t>(std::min<uint64_t>((k + 1) * step, info.size));
      const auto sent = segments.find({info.id, static_cast<uint32_t>(k)});
      if (sent == segments.end() || std::find(sent->second.begin(), sent->second.end(),
                                              Bytes(from, to)) == sent->second.end())
        return false;
    }
    return true;
  };
  for (const auto& entry : fs::recursive_directory_iterator(directory_)) {
    if (!entry.is_regular_file() || entry.is_symlink()) continue;
    const std::string name = entry.path().string().substr(directory_.size());
    // Names that share a file, and those that the length of a path cuts, are the lead's own doing.
    if (name.ends_with(".tmp") || name.size() > 150 || spellings.contains(name + ".tmp")) continue;
    if (const auto found = spellings.find(name);
        found != spellings.end() && found->second.size() > 1)
      continue;
    if (entry.file_size() > kMaxFileChecked || access(entry.path().c_str(), R_OK) != 0) continue;
    const Bytes content = contents_of(entry.path());
    if (const auto put = present_.find(name); put != present_.end() && put->second == content)
      continue;
    const std::vector<Announced>& infos = announced[name];
    FUZZ_CHECK(std::any_of(infos.begin(), infos.end(),
                           [&](const Announced& info) { return explains(info, content); }));
  }
}

// Without a lead every wait ends: what is incomplete is given up, what ended is forgotten.
void LiveNode::wait_for_the_end_of_everything() {
  for (int passes = 0; passes < 40; ++passes) {
    lead_before_ = G_lead_uc_addr;
    pass_time(20 * kSecond);
    deliver();
    check_sent();
    check_databases();
    if (G_ctrl_recv_rx_msg_db.empty() && G_ctrl_recv_msg_db.empty() && G_file_recv_db.empty() &&
        G_file_stat_db.empty())
      return;
  }
  const bool everything_has_ended = false;
  FUZZ_CHECK(everything_has_ended);
}

// Whatever happened before, a lead that works finds a node that works.
void LiveNode::expect_good_message_and_file() {
  const bool known = G_lead_uc_addr != 0;
  const bool continues = known && (options_ & kSameProcessContinues) != 0;
  const bool same = continues || (known && (options_ & kSameLeadRestarts) != 0);
  Sender lead{same ? G_lead_uc_addr : 0x0A00004D, continues ? G_lead_pid : G_lead_pid + 1, 0};
  if (!same && lead.address == G_lead_uc_addr) ++lead.address;
  if (lead.pid == 0 && !continues) lead.pid = 1;
  uint32_t sequence = continues ? G_ctrl_mc_last_sequence : 1000;
  G_my_card_class = 3;
  receive(ping(sequence, {}, lead));
  (void)wire::take();

  for (uint32_t msg_class = 2; msg_class <= 5; ++msg_class)
    FUZZ_CHECK(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop_, msg_class, nullptr, nullptr) == 0);
  FUZZ_CHECK(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop_, 5, on_message, this) == 0);
  last_message_.clear();
  const std::string text = "a message of a good lead!";
  ++sequence;
  for (uint32_t segment : {2u, 0u, 1u})
    receive(support::control({.sequence = sequence,
                              .data = text.substr(segment * 10, 10),
                              .msg_class = 5,
                              .segment = segment,
                              .total_size = 25,
                              .segment_size = 10,
                              .from = lead}));
  deliver();
  FUZZ_CHECK(last_message_ == Bytes(text.begin(), text.end()));
  FUZZ_CHECK(G_ctrl_mc_last_ack_sequence == sequence);

  const Bytes list = encoded_file_send({.operation = 1, .names = {"good-file"}, .xact_id = 77});
  receive(support::control({.sequence = ++sequence,
                            .data = std::string(list.begin(), list.end()),
                            .msg_class = 1,
                            .from = lead}));
  FUZZ_CHECK(G_file_recv_db.count == 1);
  const Bytes content(10, 'c');
  data(data_datagram(PKGDIST_DATA_MSG_FILE_INFO,
                     encoded_info({.id = 0x600D, .name = "good-file", .mtime = 1}), lead.address));
  for (uint32_t segment : {1u, 0u, 2u})
    data(data_datagram(PKGDIST_DATA_MSG_SEGMENT,
                       encoded_segment(0x600D, segment, Bytes(segment == 2 ? 2 : 4, 'c')),
                       lead.address));
  FUZZ_CHECK(G_file_recv_db.empty());
  FUZZ_CHECK(contents_of(directory_ + "good-file") == content);
  const pkgdist_file_stat_entry* outcome = pkgdist::file_stat_find(0x600D);
  FUZZ_CHECK(outcome != nullptr && outcome->status == 0);
}

void LiveNode::detach_everything() {
  for (uint32_t msg_class = 2; msg_class <= 5; ++msg_class)
    FUZZ_CHECK(instcomm_pkgdist_ctrl_mc_hdlr_attach(loop_, msg_class, nullptr, nullptr) == 0);
  FUZZ_CHECK(instcomm_pkgdist_ctrl_register_lead_change(loop_, nullptr, nullptr) == 0);
  for (uint32_t recv_id = 1; recv_id <= 3; ++recv_id) (void)pkgdist_data_recv_free_ctx(recv_id);
  if (!calls_were_refused()) {
    FUZZ_CHECK(G_ctrl_recv_ctx_db.empty());
    FUZZ_CHECK(G_data_recv_ctx_db.empty());
    FUZZ_CHECK(reattached_ || G_ctrl_recv_qitc_db.empty());
    FUZZ_CHECK(reattached_ || G_data_recv_qitc_db.empty());
  }
}

void LiveNode::clean_storage() {
  faults::on_path(nullptr);
  if (std::exchange(storage_used_, false))
    for (const auto& entry : fs::directory_iterator(directory_)) fs::remove_all(entry.path());
  for (const std::string& name : objects_) shm_unlink(name.c_str());
  objects_.clear();
  faults::on_path([this](Call call, const char* path) { check_path(call, path); });
}

void LiveNode::finish() {
  faults::clear();
  wait_for_the_end_of_everything();
  if (!calls_were_refused()) {
    FUZZ_CHECK(outcomes_ == expected_outcomes_);
    FUZZ_CHECK(statuses_ == expected_statuses_);
  }
  if (storage_used_ && !linked_) check_contents();
  clean_storage();
  const bool refused = calls_were_refused();
  faults::unlimited_memory();
  expect_good_message_and_file();
  faulty_ |= refused;
  detach_everything();
  clean_storage();
  faults::on_path(nullptr);
  faults::on_link(nullptr);
  check_databases();
  reset_library();
  drop_control_channels();
  drop_data_channels();
  levm_destroy(loop_);
  loop_ = nullptr;
  FUZZ_CHECK(open_descriptors() == open_descriptors_);
}

// --- Callbacks ---

void LiveNode::on_message(const void* bytes, uint64_t size, void* node) {
  const auto* start = static_cast<const uint8_t*>(bytes);
  static_cast<LiveNode*>(node)->last_message_.assign(start, start + size);
}
void LiveNode::on_status(uint64_t /*status*/, void* node) {
  ++static_cast<LiveNode*>(node)->statuses_;
}
void LiveNode::on_lead_change(uint32_t, uint32_t, bool, void*) {}
void LiveNode::on_file(uint64_t /*status*/, const char* path, uint32_t, uint32_t, uint32_t, void*) {
  FUZZ_CHECK(std::string(path).size() < 1500);
}
void LiveNode::on_requested_file(uint64_t /*status*/, const char* path, uint32_t, uint32_t,
                                 uint32_t, void* node) {
  FUZZ_CHECK(std::string(path).size() < 1500);
  ++static_cast<LiveNode*>(node)->outcomes_;
}
void LiveNode::on_start(uint64_t /*status*/, const char* const* paths, uint32_t count, uint32_t,
                        uint32_t, uint32_t, void*) {
  for (uint32_t i = 0; i < count; ++i) FUZZ_CHECK(std::string(paths[i]).size() < 1500);
}
void LiveNode::on_done(uint64_t, uint32_t, void*) {}

// --- Whole inputs ---

Layout layout_of(Do what) {
  switch (what) {
    case Do::kControl:
    case Do::kControlUnicast:
      return Layout::kControl;
    case Do::kData:
    case Do::kBurst:
      return Layout::kData;
    case Do::kFileList:
      return Layout::kFileList;
    default:
      return Layout::kBytes;
  }
}

size_t datagram_offset(Do what) {
  return what == Do::kBurst ? 2 : 0;
}

void abort_on_failed_expectations() {
  class Listener : public testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult& result) override {
      if (!result.failed()) return;
      std::fprintf(stderr, "%s:%d: %s\n", result.file_name(), result.line_number(),
                   result.summary());
      std::abort();
    }
  };
  testing::UnitTest::GetInstance()->listeners().Append(new Listener);
}

void run_node_input(View input, std::span<const Do> actions) {
  if (input.empty()) return;
  LiveNode& node = LiveNode::the();
  node.begin(input[0]);
  const size_t steps = input[0] == kMuchMemory ? kMaxStepsWithMuchMemory : kMaxSteps;
  for (const Step& step : cut_into_steps(input.subspan(1), steps))
    node.step(actions[step.kind % actions.size()], step.payload);
  node.finish();
}

}  // namespace fuzz
