// Bytes on the heap with one owner.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "protocol/codec.h"

namespace zor::remote {

/// Unlike a vector, it neither clears the bytes that it adds nor copies large
/// contents when it grows. Moving it keeps the bytes where they are.
class Buffer {
 public:
  Buffer() = default;
  explicit Buffer(std::size_t size) { resize(size); }
  explicit Buffer(wire::Bytes bytes) { append(bytes); }
  explicit Buffer(std::string_view text) : Buffer(std::as_bytes(std::span(text))) {}
  Buffer(Buffer&& other) noexcept
      : mData(std::move(other.mData)), mSize(std::exchange(other.mSize, 0)) {}
  Buffer& operator=(Buffer&& other) noexcept {
    mData = std::move(other.mData);
    mSize = std::exchange(other.mSize, 0);
    return *this;
  }

  std::byte* data() noexcept { return mData.get(); }
  const std::byte* data() const noexcept { return mData.get(); }
  std::size_t size() const noexcept { return mSize; }
  bool empty() const noexcept { return mSize == 0; }
  wire::Bytes bytes() const noexcept { return {mData.get(), mSize}; }

  /// Added bytes are undefined. Throws std::bad_alloc and changes nothing.
  void resize(std::size_t size) {
    if (size > mSize) {
      void* grown = std::realloc(mData.get(), size);
      if (grown == nullptr) throw std::bad_alloc();
      static_cast<void>(mData.release());
      mData.reset(static_cast<std::byte*>(grown));
    }
    mSize = size;
  }

  void append(wire::Bytes bytes) {
    if (bytes.empty()) return;
    const std::size_t at = mSize;
    resize(at + bytes.size());
    std::memcpy(mData.get() + at, bytes.data(), bytes.size());
  }

 private:
  struct Free {
    void operator()(std::byte* bytes) const noexcept { std::free(bytes); }
  };
  std::unique_ptr<std::byte[], Free> mData;
  std::size_t mSize = 0;
};

}  // namespace zor::remote
