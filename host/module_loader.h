// Loading a driver module.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "zor_driver.h"

namespace zor::host {

/// A loaded driver module. Stays loaded for as long as the object lives, which
/// must be longer than every driver that it opened.
class DriverModule {
 public:
  /// Loads `file` and checks that it is a driver module with the name `name`.
  /// Throws std::runtime_error with a sentence that names the file otherwise.
  DriverModule(const std::filesystem::path& file, const std::string& name);

  /// A driver for `device`, or null when the module could not make one. Passes
  /// on what the module throws.
  std::unique_ptr<ZorDriver> open(ZorDevice& device, const std::string& policy) const;

  /// Where the module lies beside the running program: ../lib/udisk/ as seen
  /// from the program's directory.
  static std::filesystem::path defaultFile();

 private:
  struct Unload {
    void operator()(void* handle) const noexcept;
  };

  std::unique_ptr<void, Unload> mHandle;
  const ZorDriverModule* mDescriptor = nullptr;
};

}  // namespace zor::host
