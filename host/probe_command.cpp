#include "host/probe_command.h"

#include <json/json.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include "host/local_disk.h"
#include "support/printable.h"

namespace zor::host {
namespace {

void printText(const RemovableDisk& disk) {
  std::printf("%s: removable, interface class %d%s\n", disk.name.c_str(), disk.interfaceClass,
              disk.interfaceClass == 8 ? " (mass storage)" : "");
  if (disk.partitions.empty()) std::puts("  no partition with a label or a UUID");
  for (const Partition& part : disk.partitions) {
    std::printf("  %-12s %-8s %s\n", printable(part.device).c_str(), printable(part.type).c_str(),
                printable(part.label).c_str());
  }
}

void printJson(const RemovableDisk& disk) {
  Json::Value root;
  root["disk"] = disk.name;
  root["interfaceClass"] = disk.interfaceClass;
  root["partitions"] = Json::arrayValue;
  for (const Partition& part : disk.partitions) {
    Json::Value entry;
    entry["device"] = part.device;
    entry["label"] = part.label;
    entry["type"] = part.type;
    root["partitions"].append(entry);
  }
  std::puts(Json::writeString(Json::StreamWriterBuilder(), root).c_str());
}

void probe(bool json) {
  const RemovableDisk disk = findRemovableDisk();
  if (disk.name.empty()) throw std::runtime_error("no removable disk is plugged in");
  json ? printJson(disk) : printText(disk);
}

}  // namespace

void addProbeCommand(CLI::App& app, std::function<void()>& run) {
  CLI::App* command =
      app.add_subcommand("probe", "Show the removable disk and its labelled partitions");
  const auto json = std::make_shared<bool>(false);
  command->add_flag("--json", *json, "Print JSON");
  command->callback([json, &run] { run = [json] { probe(*json); }; });
}

}  // namespace zor::host
