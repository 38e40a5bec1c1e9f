// What the system's programs tell of the disks, labels of a hostile disk
// included; and what the mounting programs are told then.
#include "fuzzed_disk.h"
#include "host/local_disk.h"
#include "support/printable.h"
#include "service/command.h"
#include "service/udisk_service.h"

namespace zor {
static std::string gTables[4];  ///< disks, labels, whether removable, interface class

// Takes the place of the function that starts programs.
CommandResult runCommand(const std::vector<std::string>& arguments, const CommandOptions&) {
  const std::string& program = arguments[0];
  if (program == "mount" || program == "umount" || program == "rm") {
    const std::string& place = program == "mount" ? arguments[2] : arguments.back();
    EXPECT_TRUE(place.size() > 7 && place.rfind('/') == 6 && place.substr(0, 7) == "/media/");
    EXPECT_TRUE(place != "/media/." && place != "/media/..");
    EXPECT_TRUE(program != "mount" || arguments[1][0] == '/');  // no option
    return {true, program == "mount" ? 32 : 0, ""};
  }
  const std::string& file = arguments.back();
  if (file == "blkid" || file == "/proc/partitions") return {true, 0, gTables[file == "blkid"]};
  return {true, 0, gTables[file.find("/removable") != file.npos ? 2 : 3]};
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static fuzz::FuzzedDisk disk;
  fuzz::Input input{fuzz::view(data, size)};
  disk.restore();
  for (std::string& table : gTables) table = input.text();
  const host::RemovableDisk found = host::findRemovableDisk();
  for (const host::Partition& part : found.partitions) {
    for (const std::string& text : {part.device, part.label, part.type}) {
      EXPECT_LT(text.size(), 32U);
      for (const char byte : printable(text)) EXPECT_TRUE(byte < 0 || byte >= ' ');
    }
  }
  if (!fuzz::kIsolated) return 0;
  UDiskService service(nullptr, &disk.op);
  auto* probed = new UdiskDevice;
  service.TakeDisk(probed);
  EXPECT_EQ(service.GetDeviceLabel("/dev/sdb1", probed), 0);
  for (std::size_t i = 0; i < probed->partCount; ++i) service.MountLocal(&probed->parts[i]);
  service.UmountLocal();
  disk.checkOutside();
  return 0;
}

}  // namespace zor
