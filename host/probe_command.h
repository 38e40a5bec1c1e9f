// The command `probe`.
#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace zor::host {

/// Adds `probe` to `app`, as addServeCommand does.
void addProbeCommand(CLI::App& app, std::function<void()>& run);

}  // namespace zor::host
