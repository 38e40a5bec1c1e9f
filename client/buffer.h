// Bytes on the heap with one owner.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "protocol/codec.h"

namespace zor::client {

/// Unlike a vector, it neither clears the bytes that it adds nor copies large
/// contents when it grows. Moving it keeps the bytes where they are.
class Buffer {
 public:
  Buffer() = default;
  explicit Buffer(std::size_t size) { resize(size); }
  explicit Buffer(wire::Bytes bytes) { append(bytes); }
  explicit Buffer(std::string_view text) : Buffer(std::as_bytes(std::span(text))) {}
  Buffer(Buffer&& other) noexcept
      : mData(std::exchange(other.mData, nullptr)), mSize(std::exchange(other.mSize, 0)) {}
  Buffer& operator=(Buffer&& other) noexcept {
    std::swap(mData, other.mData);
    std::swap(mSize, other.mSize);
    return *this;
  }
  ~Buffer() { std::free(mData); }

  std::byte* data() noexcept { return mData; }
  const std::byte* data() const noexcept { return mData; }
  std::size_t size() const noexcept { return mSize; }
  bool empty() const noexcept { return mSize == 0; }
  wire::Bytes bytes() const noexcept { return {mData, mSize}; }

  /// Added bytes are undefined. Throws std::bad_alloc and changes nothing.
  void resize(std::size_t size);

  void append(wire::Bytes bytes) {
    if (bytes.empty()) return;
    const std::size_t at = mSize;
    resize(at + bytes.size());
    std::memcpy(mData + at, bytes.data(), bytes.size());
  }

 private:
  std::byte* mData = nullptr;
  std::size_t mSize = 0;
};

}  // namespace zor::client
