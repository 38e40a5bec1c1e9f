#include "host/host_program.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <system_error>

#include "host/log_sink.h"
#include "host/probe_command.h"
#include "host/serve_command.h"
#include "support/printable.h"

namespace zor::host {

namespace {

// Programs that probe and mount are the system's, whoever sets PATH for us; with none
// at all the current directory would be searched for them.
constexpr char kSystemPath[] = "/usr/sbin:/usr/bin:/sbin:/bin";

// What was printed is only known to have arrived when it is flushed.
void finishOutput() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return;
  throw std::system_error(errno, std::generic_category(), "cannot write to standard output");
}

}  // namespace

int runProgram(int argc, char** argv) {
  constexpr int kUsageError = 2;
  CLI::App app("Serves a directory as a redirected USB disk");
  app.require_subcommand(1);
  app.failure_message([](const CLI::App* parsed, const CLI::Error& error) {
    const CLI::Error shown(error.get_name(), printable(error.what()), error.get_exit_code());
    return CLI::FailureMessage::simple(parsed, shown);
  });
  std::function<void()> action;
  addServeCommand(app, action);
  addProbeCommand(app, action);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (app.exit(error) != 0) return kUsageError;
    finishOutput();
    return 0;
  }
  // Standard output carries the packet layer's plain lines.
  ::setenv("PATH", kSystemPath, 1);
  std::signal(SIGPIPE, SIG_IGN);
  // A file that outgrows the limit of this process is a failed request, not the end.
  std::signal(SIGXFSZ, SIG_IGN);
  const Log log;
  action();
  finishOutput();
  return 0;
}

}  // namespace zor::host
