#include "mount/mount_program.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "client/durable_link.h"
#include "drive/drive.h"
#include "mount/background.h"
#include "mount/end_limit.h"
#include "mount/messages.h"
#include "mount/metrics_text.h"
#include "mount/operations.h"
#include "mount/options.h"
#include "mount/session.h"
#include "mount/signals.h"

namespace zor::client::mount {
namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

std::string reason(int error) { return std::generic_category().message(error); }

// Makes the path absolute. Returns a complaint, or nothing.
std::string resolveMountPoint(std::string& path) {
  const std::unique_ptr<char, FreeMemory> found(::realpath(path.c_str(), nullptr));
  struct stat attributes {};
  if (!found || ::stat(found.get(), &attributes) != 0) {
    return errno == ENOTCONN ? "a drive whose program has ended; unmount it with fusermount3 -u"
                             : reason(errno);
  }
  if (!S_ISDIR(attributes.st_mode)) return "not a directory";
  path = found.get();
  return {};
}

int fail(Background& background, const std::string& sentence) {
  report(sentence);
  background.failed(kFailure);
  return kFailure;
}

std::string couldNotBeWritten(const std::string& path) {
  return path + ": could not be written completely";
}

void printMetrics(DurableLink& link, Drive& drive) {
  std::string text;
  for (const std::string& path : drive.lost()) text += couldNotBeWritten(path) + "\n";
  report(text + describe(link.metrics().snapshot()) + describe(drive.counters()));
}

/// Sends signals to a session for as long as it exists.
class SignalsToSession {
 public:
  SignalsToSession(Signals& signals, Session& session, EndLimit& limit,
                   const std::function<void()>& print)
      : mSignals(signals), mSession(session), mLimit(limit), mPrint(print) {
    signals.handle(
        [&session, &limit] {
          limit.start();
          session.end();
        },
        print);
  }
  ~SignalsToSession() {
    mSession.giveUp();
    mSignals.handle([] {}, {});
  }

  SignalsToSession(const SignalsToSession&) = delete;
  SignalsToSession& operator=(const SignalsToSession&) = delete;

  /// The session has ended; a signal now limits only the time of the last writes.
  void served() {
    mSession.giveUp();
    mSignals.handle([&limit = mLimit] { limit.start(); }, mPrint);
  }

 private:
  Signals& mSignals;
  Session& mSession;
  EndLimit& mLimit;
  const std::function<void()> mPrint;
};

// Flushes the write-back buffers; true when all data of programs is on the disk.
bool finish(Drive& drive) {
  const std::vector<std::string> lost = drive.finish();
  if (lost.empty()) return true;
  reportLoss("these files could not be written completely:");
  for (const std::string& path : lost) reportLoss("  " + path);
  return false;
}

int serve(MountOptions& options, Background& background) {
  Signals signals;
  DurableLinkOptions linkOptions;
  linkOptions.connection.socketPath = options.socketPath;
  linkOptions.connection.bandwidthKbit = options.bandwidthKbit;
  linkOptions.connection.allowedHostUser = options.allowedHostUser;
  linkOptions.timeout = options.timeout;
  linkOptions.report = [](const std::string& sentence) { report(sentence); };
  auto opened = DurableLink::open(std::move(linkOptions));
  if (!opened) return fail(background, options.socketPath + ": " + opened.error().message);
  DurableLink& link = **opened;
  if (link.announcement().readOnly) options.fuseArguments.add("-oro");

  DriveOptions driveOptions;
  driveOptions.attributeTimeout = options.attributeTimeout;
  driveOptions.quiet = options.quiet;
  driveOptions.syncOnClose = options.syncOnClose;
  driveOptions.lastingInodes = link.identity().lastingInodes();
  driveOptions.smallFiles = link.servesSmallFiles();
  driveOptions.report = [](const std::string& sentence) { report(sentence); };
  driveOptions.lost = [](const std::string& path) { reportLoss(couldNotBeWritten(path)); };
  Drive drive(link, std::move(driveOptions));

  MountContext context(drive, options);
  auto created =
      Session::create(std::move(options.fuseArguments), operations(), &context, options.mountPoint);
  if (!created) return fail(background, created.error());
  Session& session = **created;
  context.setSession(session.handle());
  EndLimit limit(link);
  SignalsToSession handling(signals, session, limit, [&] { printMetrics(link, drive); });
  const std::string wrong = session.mount();
  if (!wrong.empty()) return fail(background, options.mountPoint + ": " + wrong);
  if (!background.ready()) return fail(background, "cannot go to the background");

  const int error = session.run(options);
  handling.served();
  if (error != 0) report("serving ended: " + reason(error));
  session.unmount();
  const bool complete = finish(drive);
  if (options.metrics) printMetrics(link, drive);
  return complete && error == 0 ? 0 : kFailure;
}

}  // namespace

int runMount(int argc, char** argv) {
  auto options = parseOptions(argc, argv);
  if (!options) {
    report(options.error());
    return kUsage;
  }
  switch (options->action) {
    case Action::kHelp:
      printHelp();
      return 0;
    case Action::kVersion:
      printVersion();
      return 0;
    case Action::kCheck:
      return 0;
    case Action::kMount:
      break;
  }
  if (const std::string wrong = resolveMountPoint(options->mountPoint); !wrong.empty()) {
    report(options->mountPoint + ": " + wrong);
    return kFailure;
  }
  adoptFuseMessages();
  Background background;
  if (!options->foreground) {
    if (const std::optional<int> code = background.enter()) return *code;
  }
  blockSignals();
  return serve(*options, background);
}

}  // namespace zor::client::mount
