#include "drive/paths/path_gate.h"

#include <cassert>

#include "client/remote_path.h"

namespace zor::client {

namespace {

thread_local int leasesHere = 0;

}  // namespace

void PathGate::assertNoLeaseHere() { assert(leasesHere == 0); }

PathLease::~PathLease() {
  if (mGate != nullptr) mGate->returned();
}

std::optional<std::string> PathGate::pathOf(NodeId id) const {
  const Node* node = mNames.find(id);
  return node == nullptr ? std::nullopt : mNames.path(*node);
}

std::optional<PathLease> PathGate::counted(std::optional<std::string> path) {
  if (!path) return std::nullopt;
  const MutexLock lock(mLeaseMutex);
  ++mLeases;
  ++leasesHere;
  return PathLease(this, std::move(*path));
}

void PathGate::returned() {
  --leasesHere;
  const MutexLock lock(mLeaseMutex);
  if (--mLeases == 0) mReturned.notifyAll();
}

std::optional<PathLease> PathGate::lease(NodeId node) {
  waitUntilOpen();
  return counted(pathOf(node));
}

std::optional<PathLease> PathGate::lease(NodeId directory, std::string_view name) {
  waitUntilOpen();
  std::optional<std::string> path = pathOf(directory);
  if (path) path = joinPath(*path, name);
  return counted(std::move(path));
}

void PathGate::waitUntilOpen() {
  mMutex.assertHeld();
  while (!mOpen) {
    assertNoLeaseHere();
    mOpened.wait(mMutex);
  }
}

void PathGate::whenOpen(std::function<void()> task) {
  if (mOpen) {
    task();
  } else {
    mTasks.push_back(std::move(task));
  }
}

PathGate::Rename::Rename(PathGate& gate) : mGate(gate) {
  assertNoLeaseHere();
  gate.waitUntilOpen();
  gate.mOpen = false;
  gate.mMutex.assertHeld();
  gate.mMutex.unlock();
  {
    const MutexLock lock(gate.mLeaseMutex);
    while (gate.mLeases > 0) gate.mReturned.wait(gate.mLeaseMutex);
  }
  gate.mMutex.lock();
}

PathGate::Rename::~Rename() {
  mGate.mOpen = true;
  for (const auto& task : std::exchange(mGate.mTasks, {})) task();
  mGate.mOpened.notifyAll();
}

std::optional<PathLease> PathGate::Rename::lease(NodeId node) const {
  std::optional<std::string> path = mGate.pathOf(node);
  if (!path) return std::nullopt;
  return PathLease(nullptr, std::move(*path));
}

std::optional<PathLease> PathGate::Rename::lease(NodeId directory, std::string_view name) const {
  const std::optional<std::string> path = mGate.pathOf(directory);
  if (!path) return std::nullopt;
  return PathLease(nullptr, joinPath(*path, name));
}

}  // namespace zor::client
