// What the module is told about the directory that it serves.
#pragma once

#include <string>

namespace zor::host {

struct DeviceParameters {
  std::string letter;  ///< the parent directory, with its trailing slash
  std::string label;   ///< the last component; letter + label is the directory
  std::string name;    ///< the name announced to the client
  bool readOnly = false;
};

/// The parameters for serving `directory` (absolute, canonical) under `name`,
/// or under the directory's own name when `name` is empty. Throws
/// std::runtime_error when one of them is longer than the module can take.
DeviceParameters makeParameters(const std::string& directory, const std::string& name,
                                bool readOnly);

/// The JSON text of a device's parameters. Names that are not UTF-8 keep their
/// bytes.
std::string toJson(const DeviceParameters& parameters);

}  // namespace zor::host
