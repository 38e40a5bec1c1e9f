// A drive whose requests a test watches.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "client/durable_link.h"
#include "drive/drive.h"
#include "support/served_disk.h"
#include "watched_transport.h"

namespace zor::client::test {

/// A drive over a real link to a real host, whose requests can be seen, held and failed.
class WatchedDrive : public ::testing::Test {
 protected:
  void connect(DriveOptions options = {.attributeTimeout = std::chrono::seconds(60)}) {
    mDrive.reset();
    mLink.reset();
    DurableLinkOptions link;
    link.connection.socketPath = mDisk.socket();
    mLink = std::move(*DurableLink::open(std::move(link)));
    mRequests.emplace(*mLink);
    mDrive.emplace(*mRequests, std::move(options));
  }
  ~WatchedDrive() override {
    mDrive.reset();
    mLink.reset();
  }
  NodeId node(const std::string& name, NodeId directory = kRootNode) {
    return mDrive->lookup(directory, name)->node;
  }
  OpenFile& create(const std::string& name, std::uint32_t mode = 0644) {
    return *mDrive->create(kRootNode, name, mode, O_CREAT | O_RDWR)->open.file;
  }
  /// 0 or an errno, as those below.
  int open(const std::string& name, int flags, OpenFile** file = nullptr) {
    const auto opened = mDrive->open(node(name), flags);
    if (!opened) return opened.error().value;
    if (file != nullptr) {
      *file = opened->file;
    } else {
      mDrive->release(*opened->file);
    }
    return 0;
  }
  int write(OpenFile& file, std::int64_t offset, const std::string& text) {
    const auto written = mDrive->write(file, offset, std::as_bytes(std::span(text)));
    return written ? 0 : written.error().value;
  }
  int flush(OpenFile& file) {
    const auto flushed = mDrive->flush(file);
    return flushed ? 0 : flushed.error().value;
  }

  zor::test::ServedDisk mDisk;
  std::unique_ptr<DurableLink> mLink;
  std::optional<WatchedTransport> mRequests;
  std::optional<Drive> mDrive;
};

}  // namespace zor::client::test
