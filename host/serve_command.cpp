#include "host/serve_command.h"

#include <pwd.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/cleanup.h"
#include "host/device_parameters.h"
#include "host/host_device.h"
#include "host/host_signals.h"
#include "host/log_sink.h"
#include "host/module_loader.h"
#include "host/mounted_partition.h"
#include "host/partition_lock.h"
#include "host/sandbox.h"
#include "host/served_directory.h"
#include "host/server.h"
#include "morvel_log.h"
#include "support/printable.h"

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
  std::string user;
  std::size_t maxClients = kMaxClients;
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

// Nothing: the host keeps the rights that it was started with.
const std::map<std::string, std::optional<SandboxMode>>& sandboxModes() {
  static const std::map<std::string, std::optional<SandboxMode>> modes = {
      {"auto", SandboxMode::kAuto}, {"required", SandboxMode::kRequired}, {"off", std::nullopt}};
  return modes;
}

std::string servedDirectory(const std::string& given) {
  std::error_code error;
  const auto directory = std::filesystem::canonical(given, error);
  if (error) throw std::runtime_error("cannot serve " + printable(given) + ": " + error.message());
  if (!std::filesystem::is_directory(directory, error)) {
    throw std::runtime_error("cannot serve " + printable(given) + ": it is not a directory");
  }
  return directory.string();
}

// A host that root runs is there for the user of the desktop.
std::optional<Listener::Owner> socketOwner(const std::string& name) {
  if (name.empty()) return std::nullopt;
  std::vector<char> memory(std::size_t{64} << 10);
  passwd entry{};
  passwd* found = nullptr;
  const int error = ::getpwnam_r(name.c_str(), &entry, memory.data(), memory.size(), &found);
  if (found == nullptr) {
    throw std::runtime_error("there is no user " + printable(name) +
                             (error != 0 ? std::string(": ") + std::strerror(error) : ""));
  }
  if (::geteuid() != 0 && found->pw_uid != ::geteuid()) {
    throw std::runtime_error("only root can serve for another user (--user " + printable(name) +
                             ")");
  }
  return Listener::Owner{found->pw_uid, found->pw_gid};
}

std::vector<uid_t> admittedUsers(const std::optional<Listener::Owner>& owner) {
  std::vector<uid_t> users = {0, ::geteuid()};
  if (owner) users.push_back(owner->user);
  return users;
}

void warnOfSetuidPrograms(const std::string& directory, bool readOnly) {
  struct statvfs disk {};
  if (::geteuid() != 0 || readOnly || ::statvfs(directory.c_str(), &disk) != 0) return;
  if ((disk.f_flag & ST_NOSUID) != 0) return;
  spdlog::warn(
      "the client can make programs in {} that run as root for every user here who reaches them "
      "(setuid). Mount the file system with nosuid, or serve it as another user",
      printable(directory));
}

// Modes are the clients' to choose. Only what nobody chose, as those of directories that are
// made on the way to a file, must not let everybody write.
void letClientsChooseModes() noexcept {
  const mode_t before = ::umask(0);
  ::umask(before & S_IWOTH);
}

void serve(const ServeOptions& options) {
  const LogLevels& levels = logLevels().at(options.logLevel);
  spdlog::set_level(levels.host);
  morvelLogSetLevel(levels.module);

  // From here on, so that a partition that is being mounted is unmounted again.
  HostSignals signals;
  const auto owner = socketOwner(options.user);
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

  std::optional<Listener> listener;
  std::optional<MountedPartition> mounted;
  Cleanup cleanup;
  if (!options.partition.empty()) {
    mounted = mountPartition(options.partition, options.readOnly, cleanup);
  }
  const std::string directory = servedDirectory(mounted ? mounted->directory : options.directory);
  const UniqueFd shared = mounted ? UniqueFd() : sharePartition(directory);
  const std::string& name = mounted && options.name.empty() ? mounted->label : options.name;
  const DeviceParameters parameters = makeParameters(directory, name, options.readOnly);
  const auto base = std::make_shared<HostDevBase>(toJson(parameters), paths, trace);
  ServedDirectory disk(directory);
  warnOfSetuidPrograms(directory, options.readOnly);

  listener.emplace(options.socketPath, owner);
  cleanup.add(Cleanup::kRemoveSocket, [&] { listener->removePath(); });
  if (const auto mode = sandboxModes().at(options.sandbox)) {
    cleanup.splitOff(listener->kept());
    if (confine(*mode, directory, options.readOnly)) disk.confinedToMount();
  }
  letClientsChooseModes();
  startLogThread();
  signals.attend();
  disk.watch();
  spdlog::info("serving {} on {}", printable(directory), printable(options.socketPath));
  runServer(module, base, disk, *listener, signals, {options.maxClients, admittedUsers(owner)},
            [&] { cleanup.tryToRun(Cleanup::kRemoveSocket); });
  disk.stopWatching();
  cleanup.run(Cleanup::kUnmount);
}

}  // namespace

void addServeCommand(CLI::App& app, std::function<void()>& run) {
  auto options = std::make_shared<ServeOptions>();
  CLI::App* command = app.add_subcommand("serve", "Serve a directory to remote desktops");
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
  command->add_option("--user", options->user,
                      "User that owns the socket and may connect beside root (for a host that root "
                      "runs)");
  command
      ->add_option("--max-clients", options->maxClients,
                   "How many clients may be connected at once")
      ->check(CLI::Range(std::size_t{1}, kMaxClients))
      ->capture_default_str();
  command->add_option("--name", options->name,
                      "Name announced to clients (default: the directory's own)");
  command->add_flag("--read-only", options->readOnly, "Refuse every change");
  command->add_option("--module", options->module, "The driver module to load");
  command
      ->add_option("--sandbox", options->sandbox,
                   "Give up the rights that serving does not need: auto (as much as the kernel "
                   "has), required (all, or nothing is served), off")
      ->check(CLI::IsMember({"auto", "required", "off"}))
      ->capture_default_str();
  command->add_option("--log-level", options->logLevel, "Lowest level of the lines on stderr")
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
