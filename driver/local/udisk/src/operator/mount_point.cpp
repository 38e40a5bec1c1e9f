// Where the disk is: the mount point that every remote path is mapped below.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "morvel_log.h"
#include "request.h"
#include "udisk_operator.h"

namespace zor {
namespace {

// An open mount point keeps the disk from being unmounted and hides that it is
// gone, so neither may last.
constexpr auto kMaxHold = std::chrono::milliseconds(2);

}  // namespace

int UDiskOperator::resetRootPath() {
  const MutexLock lock(mMountMutex);
  std::memset(mMountPoint, 0, sizeof mMountPoint);
  mStatvfsList.clear();
  mMountIdentity.reset();
  ++mMountGeneration;
  return -1;
}

int UDiskOperator::SetRootPath(char* letter, char* label) {
  if (letter == nullptr || label == nullptr) return resetRootPath();
  const std::size_t letterLength = std::strlen(letter);
  const std::size_t labelLength = std::strlen(label);
  if (letterLength >= sizeof mMountPoint || labelLength >= sizeof mMountPoint - letterLength) {
    MORVEL_ERROR("mount point is longer than %d characters: %s%s",
                 static_cast<int>(sizeof mMountPoint) - 1, letter, label);
    return resetRootPath();
  }
  LabelRecord record(
      static_cast<udisk_label_statvfs*>(std::calloc(1, sizeof(udisk_label_statvfs))));
  if (!record) {
    MORVEL_ERROR("no memory for the statistics of %s%s", letter, label);
    return resetRootPath();
  }
  std::memcpy(record->label, label, std::min(labelLength, sizeof record->label));

  std::uint64_t generation = 0;
  {
    const MutexLock lock(mMountMutex);
    std::memset(mMountPoint, 0, sizeof mMountPoint);
    std::memcpy(mMountPoint, letter, letterLength);
    std::memcpy(mMountPoint + letterLength, label, labelLength);
    mMountIdentity.reset();
    generation = ++mMountGeneration;
  }
  const std::string path = std::string(letter) + label;
  MORVEL_DEBUG(kLogDebug, "letter: %s, mMountPoint: %s, label: %s\n", letter, path.c_str(), label);
  MORVEL_DEBUG(kLogDebug, "==============letter:%s\n", path.c_str());
  mFileManager->UdiskGetStatvfs(openMountPoint(), &record->statistics);

  const MutexLock lock(mMountMutex);
  // Set or reset again meanwhile: the record describes what is no longer there.
  if (generation == mMountGeneration) mStatvfsList.push_back(std::move(record));
  return 0;
}

DiskRoot UDiskOperator::openMountPoint() {
  char mountPoint[sizeof mMountPoint];
  std::uint64_t generation = 0;
  {
    const MutexLock lock(mMountMutex);
    std::memcpy(mountPoint, mMountPoint, sizeof mountPoint);
    generation = mMountGeneration;
  }
  DiskRoot root(mountPoint);
  if (root.error() != 0) return root;

  const MutexLock lock(mMountMutex);
  if (generation != mMountGeneration) {
    root.refuse(ENODEV);
    return root;
  }
  if (!mMountIdentity) {
    mMountIdentity = root.identity();
  } else if (mMountIdentity->file != root.identity().file) {
    // A directory may wait for its disk; a disk waits for no other one. A link to
    // some mount was put there by a neighbour.
    if (!mMountIdentity->isMountRoot && root.identity().isMountRoot &&
        root.isReachedWithoutLinks()) {
      mMountIdentity = root.identity();
      mDiskTaken = true;
    } else {
      root.refuse(EIO);
    }
  }
  if (root.error() != 0 && !std::exchange(mGoneReported, true)) {
    // Each client has an operator; the host logs the loss once for all of them.
    MORVEL_DEBUG(kLogDebug, "the disk at %s is gone, another file system shows there", mountPoint);
  } else if (root.error() == 0) {
    mGoneReported = false;
  }
  return root;
}

bool UDiskOperator::diskIsValid() {
  if (std::chrono::steady_clock::now() - mDiskOpened > kMaxHold) return false;
  const MutexLock lock(mMountMutex);
  return mDiskGeneration == mMountGeneration;
}

DiskRoot& UDiskOperator::openDisk(const HandlerCall& request) {
  if (mDisk && !diskIsValid()) closeDisk();
  if (!mDisk) {
    {
      const MutexLock lock(mMountMutex);
      mDiskGeneration = mMountGeneration;
    }
    mDisk.emplace(openMountPoint());
    mDiskOpened = std::chrono::steady_clock::now();
    if (mInBatch) mDisk->expectMore();
    const MutexLock lock(mMountMutex);
    if (std::exchange(mDiskTaken, false)) mDiskChanged = 1;
  }
  if (mDisk->error() == 0 && mReadOnly && request.operation.changesDisk) mDisk->refuse(EROFS);
  return *mDisk;
}

std::string UDiskOperator::GetRemoteMountPoint() {
  std::string drive = GetDrvName();
  MORVEL_DEBUG(kLogDebug, "remote mMountDrive:%s", drive.c_str());
  return drive;
}

std::string UDiskOperator::mountPoint() {
  const MutexLock lock(mMountMutex);
  return mMountPoint;
}

std::string UDiskOperator::GetLocalMountPoint() {
  std::string local = mountPoint();
  MORVEL_DEBUG(kLogDebug, "local mMountDrive:%s", local.c_str());
  return local;
}

}  // namespace zor
