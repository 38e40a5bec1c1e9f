#include "program.h"

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <functional>

#include "probe_command.h"
#include "serve_command.h"

namespace zor::host {

int runProgram(int argc, char** argv) {
  constexpr int kUsageError = 2;
  CLI::App app("Serves a directory as a redirected USB disk");
  app.require_subcommand(1);
  std::function<void()> action;
  addServeCommand(app, action);
  addProbeCommand(app, action);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsageError;
  }
  // Standard output carries the packet layer's plain lines.
  spdlog::set_default_logger(spdlog::stderr_color_mt("udisk-host"));
  std::signal(SIGPIPE, SIG_IGN);
  action();
  return 0;
}

}  // namespace zor::host
