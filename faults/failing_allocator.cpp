// Preloaded into a program: lets one allocation fail, and counts what is allocated. Another
// process names it through a file that both map (named by FAILING_ALLOCATOR).
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void __libc_free(void* memory);
}

namespace {

struct Control {
  std::atomic<std::int64_t> thread;  ///< whose allocations count
  std::atomic<std::int64_t> left;    ///< allocations until the one that fails; negative: none does
  std::atomic<std::int64_t> live;    ///< allocated and not freed
};

std::atomic<Control*> gControl{nullptr};

[[gnu::constructor]] void mapControl() {
  const char* path = std::getenv("FAILING_ALLOCATOR");
  const int fd = path != nullptr ? ::open(path, O_RDWR | O_CLOEXEC) : -1;
  if (fd < 0) return;
  void* memory = ::mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (memory != MAP_FAILED) gControl.store(static_cast<Control*>(memory));
}

bool fails() noexcept {
  Control* control = gControl.load(std::memory_order_relaxed);
  return control != nullptr && control->left >= 0 && control->thread == ::gettid() &&
         control->left.fetch_sub(1) == 0;
}

void* counted(void* memory) noexcept {
  Control* control = gControl.load(std::memory_order_relaxed);
  if (control != nullptr && memory != nullptr) ++control->live;
  return memory;
}

}  // namespace

extern "C" {
void* malloc(std::size_t size) { return fails() ? nullptr : counted(__libc_malloc(size)); }
void* calloc(std::size_t count, std::size_t size) {
  return fails() ? nullptr : counted(__libc_calloc(count, size));
}
void* realloc(void* memory, std::size_t size) {
  if (memory == nullptr) return malloc(size);
  return fails() ? nullptr : __libc_realloc(memory, size);
}
void free(void* memory) {
  if (memory == nullptr) return;
  if (Control* control = gControl.load(std::memory_order_relaxed)) --control->live;
  __libc_free(memory);
}
}
