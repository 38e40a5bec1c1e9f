// Reading and writing of little-endian records.
//
// A record is a struct with a constexpr tuple `kFields` of its members in wire
// order; its size, its decoder and its encoder follow from that list. Members
// may be integers, `std::array`s of them, and records.
#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <tuple>
#include <type_traits>

namespace zor::wire {

using Bytes = std::span<const std::byte>;

template <class T>
concept Record = requires {
  T::kFields;
};

template <class T>
constexpr std::size_t wireSize() noexcept {
  if constexpr (Record<T>) {
    return std::apply(
        [](auto... member) {
          return (std::size_t{0} + ... +
                  wireSize<std::remove_cvref_t<decltype(std::declval<T&>().*member)>>());
        },
        T::kFields);
  } else if constexpr (std::integral<T>) {
    return sizeof(T);
  } else {
    return std::tuple_size_v<T> * wireSize<typename T::value_type>();
  }
}

/// Reads forward through the bytes of one packet and nothing else. The first
/// read that does not fit fails, and so does every later one: check `ok()`
/// once, after a series of reads.
class Cursor {
 public:
  Cursor() = default;
  explicit Cursor(Bytes bytes) noexcept : mRest(bytes) {}

  bool ok() const noexcept { return mOk; }
  Bytes rest() const noexcept { return mRest; }

  /// The next `count` bytes, or nothing and a failed cursor.
  Bytes take(std::uint64_t count) noexcept {
    if (!mOk || count > mRest.size()) {
      mOk = false;
      return {};
    }
    const Bytes taken = mRest.first(static_cast<std::size_t>(count));
    mRest = mRest.subspan(static_cast<std::size_t>(count));
    return taken;
  }

  /// Reads an integer, an array or a record; on failure `out` is unspecified.
  template <class T>
  bool get(T& out) noexcept {
    if (const Bytes bytes = take(wireSize<T>()); mOk) {
      const std::byte* at = bytes.data();
      decode(at, out);
    }
    return mOk;
  }

 private:
  template <class T>
  static void decode(const std::byte*& at, T& out) noexcept {
    if constexpr (Record<T>) {
      std::apply([&](auto... member) { (decode(at, out.*member), ...); }, T::kFields);
    } else if constexpr (std::integral<T>) {
      std::make_unsigned_t<T> value = 0;
      if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(&value, at, sizeof value);
      } else {
        for (std::size_t i = sizeof value; i-- > 0;) {
          value = static_cast<decltype(value)>((value << 8) | std::to_integer<unsigned>(at[i]));
        }
      }
      out = static_cast<T>(value);
      at += sizeof value;
    } else {
      for (auto& element : out) decode(at, element);
    }
  }

  Bytes mRest;
  bool mOk = true;
};

/// Writes `value` at `at`, which must have room for `wireSize<T>()` bytes;
/// returns the byte behind it.
template <class T>
std::byte* encodeAt(std::byte* at, const T& value) noexcept {
  if constexpr (Record<T>) {
    std::apply([&](auto... member) { ((at = encodeAt(at, value.*member)), ...); }, T::kFields);
  } else if constexpr (std::integral<T>) {
    if constexpr (std::endian::native == std::endian::little) {
      std::memcpy(at, &value, sizeof value);
    } else {
      auto bits = static_cast<std::make_unsigned_t<T>>(value);
      for (std::size_t i = 0; i < sizeof value;
           ++i, bits = static_cast<decltype(bits)>(bits >> 8)) {
        at[i] = static_cast<std::byte>(bits & 0xff);
      }
    }
    at += sizeof value;
  } else {
    for (const auto& element : value) at = encodeAt(at, element);
  }
  return at;
}

template <class T>
std::array<std::byte, wireSize<T>()> encoded(const T& value) noexcept {
  std::array<std::byte, wireSize<T>()> bytes;
  encodeAt(bytes.data(), value);
  return bytes;
}

}  // namespace zor::wire
