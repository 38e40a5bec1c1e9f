// The command line, in the program's own form and in the one of mount(8).
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/result.h"
#include "mount/attributes.h"
#include "mount/fuse.h"

namespace zor::client::mount {

enum class Action {
  kMount,
  kCheck,  ///< only the arguments are checked
  kHelp,
  kVersion,
};

struct MountOptions {
  Action action = Action::kMount;
  std::string socketPath;
  std::string mountPoint;
  bool foreground = false;
  bool metrics = false;
  bool quiet = false;
  bool syncOnClose = true;
  std::chrono::milliseconds attributeTimeout{1000};
  std::chrono::milliseconds timeout{30000};
  std::uint32_t bandwidthKbit = 0;         ///< 0: not announced
  std::optional<uid_t> allowedHostUser{};  ///< besides the own user and root
  OwnershipOverride ownership;

  bool singleThread = false;
  bool cloneFd = false;
  unsigned maxThreads = 0;
  unsigned maxIdleThreads = 0;
  unsigned maxRead = 0;                     ///< bytes; 0: the kernel's limit
  FuseConnectionOptions connectionOptions;  ///< requests to the kernel
  FuseArguments fuseArguments;              ///< for the session
};

/// An error is a sentence that says what to do. Not for several threads at once.
Result<MountOptions, std::string> parseOptions(int argc, const char* const* argv);

/// Whether the program was called as mount(8) calls its helpers.
bool isMountHelper(std::string_view programName);

/// The arguments of a mount helper as this program's own; with `fake`, they are
/// only to be checked.
struct HelperArguments {
  std::vector<std::string> arguments;  ///< behind the program's name
  bool fake = false;
};
Result<HelperArguments, std::string> translateHelperArguments(int argc, const char* const* argv);

void printHelp();
void printVersion();

}  // namespace zor::client::mount
