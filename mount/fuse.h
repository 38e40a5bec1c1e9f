// libfuse's low-level interface, in the version that this is written for.
#pragma once

#define FUSE_USE_VERSION 312
#include <fuse_lowlevel.h>

#include <memory>
#include <utility>

namespace zor::client::mount {

/// An argument vector of libfuse, which copies every argument.
class FuseArguments {
 public:
  FuseArguments() = default;
  FuseArguments(const FuseArguments& other) {
    for (int i = 0; i < other.mArguments.argc; ++i) add(other.mArguments.argv[i]);
  }
  FuseArguments(FuseArguments&& other) noexcept
      : mArguments(std::exchange(other.mArguments, FUSE_ARGS_INIT(0, nullptr))) {}
  FuseArguments& operator=(FuseArguments&& other) noexcept {
    std::swap(mArguments, other.mArguments);
    return *this;
  }
  ~FuseArguments() { fuse_opt_free_args(&mArguments); }

  /// Throws std::bad_alloc.
  void add(const char* argument) {
    if (fuse_opt_add_arg(&mArguments, argument) != 0) throw std::bad_alloc();
  }

  fuse_args* get() noexcept { return &mArguments; }

 private:
  fuse_args mArguments = FUSE_ARGS_INIT(0, nullptr);
};

struct FreeMemory {
  void operator()(void* memory) const noexcept { ::free(memory); }
};

using FuseConnectionOptions = std::unique_ptr<fuse_conn_info_opts, FreeMemory>;

}  // namespace zor::client::mount
