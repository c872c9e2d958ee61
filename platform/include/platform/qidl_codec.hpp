// The codec engine: turns one declarative description of a structure into its encode, decode and
// free operations, and into typed access to its presence bits.
//
// An encoded structure is a 32-bit big-endian presence mask, then the present fields in declared
// order, without padding. Scalars are big-endian. A string is a 16-bit length and its bytes, a byte
// string a 32-bit length and its bytes, an array a 16-bit count and its elements.
//
// A structure takes part by specialising qidl::description with a tuple of fields:
//
//   template <> struct qidl::description<my_msg> {
//     static constexpr auto fields = std::tuple{
//         field(&my_msg::id), field(&my_msg::name), field(&my_msg::nodes, &my_msg::nodes_count)};
//   };
//
// and having a `uint32_t presence` member. Decoding checks every length against the bytes that are
// left before it allocates, so that a hostile count costs nothing.
#pragma once

#include <cstring>
#include <limits>
#include <tuple>
#include <type_traits>
#include <utility>

#include "platform/qidl.h"

namespace qidl {

template <class T>
struct description;

// Writes big-endian values; counts what a large enough buffer would hold and writes only what fits.
class Writer {
 public:
  Writer(uint8_t* buffer, size_t size) : buffer_(buffer), size_(size) {}

  template <class V>
  void scalar(V value) {
    uint8_t raw[sizeof(V)];
    auto bits = static_cast<std::make_unsigned_t<V>>(value);
    for (size_t i = sizeof(V); i-- > 0;
         bits = static_cast<decltype(bits)>(bits >> 8 * (sizeof(V) > 1)))
      raw[i] = static_cast<uint8_t>(bits);
    bytes(raw, sizeof raw);
  }

  void bytes(const void* data, size_t length) {
    if (length != 0 && used_ <= size_ && length <= size_ - used_)
      std::memcpy(buffer_ + used_, data, length);
    used_ += length;
  }

  size_t used() const { return used_; }

 private:
  uint8_t* buffer_;
  size_t size_;
  size_t used_ = 0;
};

// Reads big-endian values from a bounded view; every read says whether the bytes were there.
class Reader {
 public:
  Reader(const uint8_t* buffer, size_t length) : at_(buffer), left_(length) {}

  template <class V>
  bool scalar(V& value) {
    if (left_ < sizeof(V)) return false;
    uint64_t bits = 0;
    for (size_t i = 0; i < sizeof(V); ++i) bits = bits << 8 | at_[i];
    value = static_cast<V>(bits);
    skip(sizeof(V));
    return true;
  }

  // A view of the next `length` bytes, or nullptr when fewer are left.
  const uint8_t* view(size_t length) {
    if (length > left_) return nullptr;
    const uint8_t* start = at_;
    skip(length);
    return start;
  }

  size_t left() const { return left_; }

 private:
  void skip(size_t length) {
    at_ += length;
    left_ -= length;
  }

  const uint8_t* at_;
  size_t left_;
};

class Memory {
 public:
  explicit Memory(const qidl_allocator* allocator)
      : allocator_(allocator != nullptr ? *allocator : qidl_system_allocator) {}
  void* allocate(size_t size) const { return allocator_.allocate(size, allocator_.ctx); }
  void release(void* memory) const {
    if (memory != nullptr) allocator_.release(memory, allocator_.ctx);
  }

 private:
  const qidl_allocator& allocator_;
};

// What absent and empty strings point to; never written and never freed.
inline char empty_string[1] = "";

constexpr size_t kMaxShortCount = std::numeric_limits<uint16_t>::max();

inline int encode_string(Writer& out, const char* text) {
  const size_t length = text != nullptr ? std::strlen(text) : 0;
  if (length > kMaxShortCount) return QIDL_ERR_TOO_LONG;
  out.scalar(static_cast<uint16_t>(length));
  out.bytes(text, length);
  return 0;
}

inline int decode_string(Reader& in, char*& text, const Memory& memory) {
  uint16_t length = 0;
  if (!in.scalar(length)) return QIDL_ERR_TRUNCATED;
  const uint8_t* raw = in.view(length);
  if (raw == nullptr) return QIDL_ERR_TRUNCATED;
  if (length == 0) return 0;
  if (std::memchr(raw, 0, length) != nullptr) return QIDL_ERR_STRING;
  auto* copy = static_cast<char*>(memory.allocate(length + size_t{1}));
  if (copy == nullptr) return QIDL_ERR_NOMEM;
  std::memcpy(copy, raw, length);
  copy[length] = '\0';
  text = copy;
  return 0;
}

inline void release_string(char*& text, const Memory& memory) {
  if (text != empty_string) memory.release(text);
  text = nullptr;
}

// --- Kinds of fields. `key` is the member that names the field. ---

template <class T, class V>
struct ScalarField {
  V T::*key;
  void clear(T&) const {}
  int encode(Writer& out, const T& message) const {
    out.scalar(message.*key);
    return 0;
  }
  int decode(Reader& in, T& message, const Memory&) const {
    return in.scalar(message.*key) ? 0 : QIDL_ERR_TRUNCATED;
  }
  void release(T&, const Memory&) const {}
};

template <class T>
struct StringField {
  char* T::*key;
  void clear(T& message) const { message.*key = empty_string; }
  int encode(Writer& out, const T& message) const { return encode_string(out, message.*key); }
  int decode(Reader& in, T& message, const Memory& memory) const {
    return decode_string(in, message.*key, memory);
  }
  void release(T& message, const Memory& memory) const { release_string(message.*key, memory); }
};

template <class T>
struct BytesField {
  const uint8_t* T::*key;
  uint64_t T::*size;
  void clear(T&) const {}
  int encode(Writer& out, const T& message) const {
    if (message.*size > std::numeric_limits<uint32_t>::max()) return QIDL_ERR_TOO_LONG;
    out.scalar(static_cast<uint32_t>(message.*size));
    out.bytes(message.*key, message.*size);
    return 0;
  }
  int decode(Reader& in, T& message, const Memory&) const {
    uint32_t length = 0;
    if (!in.scalar(length)) return QIDL_ERR_TRUNCATED;
    message.*key = in.view(length);
    if (message.*key == nullptr) return QIDL_ERR_TRUNCATED;
    message.*size = length;
    return 0;
  }
  void release(T&, const Memory&) const {}  // a view: the buffer's owner frees it
};

template <class T>
struct WordArrayField {
  uint32_t* T::*key;
  uint32_t T::*count;
  void clear(T&) const {}
  int encode(Writer& out, const T& message) const {
    if (message.*count > kMaxShortCount) return QIDL_ERR_TOO_LONG;
    out.scalar(static_cast<uint16_t>(message.*count));
    for (uint32_t i = 0; i < message.*count; ++i) out.scalar((message.*key)[i]);
    return 0;
  }
  int decode(Reader& in, T& message, const Memory& memory) const {
    uint16_t items = 0;
    if (!in.scalar(items) || items * sizeof(uint32_t) > in.left()) return QIDL_ERR_TRUNCATED;
    if (items == 0) return 0;
    message.*key = static_cast<uint32_t*>(memory.allocate(items * sizeof(uint32_t)));
    if (message.*key == nullptr) return QIDL_ERR_NOMEM;
    for (; message.*count < items; ++(message.*count)) in.scalar((message.*key)[message.*count]);
    return 0;
  }
  void release(T& message, const Memory& memory) const { memory.release(message.*key); }
};

template <class T>
struct StringArrayField {
  char** T::*key;
  uint32_t T::*count;
  void clear(T&) const {}
  int encode(Writer& out, const T& message) const {
    if (message.*count > kMaxShortCount) return QIDL_ERR_TOO_LONG;
    out.scalar(static_cast<uint16_t>(message.*count));
    for (uint32_t i = 0; i < message.*count; ++i)
      if (int result = encode_string(out, (message.*key)[i]); result != 0) return result;
    return 0;
  }
  int decode(Reader& in, T& message, const Memory& memory) const {
    uint16_t items = 0;
    if (!in.scalar(items) || items * sizeof(uint16_t) > in.left()) return QIDL_ERR_TRUNCATED;
    if (items == 0) return 0;
    message.*key = static_cast<char**>(memory.allocate(items * sizeof(char*)));
    if (message.*key == nullptr) return QIDL_ERR_NOMEM;
    for (; message.*count < items; ++(message.*count)) {
      char*& text = (message.*key)[message.*count];
      text = empty_string;
      if (int result = decode_string(in, text, memory); result != 0) return result;
    }
    return 0;
  }
  void release(T& message, const Memory& memory) const {
    for (uint32_t i = 0; i < message.*count; ++i) release_string((message.*key)[i], memory);
    memory.release(message.*key);
  }
};

template <class T, class V>
constexpr auto field(V T::*scalar) {
  if constexpr (std::is_same_v<V, char*>)
    return StringField<T>{scalar};
  else
    return ScalarField<T, V>{scalar};
}
template <class T>
constexpr auto field(const uint8_t* T::*data, uint64_t T::*size) {
  return BytesField<T>{data, size};
}
template <class T>
constexpr auto field(uint32_t* T::*items, uint32_t T::*count) {
  return WordArrayField<T>{items, count};
}
template <class T>
constexpr auto field(char** T::*items, uint32_t T::*count) {
  return StringArrayField<T>{items, count};
}

template <class T>
inline constexpr size_t field_count = std::tuple_size_v<decltype(description<T>::fields)>;

template <class T>
inline constexpr uint32_t field_mask = (uint32_t{1} << field_count<T>)-1;

// Calls visit(field, bit) for every field in declared order until one returns non-zero.
template <class T, class Visit>
constexpr int for_each_field(Visit&& visit) {
  return [&]<size_t... I>(std::index_sequence<I...>) {
    int result = 0;
    (void)((result = visit(std::get<I>(description<T>::fields), uint32_t{1} << I), result == 0) &&
           ...);
    return result;
  }
  (std::make_index_sequence<field_count<T>>{});
}

// --- The three operations. ---

template <class T>
ssize_t encode(const T& message, uint8_t* buffer, size_t size) {
  if ((message.presence & ~field_mask<T>) != 0) return QIDL_ERR_MASK;
  Writer out(buffer, size);
  out.scalar(message.presence);
  const int result = for_each_field<T>([&](const auto& f, uint32_t bit) {
    return (message.presence & bit) != 0 ? f.encode(out, message) : 0;
  });
  return result != 0 ? result : static_cast<ssize_t>(out.used());
}

template <class T>
int release(T& message, const qidl_allocator* allocator) {
  const Memory memory(allocator);
  for_each_field<T>([&](const auto& f, uint32_t) {
    f.release(message, memory);
    return 0;
  });
  message = T{};
  return 0;
}

template <class T>
int decode(const uint8_t* buffer, size_t length, T& message, const qidl_allocator* allocator) {
  message = T{};
  for_each_field<T>([&](const auto& f, uint32_t) {
    f.clear(message);
    return 0;
  });
  const Memory memory(allocator);
  Reader in(buffer, length);
  uint32_t presence = 0;
  int result = in.scalar(presence) ? 0 : QIDL_ERR_TRUNCATED;
  if (result == 0 && (presence & ~field_mask<T>) != 0) result = QIDL_ERR_MASK;
  if (result == 0)
    result = for_each_field<T>([&](const auto& f, uint32_t bit) {
      return (presence & bit) != 0 ? f.decode(in, message, memory) : 0;
    });
  if (result == 0 && in.left() != 0) result = QIDL_ERR_TRAILING;
  if (result != 0) {
    release(message, allocator);
    return result;
  }
  message.presence = presence;
  return 0;
}

// --- Typed access to fields with their presence bits. ---

template <class T, class V>
T owner_of(V T::*);

// The presence bit of the field that `Key` names.
template <auto Key>
constexpr uint32_t bit_of() {
  using T = decltype(owner_of(Key));
  uint32_t found = 0;
  for_each_field<T>([&](const auto& f, uint32_t bit) {
    if constexpr (std::is_same_v<std::remove_cvref_t<decltype(f.key)>,
                                 std::remove_cvref_t<decltype(Key)>>)
      if (f.key == Key) found = bit;
    return 0;
  });
  return found;
}

// Sets a scalar or string field and marks it present.
template <auto Key, class V>
void set(decltype(owner_of(Key))& message, V value) {
  static_assert(bit_of<Key>() != 0, "not a field of the structure's description");
  using Member = std::remove_cvref_t<decltype(message.*Key)>;
  message.*Key = static_cast<Member>(value);
  message.presence |= bit_of<Key>();
}

// Marks an array or byte-string field present after its pointer and count were stored.
template <auto Key>
void mark(decltype(owner_of(Key))& message) {
  static_assert(bit_of<Key>() != 0, "not a field of the structure's description");
  message.presence |= bit_of<Key>();
}

template <auto Key>
bool has(const decltype(owner_of(Key))& message) {
  static_assert(bit_of<Key>() != 0, "not a field of the structure's description");
  return (message.presence & bit_of<Key>()) != 0;
}

}  // namespace qidl

// Defines the three C operations of a described structure.
#define QIDL_DEFINE_OPERATIONS(type)                                                               \
  extern "C" ssize_t qidl_##type##_encode_ext(const struct type* message, uint8_t* buffer,         \
                                              size_t size) {                                       \
    return qidl::encode(*message, buffer, size);                                                   \
  }                                                                                                \
  extern "C" int qidl_##type##_decode_ext(const uint8_t* buffer, size_t length,                    \
                                          struct type* message, const qidl_allocator* allocator) { \
    return qidl::decode(buffer, length, *message, allocator);                                      \
  }                                                                                                \
  extern "C" int qidl_##type##_free_ext(struct type* message, const qidl_allocator* allocator) {   \
    return qidl::release(*message, allocator);                                                     \
  }
