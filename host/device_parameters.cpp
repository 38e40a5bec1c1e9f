#include "host/device_parameters.h"

#include <json/json.h>

#include <cstddef>
#include <stdexcept>

#include "support/printable.h"

namespace zor::host {
namespace {

// The module holds every text of its parameters, and the mount point that is
// made of two of them, in this many bytes.
constexpr std::size_t kMaxText = 255;

void requireFit(const char* what, const std::string& text) {
  if (text.size() > kMaxText) {
    throw std::runtime_error(std::string(what) + " is longer than " + std::to_string(kMaxText) +
                             " bytes: " + printable(text));
  }
}

}  // namespace

DeviceParameters makeParameters(const std::string& directory, const std::string& name,
                                bool readOnly) {
  requireFit("the directory's path", directory);
  requireFit("the name", name);
  const std::size_t labelStart = directory.rfind('/') + 1;
  DeviceParameters parameters;
  parameters.letter = directory.substr(0, labelStart);
  parameters.label = directory.substr(labelStart);
  parameters.name = !name.empty() ? name : parameters.label;
  if (parameters.name.empty()) parameters.name = directory;
  parameters.readOnly = readOnly;
  return parameters;
}

std::string toJson(const DeviceParameters& parameters) {
  Json::Value root(Json::objectValue);
  root["letter"] = parameters.letter;
  root["label"] = parameters.label;
  root["name"] = parameters.name;
  root["readOnly"] = parameters.readOnly ? 1 : 0;
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, root);
}

}  // namespace zor::host
