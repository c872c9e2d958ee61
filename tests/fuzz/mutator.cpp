// Mutations of step sequences: whole steps come, go and move; fields of datagrams change their
// values and their presence. A mutation of bytes alone would rarely keep a datagram readable.
#include "mutator.h"

#include <cstring>
#include <memory>
#include <random>

#include "pkgdist/wire_fields.hpp"
#include "steps.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

namespace {

using namespace fuzz;

constexpr size_t kMaxSteps = 64;
constexpr size_t kMaxPayload = 1500;

struct OwnedStep {
  uint8_t kind = 0;
  Bytes payload;
};

class Mutation {
 public:
  explicit Mutation(unsigned seed) : random_(seed) {}

  uint32_t below(size_t limit) {
    return static_cast<uint32_t>(random_() % std::max<size_t>(limit, 1));
  }
  bool one_in(uint32_t n) { return below(n) == 0; }

  void mutate(std::vector<OwnedStep>& steps);

 private:
  void mutate_bytes(Bytes& bytes);
  void mutate_datagram(OwnedStep& step);
  Bytes mutated_body(const Bytes& body, bool control, uint32_t msg_id);

  template <class T>
  Bytes mutated(const Bytes& bytes);
  template <class T>
  void mutate_message(T& message);

  template <class T, class V>
  void change(T& message, const qidl::ScalarField<T, V>& field) {
    message.*field.key = static_cast<V>(number(static_cast<uint64_t>(message.*field.key)));
  }
  template <class T>
  void change(T& message, const qidl::StringField<T>& field) {
    message.*field.key = name();
  }
  template <class T>
  void change(T& message, const qidl::BytesField<T>& field) {
    if (message.*field.size != 0)
      data_.assign(message.*field.key, message.*field.key + message.*field.size);
    if (one_in(3))
      data_.resize(below(80));
    else
      mutate_bytes(data_);
    message.*field.key = data_.data();
    message.*field.size = data_.size();
  }
  template <class T>
  void change(T& message, const qidl::WordArrayField<T>& field) {
    words_.assign(below(4), 0);
    for (uint32_t& word : words_) word = static_cast<uint32_t>(number(word));
    message.*field.key = words_.data();
    message.*field.count = static_cast<uint32_t>(words_.size());
  }
  template <class T>
  void change(T& message, const qidl::StringArrayField<T>& field) {
    names_.assign(message.*field.key, message.*field.key + message.*field.count);
    if (!names_.empty() && one_in(3))
      names_.erase(names_.begin() + below(names_.size()));
    else if (!names_.empty() && one_in(2))
      names_[below(names_.size())] = name();
    else
      names_.push_back(name());
    message.*field.key = names_.data();
    message.*field.count = static_cast<uint32_t>(names_.size());
  }

  uint64_t number(uint64_t now);
  char* name();

  std::mt19937 random_;
  Bytes data_;
  std::vector<uint32_t> words_;
  std::vector<char*> names_;
  std::vector<std::unique_ptr<std::string>> texts_;
};

uint64_t Mutation::number(uint64_t now) {
  // Addresses of the model, message kinds, identifiers that leads begin with.
  constexpr uint64_t known[] = {
      0,    1,          2,          3,          4,          5,          6,          7,         8,
      10,   0x0A000001, 0x0A000002, 0x0A000003, 0x0A0000FE, 4711,       4712,       77,        1390,
      1400, 64,         255,        65535,      0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF};
  switch (below(6)) {
    case 0:
      return now + 1;
    case 1:
      return now - 1;
    case 2:
      return now ^ uint64_t { 1 } << below(32);
    case 3:
      return below(16);
    case 4:
      return now + below(64);
    default:
      return known[below(std::size(known))];
  }
}

char* Mutation::name() {
  static const char* const known[] = {
      "f0",    "f1",      "f1.tmp",  "f2",   "d/f3",  "d/e/f4", "d",   "",     "/",    "..",
      "../f0", "d/../f1", "/etc/f0", "./f0", "d//f3", "...",    "f0/", "good", "link", "link/f5"};
  auto& text = *texts_.emplace_back(std::make_unique<std::string>(known[below(std::size(known))]));
  if (one_in(12)) text.append(below(300), 'n');
  return text.data();
}

template <class T>
void Mutation::mutate_message(T& message) {
  const uint32_t chosen = below(qidl::field_count<T>);
  const bool toggle = one_in(6);
  qidl::for_each_field<T>([&](const auto& field, uint32_t bit) {
    if (bit != uint32_t{1} << chosen) return 0;
    if (toggle) {
      message.presence ^= bit;
      return 0;
    }
    change(message, field);
    message.presence |= bit;
    return 0;
  });
}

template <class T>
Bytes Mutation::mutated(const Bytes& bytes) {
  T original;
  if (qidl::decode(bytes.data(), bytes.size(), original, nullptr) < 0) {
    Bytes changed = bytes;
    mutate_bytes(changed);
    return changed;
  }
  T message = original;
  mutate_message(message);
  const ssize_t size = qidl::encode(message, nullptr, 0);
  Bytes changed(static_cast<size_t>(std::max<ssize_t>(size, 0)));
  qidl::encode(message, changed.data(), changed.size());
  qidl::release(original, nullptr);
  return changed;
}

Bytes Mutation::mutated_body(const Bytes& body, bool control, uint32_t msg_id) {
  if (control) return mutated<pkgdist_ctrl_msg>(body);
  switch (msg_id) {
    case PKGDIST_DATA_MSG_FILE_REQ:
      return mutated<pkgdist_data_send_req>(body);
    case PKGDIST_DATA_MSG_REQ_SINGLE:
      return mutated<struct pkgdist_data_send_req_single>(body);
    case PKGDIST_DATA_MSG_REQ_DONE:
      return mutated<pkgdist_data_send_req_done>(body);
    case PKGDIST_DATA_MSG_FILE_INFO:
      return mutated<pkgdist_data_send_file_info>(body);
    case PKGDIST_DATA_MSG_MISS_DONE:
      return mutated<pkgdist_data_send_miss_done>(body);
    default:
      return mutated<pkgdist_data_send_segment>(body);
  }
}

void Mutation::mutate_bytes(Bytes& bytes) {
  const size_t size = bytes.size();
  const size_t room = std::min(kMaxPayload, size + 16);
  bytes.resize(room);
  bytes.resize(LLVMFuzzerMutate(bytes.data(), std::min(size, room), room));
}

void Mutation::mutate_datagram(OwnedStep& step) {
  const Layout layout = layout_of(step.kind);
  if (layout == Layout::kFileList) {
    step.payload = mutated<pkgdist_file_send_ctrl>(step.payload);
    return;
  }
  const size_t offset = datagram_offset(step.kind);
  if (step.payload.size() <= offset) return mutate_bytes(step.payload);
  Input in(View(step.payload).subspan(offset));
  const View header_view = in.take(in.u8());
  const View body_view = in.rest();
  Bytes header(header_view.begin(), header_view.end());
  Bytes body(body_view.begin(), body_view.end());
  const bool control = layout == Layout::kControl;
  if (body.empty() || one_in(2)) {
    header =
        control ? mutated<pkgdist_ctrl_msg_hdr>(header) : mutated<pkgdist_data_msg_hdr>(header);
  } else {
    pkgdist_data_msg_hdr kind{};
    if (!control) qidl::decode(header.data(), header.size(), kind, nullptr);
    body = mutated_body(body, control, kind.msg_id);
  }
  if (header.size() > 255) return;
  step.payload.resize(offset);
  append_number(step.payload, header.size(), 1);
  append(step.payload, header);
  append(step.payload, body);
}

void Mutation::mutate(std::vector<OwnedStep>& steps) {
  if (steps.empty() || one_in(8)) {
    OwnedStep step{static_cast<uint8_t>(below(16)), Bytes(1 + below(12))};
    for (uint8_t& byte : step.payload) byte = static_cast<uint8_t>(below(one_in(2) ? 8 : 256));
    steps.insert(steps.begin() + below(steps.size() + 1), step);
    return;
  }
  const uint32_t chosen = below(steps.size());
  switch (below(10)) {
    case 0:
      steps.erase(steps.begin() + chosen);
      return;
    case 1: {
      const OwnedStep copy = steps[chosen];
      steps.insert(steps.begin() + below(steps.size() + 1), copy);
      return;
    }
    case 2:
      std::swap(steps[chosen], steps[below(steps.size())]);
      return;
    case 3:
      steps[chosen].kind = static_cast<uint8_t>(below(16));
      return;
    case 4:
      return mutate_bytes(steps[chosen].payload);
    default:
      if (layout_of(steps[chosen].kind) == Layout::kBytes)
        return mutate_bytes(steps[chosen].payload);
      return mutate_datagram(steps[chosen]);
  }
}

std::vector<OwnedStep> owned_steps(View input) {
  std::vector<OwnedStep> steps;
  for (const Step& step : cut_into_steps(input, kMaxSteps))
    steps.push_back({step.kind, {step.payload.begin(), step.payload.end()}});
  return steps;
}

size_t write_steps(const Bytes& prefix, const std::vector<OwnedStep>& steps, uint8_t* to,
                   size_t max_size) {
  Bytes bytes = prefix;
  for (const OwnedStep& step : steps) {
    if (bytes.size() + 3 + step.payload.size() > max_size) break;
    append_step(bytes, step.kind, step.payload);
  }
  const size_t size = std::min(bytes.size(), max_size);
  std::memcpy(to, bytes.data(), size);
  return size;
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed) {
  Mutation mutation(seed);
  if (size <= kPrefixBytes || mutation.one_in(16)) return LLVMFuzzerMutate(data, size, max_size);
  Bytes prefix(data, data + kPrefixBytes);
  if (mutation.one_in(16)) prefix[0] = static_cast<uint8_t>(mutation.below(8));
  std::vector<OwnedStep> steps = owned_steps({data + kPrefixBytes, size - kPrefixBytes});
  for (uint32_t times = 1 + mutation.below(4); times > 0; --times) mutation.mutate(steps);
  return write_steps(prefix, steps, data, max_size);
}

extern "C" size_t LLVMFuzzerCustomCrossOver(const uint8_t* first, size_t first_size,
                                            const uint8_t* second, size_t second_size, uint8_t* out,
                                            size_t max_size, unsigned seed) {
  if (first_size <= kPrefixBytes || second_size <= kPrefixBytes) return 0;
  Mutation mutation(seed);
  std::vector<OwnedStep> steps = owned_steps({first + kPrefixBytes, first_size - kPrefixBytes});
  const std::vector<OwnedStep> others =
      owned_steps({second + kPrefixBytes, second_size - kPrefixBytes});
  if (others.empty()) return 0;
  const uint32_t from = mutation.below(others.size());
  const uint32_t count = 1 + mutation.below(others.size() - from);
  steps.insert(steps.begin() + mutation.below(steps.size() + 1), others.begin() + from,
               others.begin() + from + count);
  return write_steps(Bytes(first, first + kPrefixBytes), steps, out, max_size);
}
