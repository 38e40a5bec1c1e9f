#include "disk_probe.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "command.h"
#include "morvel_log.h"

namespace zor {
namespace {

constexpr std::size_t kMaxPartitions = 255;

// The number at the start of a program's output, of which three characters count.
int numberFrom(const std::vector<std::string>& command) {
  const CommandResult result = runCommand(command);
  return std::atoi(
      result.output.substr(0, std::min<std::size_t>(result.output.find('\n'), 3)).c_str());
}

// Cuts at a whole UTF-8 character.
template <std::size_t N>
void assignField(char (&field)[N], std::string_view text) {
  std::size_t length = std::min(text.size(), N - 1);
  if (length < text.size()) {
    const auto continues = [](char byte) {
      return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
    };
    std::size_t cut = length;
    while (cut > 0 && continues(text[cut])) --cut;
    if (length - cut < 4) length = cut;  // otherwise it is no UTF-8 at all
  }
  std::memset(field, 0, N);
  std::memcpy(field, text.data(), length);
}

// Sets a field to the first quoted part of a piece such as LABEL="USB". What the
// piece does not write over stays.
template <std::size_t N>
void assignQuoted(char (&field)[N], std::string piece) {
  std::string value(field);
  value.resize(std::max(piece.size(), N) + 1);
  DiskProbe::GetString(piece.data(), value.data());
  assignField(field, value.c_str());
}

bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

// False when the line describes no partition with a name.
bool parsePartition(const std::string& line, UDiskInfo& info) {
  const std::size_t colon = line.find(':');
  if (colon == std::string::npos) return false;
  info = {};
  assignField(info.devPath, std::string_view(line).substr(0, colon));
  std::istringstream pieces(line.substr(colon + 1));
  for (std::string piece; std::getline(pieces, piece, ' ');) {
    if (contains(piece, "LABEL=")) {
      assignQuoted(info.label, piece);
    } else if (contains(piece, "UUID=")) {
      if (info.label[0] == '\0') assignQuoted(info.label, piece);
    } else if (contains(piece, "TYPE=")) {
      assignQuoted(info.fsType, piece);
      break;
    }
  }
  return info.label[0] != '\0';
}

}  // namespace

int DiskProbe::GetString(char* src, char* dst) {
  const char* at = std::strchr(src, '"');
  if (at == nullptr) return 0;
  int count = 0;
  for (++at; *at != '\0'; ++at, ++count) {
    if (*at == '"') {
      dst[count] = '\0';
      break;
    }
    dst[count] = *at;
  }
  return count;
}

int DiskProbe::GetDeviceClass(char* port) {
  return numberFrom({"cat", "/sys/bus/usb/devices/" + std::string(port) + ":1.0/bInterfaceClass"});
}

int DiskProbe::CheckRemovable(char* disk) {
  return numberFrom({"cat", "/sys/block/" + std::string(disk) + "/removable"});
}

int DiskProbe::GetDevName(char* out) {
  std::istringstream lines(runCommand({"cat", "/proc/partitions"}).output);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t blank = line.rfind(' ');
    if (!contains(line, "sd") || blank == std::string::npos || line.size() - blank <= 3) continue;
    std::memcpy(out, line.data() + blank + 1, 3);
    if (CheckRemovable(out) == 1) break;
  }
  return 0;
}

int DiskProbe::GetDeviceLabel(const char* dev, UdiskDevice* out) {
  const std::string name = dev;
  if (name.size() < 4) return -1;
  const std::string key = name.substr(name.size() - 4, 3);
  const CommandResult listing = runCommand({"blkid"});
  if (!listing.started) {
    MORVEL_ERROR("excute blkid failed\n");
    return -1;
  }
  std::vector<UDiskInfo> found;
  std::istringstream lines(listing.output);
  for (std::string line; std::getline(lines, line);) {
    MORVEL_DEBUG(kLogDebug, "dev:%s, resultStr:%s", key.c_str(), line.c_str());
    UDiskInfo info{};
    if (!contains(line, key.c_str()) || !contains(line, "TYPE=")) continue;
    if (!parsePartition(line, info)) continue;
    if (found.size() == kMaxPartitions) {
      MORVEL_ERROR("partition left out, only %d fit: %s", static_cast<int>(kMaxPartitions),
                   info.devPath);
      continue;
    }
    found.push_back(info);
  }
  if (found.empty()) return 0;
  auto* parts = static_cast<UDiskInfo*>(std::malloc(found.size() * sizeof(UDiskInfo)));
  if (parts == nullptr) return -1;
  std::memcpy(parts, found.data(), found.size() * sizeof(UDiskInfo));
  out->partCount = static_cast<std::uint8_t>(found.size());
  out->parts = parts;
  return 0;
}

}  // namespace zor
