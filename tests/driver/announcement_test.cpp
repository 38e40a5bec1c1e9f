// From the device's parameters to the mount point and the announcement.
#include "disk_fixture.h"
#include "service/udisk_service.h"

namespace zor::test {
namespace {

class AnnouncementTest : public DiskTest {
 protected:
  UDiskService service{&device, &op};
};

TEST_F(AnnouncementTest, ParametersAreUsedOnlyWhenTheyAreGoodAndComplete) {
  // N stands for 100,000 brackets, L for 300 letters (of which 255 count, C) and H for 200.
  const std::map<char, std::string> longTexts = {{'N', std::string(100000, '[')},
                                                 {'L', std::string(300, 'l')},
                                                 {'C', std::string(255, 'l')},
                                                 {'H', std::string(200, 'h')}};
  for (const auto& row : table(R"(
    {"letter":"/x","label":"y","name":"gr\u00fc\u00df","readOnly":1} | /xy | grüß | 01;
    {"letter":"/x","label":"y","name":7,"readOnly":511}    | /xy | 7 | ff;
    {"letter":"/x","label":"y","name":"n","readOnly":true} | /xy | n | 01;
    {"letter":"/x","label":"y","readOnly":1}               | | | 00;
    {"letter":1,"label":"y","name":"n","readOnly":1}       | | | 00 | cannot be used;
    {"letter":"/x","label":null,"name":"n"}                | | | 00 | cannot be used;
    {"letter":"/x","label":"y","name":["n"]}               | | | 00 | cannot be used;
    {"letter":"/x","label":"y","name":"n","readOnly":"1"}  | /xy | n | 00 | cannot be used;
    {"letter":"/x","label":"y","name":"n","readOnly":1e99} | /xy | n | 00 | cannot be used;
    [1]                                                    | | | 00 | cannot be used;
    N                                                      | | | 00 | cannot be used;
    {"letter":"/x",                                        | | | 00 | Failed to parse JSON errors;
                                                           | | | 00 | Failed to parse JSON errors;
    {"letter":"L","label":"","name":"L"}                   | C | C | 00;
    {"letter":"H","label":"H","name":"n"}                  | | n | 00 | mount point is longer;)")) {
    const auto cell = [&](std::size_t at) {
      std::string text;
      for (const char c : row[at]) text += longTexts.count(c) ? longTexts.at(c) : std::string(1, c);
      return text;
    };
    const std::string name = cell(2), error = row.size() > 4 ? row[4] : "";
    log.clear();
    device.params = cell(0);
    device.forgetSent();
    UDiskService fresh(&device, &op);
    UDiskService::ServiceThread(&fresh);
    EXPECT_EQ(op.GetLocalMountPoint(), cell(1)) << row[0];
    ASSERT_EQ(device.sent().size(), 2U);
    EXPECT_EQ(hexOf(device.sent()[0]), hexTyped("27097a00 0a1a0000 10000000 00000000"));
    EXPECT_EQ(device.sent()[1], wire("27096400 d2040000") + le(20 + name.size(), 4) + le(0, 4) +
                                    le(name.size(), 2) + name + '\0' + wire(row[3]))
        << row[0];
    EXPECT_EQ(log.errors(), error.empty() ? 0U : 1U) << row[0];
    EXPECT_EQ(log.errors(error), log.errors()) << row[0];
  }
}

TEST_F(AnnouncementTest, NamesOfAnyLengthAreAnnouncedWholeAndReadOnlyHoldsFromThenOn) {
  service.UpdateReadOnly(2);
  for (const std::size_t length : {0U, 111U, 112U, 255U, 1000U}) {
    std::string name(length, 'n');
    device.forgetSent();
    EXPECT_EQ(service.MountRemote(name.data(), &device), 0);
    name = name.substr(0, 255);
    EXPECT_EQ(device.sent().at(0).substr(16), le(name.size(), 2) + name + '\0' + '\2');
  }
  converse("117 0600 0000 '/spare' | 0600 ffff '/spare';");
  service.UpdateReadOnly(0);
  converse("117 0600 0000 '/spare' | =;");
}

TEST_F(AnnouncementTest, WithoutItsDeviceNothingIsSent) {
  char name[] = "USB";
  RecordingDevice other;
  EXPECT_EQ(service.MountRemote(name, &other), -1);
  device.hasBase = false;
  EXPECT_EQ(service.MountRemote(name, &device), -1);
  UDiskService::ServiceThread(&service);
  EXPECT_EQ(log.errors("getDevBase error  usb device. "), 1U);
  EXPECT_EQ(log.errors("getDevBase error usb device."), 1U);
  device.hasBase = true;
  service.StopLoop();
  UDiskService::ServiceThread(&service);  // the stop came first
  EXPECT_EQ(log.errors("new service thread error, status: 2"), 1U);
  EXPECT_EQ(device.sent().size() + other.sent().size() + device.traces().size(), 0U);
}

}  // namespace
}  // namespace zor::test
