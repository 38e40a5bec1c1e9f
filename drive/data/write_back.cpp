#include "drive/data/write_back.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "drive/data/identity.h"

namespace zor::client {

namespace {

/// What a program wrote goes out after this time at the latest.
constexpr std::chrono::milliseconds kMaxBuffered{500};

/// Of data that was written and is not acknowledged, over all files.
constexpr std::size_t kMaxInFlight = std::size_t{16} << 20;

bool isBelow(const Node* node, const Node& above) {
  while (node != nullptr && node != &above) node = node->parent;
  return node != nullptr;
}

}  // namespace

FileState& WriteBack::open(Node& node) {
  if (!node.open) node.open = std::make_unique<FileState>();
  return *stateOf(node);
}

void WriteBack::dropIdle(Node& node) {
  const FileState* file = stateOf(node);
  if (file == nullptr || file->handles > 0 || file->waiters > 0 || file->isUnacknowledged()) return;
  node.open = nullptr;
  mHost.names.releaseIfUnused(&node);
}

void WriteBack::waitForRoom(NodeId id, std::int64_t offset, std::size_t size) {
  const FileState& file = *stateOf(*mHost.names.find(id));
  while (!file.buffer.accepts(offset, size, mWindow.chunkSize())) waitToSend(id);
}

bool WriteBack::add(Node& node, std::int64_t offset, wire::Bytes data) {
  FileState& file = *stateOf(node);
  const bool first = file.buffer.empty();
  file.buffer.add(offset, data);
  const std::int64_t end = offset + static_cast<std::int64_t>(data.size());
  file.end = std::max(file.dirty ? file.end : 0, end);
  file.dirty = file.needsSync = true;
  ++file.writes;
  file.lastWrite = wallClock();
  if (first) {
    file.buffered = mHost.names.now();
    identify(mHost, node);  // the reply is there before the data goes, unless that is soon
  }
  if (node.place == nullptr) return file.buffer.size() >= mWindow.chunkSize();
  node.entry().stale = true;
  node.parent->directory->snapshot = nullptr;
  const bool linked = node.entry().attributes.st_nlink > 1;
  if (linked) mHost.names.invalidateLinks();
  // Another name of the file shows the data only when the host has it.
  const bool now = linked || file.buffer.size() >= mWindow.chunkSize();
  if (first && !now) mWork.notifyOne();
  return now;
}

void WriteBack::waitToSend(NodeId id) {
  Node& node = *mHost.names.find(id);
  const FileState& file = *stateOf(node);
  for (;;) {
    mHost.gate.waitUntilOpen();
    if (file.buffer.empty()) return;
    if (mBytesInFlight == 0 || mBytesInFlight + file.buffer.size() <= kMaxInFlight) {
      const auto ticket = mWindow.tryBegin(static_cast<std::uint32_t>(file.buffer.size()));
      if (ticket) return send(node, *ticket, nullptr);
    }
    mHost.mutex.assertHeld();
    mRoom.wait(mHost.mutex);
  }
}

void WriteBack::send(Node& node, const PathGate::Rename* rename) {
  const std::size_t size = stateOf(node)->buffer.size();
  if (size > 0) send(node, mWindow.begin(static_cast<std::uint32_t>(size)), rename);
}

void WriteBack::send(Node& node, const ReadWindow::Ticket& ticket, const PathGate::Rename* rename) {
  FileState& file = *stateOf(node);
  identify(mHost, node);
  if (node.place == nullptr || node.entry().attributes.st_nlink > 1) mHost.names.invalidateLinks();
  const std::size_t size = file.buffer.size();
  const std::uint64_t end = file.buffer.end();
  CompoundRequest request(mHost, rename);
  const PathLease* at = request.at(node.id);
  file.inFlight.add();
  mBytesInFlight += size;
  auto done = [this, path = at != nullptr ? at->path() : file.lostPath, id = node.id, size, end,
               ticket](const Status& status) {
    mWindow.finished(ticket, status ? size : 0);
    mBytesInFlight -= size;
    Node& written = *mHost.names.find(id);
    if (!status) {
      FileState& state = *stateOf(written);
      state.failedBytes = std::max<std::uint64_t>(state.failedBytes, size);
      state.failedEnd = std::max(state.failedEnd, end);
      failed(written, path);
    }
    acknowledged(written);
  };
  if (at != nullptr) {
    file.buffer.submit(mHost.disk, *at, withMutex<Unit>(mHost, std::move(done)));
  } else {
    file.buffer.clear();
    mHost.disk.failLater(withMutex<Unit>(mHost, std::move(done)));
  }
  mRoom.notifyAll();
}

/// One of the requests that a close waits for is done.
void WriteBack::acknowledged(Node& node) {
  stateOf(node)->inFlight.arrived();
  mRoom.notifyAll();
  dropIdle(node);
}

void WriteBack::failed(Node& node, const std::string& path) {
  FileState& file = *stateOf(node);
  ++file.failures;
  mLosses.add(file.lostPath.empty() ? path : file.lostPath);
  mWork.notifyOne();
}

Clock::time_point WriteBack::sendDue(Clock::time_point now) {
  Clock::time_point next = Clock::time_point::max();
  if (!mHost.gate.isOpen()) return now + kMaxBuffered;
  mHost.names.forEachOpen([&](Node& node) {
    const FileState& file = *stateOf(node);
    if (file.buffer.empty()) return;
    const Clock::time_point due = file.buffered + kMaxBuffered;
    if (due <= now) {
      send(node);
    } else {
      next = std::min(next, due);
    }
  });
  return next;
}

Outcome<Unit> WriteBack::flush(NodeId id, bool sync) {
  Node* node = mHost.names.find(id);
  if (node == nullptr) return Errno{ESTALE};
  if (!node->open) return Unit{};
  FileState& file = *stateOf(*node);
  if (!file.dirty && !file.needsSync && !file.isUnacknowledged()) return Unit{};
  const Pin pin(*this, *node);
  mHost.gate.waitUntilOpen();
  send(*node);
  const std::uint64_t writes = file.writes;
  const std::uint64_t failures = file.failures;
  CompoundRequest request(mHost);
  const PathLease* at = request.at(id);
  if (sync && at != nullptr && file.needsSync) {
    file.needsSync = false;
    file.inFlight.add();
    request.add<Unit>([&](auto done) { mHost.disk.fsync(*at, std::move(done)); },
                      [this, path = at->path(), id](const Status& status) {
                        Node& synced = *mHost.names.find(id);
                        if (!status) failed(synced, path);
                        acknowledged(synced);
                      });
  }
  if (at != nullptr && file.dirty) request.queryFile(node->parent->id, node->name());
  request.wait();
  mHost.mutex.assertHeld();
  file.inFlight.wait(mHost.mutex);
  // Without a reply the attributes are stale, and the next reader asks; unless another
  // write has come, whose writer will.
  if (file.dirty && file.writes == writes) {
    file.dirty = false;
    if (node->place != nullptr) node->entry().stale = true;
  }
  if (node->place == nullptr && file.failures == failures) {
    // What was written since the file was last identified may have gone into another one.
    file.needsSync = false;
    failed(*node, file.lostPath);
  }
  return Unit{};
}

void WriteBack::create(Node& node, std::uint32_t mode) {
  FileState& file = open(node);
  const NodeId directory = node.parent->id;
  file.dirty = true;
  file.lastWrite = wallClock();
  file.inFlight.add();
  file.creation.add();
  ++file.waiters;  // it stays until its attributes come
  ++node.parent->directory->creating;
  CompoundRequest request(mHost);
  const PathLease* at = request.at(node.id);
  request.add<Unit>([&](auto done) { mHost.disk.create(*at, mode, std::move(done)); },
                    [this, path = at->path(), id = node.id, directory](const Status& status) {
                      Node& created = *mHost.names.find(id);
                      if (created.place != nullptr) created.entry().pending = false;
                      if (status) {
                        if (Node* parent = mHost.names.find(directory)) {
                          parent->directory->lastCreation = mHost.names.now();
                        }
                      } else {
                        created.open->creationFailed = true;
                        failed(created, path);
                      }
                      acknowledged(created);
                    });
  request.queryFile(directory, node.name());
  const PathLease* parent = request.at(directory);
  request.add<udisk_stat>([&](auto done) { mHost.disk.attributes(*parent, std::move(done)); },
                          [this, id = node.id, directory](const Result<udisk_stat>& result) {
                            mHost.names.learnSelf(directory, result);
                            Node& created = *mHost.names.find(id);
                            stateOf(created)->creation.arrived();
                            --stateOf(created)->waiters;
                            dropIdle(created);
                            if (Node* above = mHost.names.find(directory); above != nullptr) {
                              --above->directory->creating;
                              above->directory->snapshot = nullptr;
                            }
                          });
}

void WriteBack::waitForCreation(Node& node) {
  const Pin pin(*this, node);
  mHost.mutex.assertHeld();
  stateOf(node)->creation.wait(mHost.mutex);
}

void WriteBack::drainBelow(const PathGate::Rename& rename, Node& top) {
  std::vector<NodeId> below;
  mHost.names.forEachOpen([&](Node& node) {
    if (!isBelow(&node, top)) return;
    send(node, &rename);
    below.push_back(node.id);
  });
  for (const NodeId id : below) {
    Node* node = mHost.names.find(id);
    if (node == nullptr || !node->open) continue;
    const Pin pin(*this, *node);
    mHost.mutex.assertHeld();
    stateOf(*node)->inFlight.wait(mHost.mutex);
  }
}

WriteBack::AppendTurn::AppendTurn(WriteBack& writeBack) : mWriteBack(writeBack) {
  Mutex& mutex = writeBack.mHost.mutex;
  mutex.assertHeld();
  while (writeBack.mAppending) writeBack.mAppended.wait(mutex);
  writeBack.mAppending = true;
}

WriteBack::AppendTurn::~AppendTurn() {
  mWriteBack.mAppending = false;
  mWriteBack.mAppended.notifyOne();
}

}  // namespace zor::client
