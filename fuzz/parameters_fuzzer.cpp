// The text of device parameters: as a framework may hand it over, and as the
// host makes it out of a directory and a name.
#include "driver/disk_fixture.h"
#include "host/device_parameters.h"
#include "input.h"
#include "service/udisk_service.h"

namespace zor::fuzz {

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static test::LogLines log;
  log.clear();
  Input input{view(data, size)};
  const std::uint8_t mode = input.byte();
  const bool foreign = mode < 128, readOnly = mode % 2 != 0;
  const std::string directory = "/" + std::string(foreign ? "" : input.text().substr(0, 254));
  test::RecordingDevice device;
  host::DeviceParameters made;
  if (!foreign) made = host::makeParameters(directory, std::string(input.take(255)), readOnly);
  device.params = foreign ? std::string(input.take(size)) : toJson(made);
  UDiskOperator op(&device);
  UDiskService service(&device, &op);
  UDiskService::ServiceThread(&service);

  const std::string announced = device.sent().at(1).substr(kPacketHeaderSize);
  EXPECT_LE(announced.size(), 2U + 255 + 2);
  const std::string name = announced.substr(2, announced.size() - 4);
  EXPECT_EQ(announced.substr(0, announced.size() - 1), test::le(name.size(), 2) + name + '\0');
  if (foreign) return 0;
  EXPECT_EQ(name, made.name.substr(0, made.name.find('\0')));
  EXPECT_EQ(op.GetLocalMountPoint(), directory);
  EXPECT_EQ(announced.back() != 0, readOnly);
  return 0;
}

}  // namespace zor::fuzz
