// Every allocation on the way of a request fails once.
#include <unistd.h>

#include <new>
#include <thread>

#include "disk_fixture.h"
#include "udisk/udisk_driver.h"

namespace {

thread_local long tLeft = -1;  ///< allocations until the one that fails; -1: none does

bool fails() noexcept { return tLeft >= 0 && tLeft-- == 0; }

// Not inlined: the compiler would take it for a mistake in an operator delete.
[[gnu::noinline]] void release(void* memory) noexcept { std::free(memory); }

}  // namespace

// The linker leads the driver's own calls here.
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
void* __wrap_malloc(std::size_t size) { return fails() ? nullptr : __real_malloc(size); }
void* __wrap_calloc(std::size_t count, std::size_t size) {
  return fails() ? nullptr : __real_calloc(count, size);
}
void* __wrap_realloc(void* memory, std::size_t size) {
  return fails() ? nullptr : __real_realloc(memory, size);
}
}

void* operator new(std::size_t size) {
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return std::malloc(size);
}
void operator delete(void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { release(memory); }

namespace zor::test {
namespace {

using AllocationTest = DiskTest;

/// Runs `step` with one allocation failing, none with -1. False when it did not come to that one.
template <class Step>
bool failing(long at, Step step) {
  tLeft = at;
  step();
  return std::exchange(tLeft, -1) < 0;
}

TEST_F(AllocationTest, ARequestIsServedOrNotButNeverHalf) {
  morvelLogSetLevel(kLogError);
  const std::string deep = "/a-directory-with-a-long-name/another-one-with-a-long-name/";
  for (const Probe& probe : kProbes) {
    const std::string path = deep + probe.leaf(), request = probe.request(path);
    std::string afterSuccess;
    std::size_t size = 0;
    bool goesOn = true;
    for (long at = -1; goesOn; ++at) {
      layOut();
      fs::create_directories(disk + deep + "empty");
      put(disk + deep + "inside.txt", "0123456789");
      const std::string before = snapshot(disk, false);
      device.forgetSent();
      std::unique_ptr<ZorPacket> packet = requestOf(probe.cmd, request);
      goesOn = failing(at, [&] { op.EventHandle(std::move(packet)); });
      const std::string after = snapshot(disk, false);
      const auto sent = device.sent();
      ASSERT_TRUE(sent.size() == 1 || (sent.empty() && at >= 0)) << probe.name << at;
      if (sent.empty()) continue;
      if (at < 0) afterSuccess = after, size = sent[0].size();
      if (sent[0].substr(16) != probe.failure(path)) {
        EXPECT_TRUE(after == afterSuccess && sent[0].size() == size) << probe.name << at;
      } else {
        EXPECT_TRUE(at >= 0 && (after == before || !probe.changesDisk)) << probe.name << at;
      }
    }
  }
}

TEST_F(AllocationTest, ADriverOpensOrLeavesNothingBehind) {
  device.params = R"({"letter": ")" + base + R"(/", "label": "disk", "name": "USB"})";
  const auto threads = [] {
    return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator());
  };
  morvelLogSetLevel(kLogError);
  std::thread([] {}).join();  // a sanitizer starts one of its own with the first
  // One that was joined shows for a moment longer.
  const auto settled = [&](std::ptrdiff_t wanted) {
    for (int i = 0; i < 1000 && threads() > wanted; ++i) ::usleep(1000);
    return threads();
  };
  const auto before = settled(1);
  bool goesOn = true;
  for (long at = 0; goesOn; ++at) {
    log.clear();
    ZorDriver* driver = nullptr;
    goesOn = failing(at, [&] { driver = udisk_open(&device, ""); });
    EXPECT_EQ(log.errors("udisk_open Init failed"), driver == nullptr ? 1U : 0U) << at;
    EXPECT_TRUE(driver != nullptr || goesOn);
    if (driver != nullptr) driver->Close(0);
    delete driver;
    EXPECT_EQ(settled(before), before);
  }
}

}  // namespace
}  // namespace zor::test
