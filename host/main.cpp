#include <fcntl.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>

#include "probe_command.h"
#include "serve_command.h"

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

// A descriptor below 3 that is closed would be given to a socket, and a line
// on standard output would then end up in the packet stream.
void keepStandardDescriptors() {
  for (int fd = 0; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) == -1 && ::open("/dev/null", O_RDWR) < 0) ::_exit(kFailure);
  }
}

int run(int argc, char** argv) {
  CLI::App app("Serves a directory as a redirected USB disk");
  app.require_subcommand(1);
  std::function<void()> action;
  zor::host::addServeCommand(app, action);
  zor::host::addProbeCommand(app, action);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  // Standard output carries the packet layer's plain lines.
  spdlog::set_default_logger(spdlog::stderr_color_mt("udisk-host"));
  std::signal(SIGPIPE, SIG_IGN);
  action();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  keepStandardDescriptors();
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "udisk-host: %s\n", error.what());
    return kFailure;
  }
}
