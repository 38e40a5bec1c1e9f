// The start-up work of a redirected disk, on a thread of its own, and the probed disk.
#include <json/json.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <sstream>
#include <stdexcept>

#include "morvel_log.h"
#include "operator/udisk_operator.h"
#include "udisk_service.h"

namespace zor {
namespace {

enum LoopState : std::int32_t { kNeverStarted = 0, kStarted = 1, kStopRequested = 2 };

constexpr char kThread[] = "ServiceThread";  // in the log: whose work its parts do

void copyCut(char (&to)[256], const char* from) noexcept {
  std::memset(to, 0, sizeof to);
  std::memcpy(to, from, std::min(std::strlen(from), sizeof to - 1));
}

}  // namespace

UDiskService::UDiskService(ZorDevice* device, UDiskOperator* op)
    : mDevice(device), mOperator(op), mAnnouncer(device, op) {}

int UDiskService::StartLoop() {
  MORVEL_DEBUG(kLogDebug, "Udisk service StartLoop\n");
  mThread = g_thread_try_new("udisk_service_thread", ServiceThread, this, nullptr);
  if (mThread == nullptr) return -1;
  // A stop that came first stays a stop.
  std::int32_t expected = kNeverStarted;
  mLoopState.compare_exchange_strong(expected, kStarted);
  return 0;
}

int UDiskService::StopLoop() {
  MORVEL_DEBUG(kLogDebug, "client udisk StopLoop\n");
  mLoopState = kStopRequested;
  if (mThread != nullptr) {
    g_thread_join(mThread);
    mThread = nullptr;
  }
  return 0;
}

void* UDiskService::ServiceThread(void* service) noexcept {
  MORVEL_DEBUG(kLogDebug, "client udisk service Start ..........\n");
  auto* self = static_cast<UDiskService*>(service);
  if (const std::int32_t state = self->mLoopState; state == kStopRequested) {
    MORVEL_ERROR("new service thread error, status: %d\n", state);
    return nullptr;
  }
  MORVEL_DEBUG(kLogDebug, "client udisk service x86 \n");
  try {
    self->announceDisk();
  } catch (const std::exception& error) {
    MORVEL_ERROR("the disk could not be announced: %s", error.what());
  }
  return nullptr;
}

void UDiskService::announceDisk() {
  const std::shared_ptr<ZorDevBase> base = mDevice->GetDevBase();
  if (!base) {
    MORVEL_ERROR_OF(kThread, "getDevBase error usb device.");
    return;
  }
  const std::string text = base->GetParams();
  MORVEL_DEBUG_OF(kThread, kLogDebug, "bus=%d,addr=%d, params:%s", base->bus, base->addr,
                  text.c_str());
  MORVEL_DEBUG_OF(kThread, kLogDebug, "udisk soft client");
  char params[256] = {};
  char name[256] = {};
  char letter[256] = {};
  char label[256] = {};
  copyCut(params, text.c_str());
  try {
    readParameters(text, name, letter, label);
  } catch (const std::exception& error) {
    MORVEL_ERROR_OF(kThread, "device parameters cannot be used: %s", error.what());
  }
  MORVEL_DEBUG_OF(kThread, kLogDebug, "path: %s, lable: %s", params, label);
  mOperator->SetRootPath(letter, label);
  mAnnouncer.SetReadSmallFileTrubo();
  mAnnouncer.MountRemote(name, mDevice);
}

// Throws for a value of the wrong type and for absurd nesting. The texts are
// written only when all three are good, the flag only when it is.
void UDiskService::readParameters(const std::string& text, char (&name)[256], char (&letter)[256],
                                  char (&label)[256]) {
  std::istringstream stream(text);
  Json::Value root;
  std::string errors;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &root, &errors)) {
    MORVEL_ERROR_OF(kThread, "Failed to parse JSON errors: %s", errors.c_str());
    return;
  }
  if (!root.isObject()) throw std::invalid_argument("not a JSON object");
  if (!root.isMember("letter") || !root.isMember("label") || !root.isMember("name")) return;
  const std::string nameText = root["name"].asString();
  const char* letterText = root["letter"].asCString();
  const char* labelText = root["label"].asCString();
  copyCut(name, nameText.c_str());
  copyCut(letter, letterText);
  copyCut(label, labelText);
  if (root.isMember("readOnly")) {
    mAnnouncer.UpdateReadOnly(static_cast<unsigned char>(root["readOnly"].asInt() & 0xff));
  }
}

int UDiskService::UmountLocal() {
  if (mUdiskDevice == nullptr) return -1;
  for (std::size_t i = 0; i < mUdiskDevice->partCount; ++i) {
    mMounter.unmount(mUdiskDevice->parts[i]);
  }
  TakeDisk(nullptr);
  mOperator->SetRootPath(nullptr, nullptr);
  return 0;
}

void UDiskService::TakeDisk(UdiskDevice* disk) {
  if (mUdiskDevice != nullptr) std::free(mUdiskDevice->parts);
  delete mUdiskDevice;
  mUdiskDevice = disk;
}

void GetUdiskInfo(void* pThis, ZorDevice* device, UDiskOperator* op) {
  if (pThis == nullptr || device == nullptr || op == nullptr) {
    MORVEL_ERROR("pThis or device or operator is NULL");
  }
}

}  // namespace zor
