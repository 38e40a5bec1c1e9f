#include "program.h"

#include <spdlog/sinks/dup_filter_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <functional>
#include <memory>

#include "probe_command.h"
#include "serve_command.h"

namespace zor::host {

namespace {

/// A remote side looks for many names that are not there: the same line again
/// and again is told once, with its count.
std::shared_ptr<spdlog::logger> logger() {
  auto filter = std::make_shared<spdlog::sinks::dup_filter_sink_mt>(std::chrono::seconds(5));
  filter->add_sink(std::make_shared<spdlog::sinks::stderr_color_sink_mt>());
  return std::make_shared<spdlog::logger>("udisk-host", std::move(filter));
}

}  // namespace

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
  spdlog::set_default_logger(logger());
  std::signal(SIGPIPE, SIG_IGN);
  // A file that outgrows the limit of this process is a failed request, not the end.
  std::signal(SIGXFSZ, SIG_IGN);
  action();
  return 0;
}

}  // namespace zor::host
