#include "serve_command.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "cleanup_process.h"
#include "device_parameters.h"
#include "host_device.h"
#include "log_sink.h"
#include "module_loader.h"
#include "morvel_log.h"
#include "mounted_partition.h"
#include "sandbox.h"
#include "server.h"
#include "signals_blocked.h"
#include "text.h"

namespace zor::host {
namespace {

constexpr char kModuleName[] = "udisk-redir";

struct ServeOptions {
  std::string directory;
  std::string partition;
  std::string socketPath;
  std::string name;
  std::string module;
  std::string logLevel = "info";
  std::string sandbox = "auto";
  std::string traceFile;
  std::vector<std::string> tracePaths;
  bool readOnly = false;
};

struct LogLevels {
  spdlog::level::level_enum host;
  int module;
};

const std::map<std::string, LogLevels>& logLevels() {
  static const std::map<std::string, LogLevels> levels = {
      {"trace", {spdlog::level::trace, kLogFrequent}},
      {"debug", {spdlog::level::debug, kLogDebug}},
      {"info", {spdlog::level::info, kLogError}},
      {"warn", {spdlog::level::warn, kLogError}},
      {"error", {spdlog::level::err, kLogError}},
      {"off", {spdlog::level::off, kLogError + 1}}};
  return levels;
}

// Of the mount as well: the same disk mounted again is outside of what a host was
// confined to.
using Identity = std::pair<std::uint64_t, std::uint64_t>;

std::optional<Identity> identityOf(const std::string& directory) {
  constexpr unsigned kUniqueMount = 0x4000;  // younger than the headers
  struct statx status {};
  if (::statx(AT_FDCWD, directory.c_str(), 0, STATX_INO | STATX_MNT_ID | kUniqueMount, &status) !=
      0) {
    return std::nullopt;
  }
  return Identity(status.stx_mnt_id, status.stx_ino);
}

// Nothing: the host keeps the rights that it was started with.
const std::map<std::string, std::optional<SandboxMode>>& sandboxModes() {
  static const std::map<std::string, std::optional<SandboxMode>> modes = {
      {"auto", SandboxMode::kAuto}, {"required", SandboxMode::kRequired}, {"off", std::nullopt}};
  return modes;
}

// What is to be done at the end: by the host itself, or by the process that kept
// the rights for it.
class Cleanup {
 public:
  explicit Cleanup(std::optional<MountedPartition>& mounted) noexcept : mMounted(mounted) {}
  ~Cleanup() {
    try {
      unmount();
    } catch (const std::exception& error) {
      spdlog::error("{}", error.what());
    }
  }
  Cleanup(const Cleanup&) = delete;
  Cleanup& operator=(const Cleanup&) = delete;

  void splitOff(Listener& listener) {
    CleanupProcess::Steps steps(kStepCount);
    steps[kRemoveSocket] = [&listener] { listener.removePath(); };
    if (mMounted) steps[kUnmount] = [this] { mMounted->unmount(); };
    mProcess.emplace(std::move(steps), listener.identity());
    mUnmountsElsewhere = mMounted.has_value();
    if (mMounted) mMounted->release();
  }
  void removeSocket() noexcept {
    try {
      if (mProcess) mProcess->run(kRemoveSocket);
    } catch (const std::exception& error) {
      spdlog::error("the socket is left behind: {}", error.what());
    }
  }
  void unmount() {
    if (std::exchange(mUnmountsElsewhere, false)) {
      mProcess->run(kUnmount);
    } else if (mMounted) {
      mMounted->unmount();
    }
  }

 private:
  enum Step : std::size_t { kRemoveSocket, kUnmount, kStepCount };

  std::optional<MountedPartition>& mMounted;
  std::optional<CleanupProcess> mProcess;
  bool mUnmountsElsewhere = false;
};

std::string servedDirectory(const std::string& given) {
  std::error_code error;
  const auto directory = std::filesystem::canonical(given, error);
  if (error) throw std::runtime_error("cannot serve " + printable(given) + ": " + error.message());
  if (!std::filesystem::is_directory(directory, error)) {
    throw std::runtime_error("cannot serve " + printable(given) + ": it is not a directory");
  }
  return directory.string();
}

void serve(const ServeOptions& options) {
  const LogLevels& levels = logLevels().at(options.logLevel);
  spdlog::set_level(levels.host);
  morvelLogSetLevel(levels.module);

  const DriverModule module(
      options.module.empty() ? DriverModule::defaultFile() : std::filesystem::path(options.module),
      kModuleName);

  std::shared_ptr<TraceFile> trace;
  if (!options.traceFile.empty()) trace = std::make_shared<TraceFile>(options.traceFile);
  std::shared_ptr<ZorPathTable> paths;
  if (!options.tracePaths.empty()) {
    paths = std::make_shared<ZorPathTable>();
    for (const std::string& glob : options.tracePaths) paths->Add(glob);
  }

  // A signal that comes while the partition is being mounted waits until the
  // server looks for signals, so that what was mounted is unmounted again.
  std::optional<SignalsBlocked> blocked;
  std::optional<MountedPartition> mounted;
  if (!options.partition.empty()) {
    blocked.emplace();
    mounted.emplace(options.partition, options.readOnly);
  }
  const std::string directory = servedDirectory(mounted ? mounted->directory() : options.directory);
  const std::string& name = mounted && options.name.empty() ? mounted->label() : options.name;
  const DeviceParameters parameters = makeParameters(directory, name, options.readOnly);
  const auto base = std::make_shared<HostDevBase>(toJson(parameters), paths, trace);

  Cleanup cleanup(mounted);
  std::optional<Identity> confinedTo;
  ServerHooks hooks;
  hooks.listening = [&](Listener& listener) {
    if (const auto mode = sandboxModes().at(options.sandbox)) {
      cleanup.splitOff(listener);
      confine(*mode, directory, options.readOnly);
      confinedTo = identityOf(directory);
    }
    startLogThread();
    blocked.reset();
  };
  hooks.arrived = [&] {
    if (!confinedTo || confinedTo == identityOf(directory)) return;
    spdlog::error(
        "{} is not the directory that this host was confined to: the disk is gone, or was mounted "
        "again. Start the host anew, or with --sandbox=off",
        printable(directory));
  };
  hooks.closed = [&cleanup] { cleanup.removeSocket(); };
  runServer(module, base, options.socketPath, directory, hooks);
  cleanup.unmount();
}

}  // namespace

void addServeCommand(CLI::App& app, std::function<void()>& run) {
  auto options = std::make_shared<ServeOptions>();
  CLI::App* command = app.add_subcommand("serve", "Serve a directory to a remote");
  std::vector<std::string> levels;
  for (const auto& level : logLevels()) levels.push_back(level.first);

  auto* served = command->add_option_group("what is served");
  served->add_option("directory", options->directory, "The directory to serve");
  served->add_option(
      "--partition", options->partition,
      "A partition to mount and serve (as root), e.g. sdb1 or /dev/disk/by-label/X; see `probe`");
  served->require_option(1);
  command->add_option("--socket", options->socketPath, "Path of the Unix socket to listen on")
      ->required();
  command->add_option("--name", options->name,
                      "Name announced to the remote (default: the directory's own)");
  command->add_flag("--read-only", options->readOnly, "Refuse every change");
  command->add_option("--module", options->module, "The driver module to load");
  command
      ->add_option("--sandbox", options->sandbox,
                   "Give up the rights that serving does not need: auto (as much as the kernel "
                   "has), required (all, or nothing is served), off")
      ->check(CLI::IsMember({"auto", "required", "off"}))
      ->capture_default_str();
  command->add_option("--log-level", options->logLevel, "Least level of the lines on stderr")
      ->check(CLI::IsMember(levels))
      ->capture_default_str();
  command->add_option("--trace-file", options->traceFile, "Append trace events to this file");
  command
      ->add_option("--trace-path", options->tracePaths,
                   "Trace reads and writes of the remote paths that match this glob; repeatable")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  command->callback([options, &run] { run = [options] { serve(*options); }; });
}

}  // namespace zor::host
