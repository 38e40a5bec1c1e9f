#include "client/buffer.h"

#include <new>

namespace zor::client {

void Buffer::resize(std::size_t size) {
  if (size > mSize) {
    void* grown = std::realloc(mData, size);
    if (grown == nullptr) throw std::bad_alloc();
    mData = static_cast<std::byte*>(grown);
  }
  mSize = size;
}

}  // namespace zor::client
