#include "cli/command_line.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>

#include "cli/command.h"
#include "client/host_user.h"

namespace zor::client::cli {
namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

/// Ends the process as the signal would have, so that shells see it.
int endBySignal(int number) {
  ::signal(number, SIG_DFL);
  ::raise(number);
  return kFailure;
}

/// The exit code, or minus the signal that the process is to end by. All that
/// the command made is gone by then, temporary files included.
int run(const ConnectionOptions& options, const Subcommand& command) {
  // The loop must outlive the connection, whose thread posts to it.
  EventLoop loop;
  Console console;
  bool ok = false;
  {
    auto connection = Connection::open(options);
    if (!connection) {
      console.message(options.socketPath + ": " + connection.error().message);
      return kFailure;
    }
    const Announcement& announcement = (*connection)->announcement();
    if (command.changesDisk && announcement.readOnly) {
      console.message("the disk '" + announcement.name +
                      "' is read-only: nothing on it can be changed");
      return kFailure;
    }
    Disk disk((*connection)->link());
    Output out;
    CommandContext context{disk, (*connection)->link(), announcement, loop, out, console};
    try {
      ok = command.run(context);
      out.flush();
    } catch (const BrokenPipe&) {
      return -SIGPIPE;
    } catch (const std::exception& error) {
      console.message(error.what());
      ok = false;
    }
  }
  if (!ok && loop.signal() != 0) return -loop.signal();
  return ok ? 0 : kFailure;
}

}  // namespace

int runProgram(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);
  CLI::App app("Works on a disk that a udisk host serves.", "udisk-remote");
  ConnectionOptions options;
  double timeout = 60;
  Subcommand command;
  app.add_option("--socket", options.socketPath, "the host's socket")
      ->required()
      ->type_name("PATH");
  app.add_option("--drive", options.link.driveName, "the drive name that the host is informed of")
      ->type_name("NAME")
      ->capture_default_str();
  app.add_option("--bandwidth", options.bandwidthKbit,
                 "announce this bandwidth; the host paces reads to it")
      ->type_name("KBIT")
      ->check(CLI::Range(1U, 0xffffffffU));
  std::string hostUser;
  app.add_option("--allow-host-user", hostUser,
                 "also accept a host that this user runs, besides your own and root's")
      ->type_name("NAME");
  app.add_option("--timeout", timeout, "fail when the host does not answer for this long")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, 1e6))
      ->capture_default_str();
  app.require_subcommand(1);
  addListing(app, command);
  addCat(app, command);
  addGet(app, command);
  addPut(app, command);
  addNames(app, command);
  addRemove(app, command);
  addAttributes(app, command);
  addWatch(app, command);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  if (!hostUser.empty()) {
    options.allowedHostUser = userNumber(hostUser);
    if (!options.allowedHostUser) {
      Console().message("--allow-host-user: there is no user '" + hostUser + "'");
      return kUsage;
    }
  }
  options.link.idleTimeout = std::chrono::milliseconds(static_cast<std::int64_t>(timeout * 1000));
  const int result = run(options, command);
  return result < 0 ? endBySignal(-result) : result;
}

}  // namespace zor::client::cli
