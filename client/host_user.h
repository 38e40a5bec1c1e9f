// Which user a host runs as.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "client/result.h"

namespace zor::client {

/// The number of the user with this name, or the number itself when it is one.
std::optional<uid_t> userNumber(const std::string& nameOrNumber);

/// "user 'alice'", or "user 1000" when there is no name.
std::string describeUser(uid_t user);

/// The user of the host at the other end of a connected local socket, if it may serve this
/// process: this process's own user, root, or `allowed`. Otherwise an error with advice;
/// nothing has been sent then.
Result<uid_t> checkHostUser(int socket, std::optional<uid_t> allowed);

/// Why a host of that user may have closed the connection before it announced a disk.
std::string whyTurnedAway(uid_t hostUser);

}  // namespace zor::client
