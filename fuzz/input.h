// Reading a fuzzer's bytes, and judging what came of them.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>

// The whole system's, once per input, would take longer than all the rest.
extern "C" inline __attribute__((used)) void sync() noexcept {}

namespace zor::fuzz {

// An expectation that fails ends the process, which the fuzzer reports. The test
// library looks at this once, in its own initialisation.
[[gnu::constructor(101)]] static void failHard() { ::setenv("GTEST_BREAK_ON_FAILURE", "1", 1); }

/// The bytes of one run, taken from the front. Behind the end everything is 0.
struct Input {
  std::string_view take(std::size_t count) {
    const std::string_view taken = rest.substr(0, count);
    rest.remove_prefix(taken.size());
    return taken;
  }
  std::string_view text() {
    const std::string_view taken = take(rest.find('\0'));
    take(1);
    return taken;
  }
  std::uint8_t byte() {
    return rest.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(take(1)[0]);
  }
  std::size_t word() {
    const std::size_t low = byte();
    return low | std::size_t{byte()} << 8;
  }

  std::string_view rest;
};

inline std::string_view view(const void* data, std::size_t size) {
  return {static_cast<const char*>(data), size};
}

}  // namespace zor::fuzz
