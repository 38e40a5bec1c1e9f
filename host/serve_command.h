// The command `serve`.
#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace zor::host {

/// Adds `serve` to `app`. When the command line asks for it, `run` is given
/// the action that carries it out, which throws std::exception on failure.
void addServeCommand(CLI::App& app, std::function<void()>& run);

}  // namespace zor::host
