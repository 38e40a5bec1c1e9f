#include "serve_command.h"

#include <spdlog/spdlog.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "device_parameters.h"
#include "host_device.h"
#include "module_loader.h"
#include "morvel_log.h"
#include "server.h"
#include "text.h"

namespace zor::host {
namespace {

constexpr char kModuleName[] = "udisk-redir";

struct ServeOptions {
  std::string directory;
  std::string socketPath;
  std::string name;
  std::string module;
  std::string logLevel = "info";
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

  const std::string directory = servedDirectory(options.directory);
  const DeviceParameters parameters = makeParameters(directory, options.name, options.readOnly);
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
  const auto base = std::make_shared<HostDevBase>(toJson(parameters), paths, trace);
  runServer(module, base, options.socketPath, directory);
}

}  // namespace

void addServeCommand(CLI::App& app, std::function<void()>& run) {
  auto options = std::make_shared<ServeOptions>();
  CLI::App* command = app.add_subcommand("serve", "Serve a directory to a remote");
  std::vector<std::string> levels;
  for (const auto& level : logLevels()) levels.push_back(level.first);

  command->add_option("directory", options->directory, "The directory to serve")->required();
  command->add_option("--socket", options->socketPath, "Path of the Unix socket to listen on")
      ->required();
  command->add_option("--name", options->name,
                      "Name announced to the remote (default: the directory's own)");
  command->add_flag("--read-only", options->readOnly, "Refuse every change");
  command->add_option("--module", options->module, "The driver module to load");
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
