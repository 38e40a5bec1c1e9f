// Requests carry names, and a name may stand for another file than the one that was
// opened: somebody on the host has replaced it.
#pragma once

#include "drive/requests/compound_request.h"

namespace zor::client {

/// Whether the name is known to stand for the open file, within the lifetime of attributes.
bool isIdentified(const NameCache& names, const Node& node);

/// Asks, beside the read or write that is about to be sent, whether the name of an open
/// file still stands for it, unless that is known. The cache takes the file's place away if
/// not. With the mutex held.
void identify(const HostAccess& host, const Node& node);

}  // namespace zor::client
