#include <future>
#include <stdexcept>

#include "connection.h"
#include "disk.h"
#include "side.h"
#include "udisk_host.h"

namespace zor::bench {

namespace {

using remote::Result;

template <class T>
T need(Result<T> result) {
  if (!result) throw std::runtime_error("the library: " + result.error().message);
  return std::move(*result);
}

/// Keeps items in flight: each completion begins the next one, on the
/// library's thread.
class Pump {
 public:
  Pump(remote::Link& link, unsigned slots, const Until& until)
      : mLink(link), mSlots(slots), mUntil(until) {}

  /// `begin(item, pump)` starts an operation whose callback calls
  /// `pump.finish(check)` with a function that looks at the outcome and may throw.
  template <class Begin>
  std::uint64_t run(const Begin& begin) {
    mBegin = [this, &begin] { begin(mBegun++, *this); };
    mLink.post([this] {
      const unsigned slots = mSlots;
      while (mActive < slots && (mBegun == 0 || !mUntil.over(mBegun))) {
        ++mActive;
        mBegin();
      }
    });
    mDone->get_future().get();
    return mBegun;
  }

  template <class Check>
  void finish(Check check) {
    try {
      check();
    } catch (...) {
      if (!mFailure) mFailure = std::current_exception();
    }
    if (!mFailure && !mUntil.over(mBegun)) return mBegin();
    if (--mActive > 0) return;
    // This object may be gone before the call has returned.
    const std::shared_ptr<std::promise<void>> done = mDone;
    if (mFailure) {
      done->set_exception(mFailure);
    } else {
      done->set_value();
    }
  }

 private:
  remote::Link& mLink;
  const unsigned mSlots;
  const Until& mUntil;
  std::function<void()> mBegin;
  std::uint64_t mBegun = 0;
  unsigned mActive = 0;
  std::exception_ptr mFailure;
  std::shared_ptr<std::promise<void>> mDone = std::make_shared<std::promise<void>>();
};

class LibrarySide final : public Side {
 public:
  LibrarySide(const Programs& programs, const Tree& tree)
      : mHost(startHost(programs.host, tree, "library")), mData(kMiB) {
    connectHost(*mHost, tree, "library");  // once, to wait for it
    connect(tree);
    for (unsigned i = 0; i < kFiles; ++i) mFiles.push_back("/" + Tree::fileName(i));
    fillContents(mData, writtenSeed(), 0);
  }

  std::string_view name() const override { return "library"; }
  const Server* server() const override { return mHost.get(); }
  std::uint64_t writtenSeed() const override { return 4'000'000; }

  double run(const WorkTraits& work, const Until& until, bool checked) override {
    switch (work.work) {
      case Work::kAttributes:
        return pump(work, until, [&](std::uint64_t item, Pump& pump) {
          disk().attributes(mFiles[item % kFiles], [&](auto result) {
            pump.finish([&] {
              expect(need(std::move(result)).st_size == kFileSize, "the size of a file");
            });
          });
        });
      case Work::kWholeFile:
        return pump(work, until, [&](std::uint64_t item, Pump& pump) {
          readPiece(mFiles[item % kFiles], item % kFiles, 0, kFileSize, checked, pump);
        });
      case Work::kFileBatch:
        return fileBatch(work, until.scaled(kBatchFiles), checked) * kBatchFiles;
      case Work::kRead:
        return mebibytes(work.size) * pump(work, until, [&](std::uint64_t item, Pump& pump) {
                 readPiece("/" + std::string(Tree::kBigName), Tree::kBigSeed,
                           item * work.size % kBigSize, work.size, checked, pump);
               });
      case Work::kWrite:
        return mebibytes(work.size) * pump(work, until, [&](std::uint64_t item, Pump& pump) {
                 const auto offset = static_cast<std::int64_t>(item * work.size % kBigSize);
                 disk().write(written(), offset,
                              remote::Buffer(wire::Bytes(mData).first(work.size)),
                              [&](auto result) { pump.finish([&] { need(std::move(result)); }); });
               });
      case Work::kWriteChunks:
        return writeChunks(work, until.scaled(kBatchChunks));
      case Work::kListing:
        return pump(work, until, [&](std::uint64_t, Pump& pump) {
          disk().list("/" + std::string(Tree::kFilesName), [&](auto result) {
            pump.finish([&] {
              expect(need(std::move(result)).entries().size() == kFiles + 2,
                     "the number of entries");
            });
          });
        });
      case Work::kUnchanged:
        return unchanged(work, until);
    }
    return 0;
  }

 private:
  void connect(const Tree& tree) {
    // The host may still be busy with the end of the first connection.
    for (int attempt = 0; attempt < 400 && !mConnection; ++attempt) {
      auto opened = remote::Connection::open({hostSocket(tree, "library"), {}, 0});
      if (opened) mConnection = std::move(*opened);
    }
    if (!mConnection) throw std::runtime_error("the library cannot reach the host");
  }

  remote::Disk disk() const { return remote::Disk(mConnection->link()); }
  static std::string written() { return "/" + std::string(Tree::kWrittenName); }
  static double mebibytes(std::uint64_t size) {
    return static_cast<double>(size) / static_cast<double>(kMiB);
  }

  template <class Begin>
  double pump(const WorkTraits& work, const Until& until, const Begin& begin) {
    return static_cast<double>(Pump(mConnection->link(), work.inFlight, until).run(begin));
  }

  void readPiece(const std::string& path, std::uint64_t seed, std::uint64_t offset,
                 std::uint32_t size, bool checked, Pump& pump) const {
    disk().read(path, static_cast<std::int64_t>(offset), size,
                [=, &pump](Result<remote::FileData> result) {
                  pump.finish([&] {
                    const remote::FileData data = need(std::move(result));
                    expect(data.bytes().size() == size, "the size of what was read");
                    if (checked) expectContents(data.bytes(), seed, offset, size);
                  });
                });
  }

  double fileBatch(const WorkTraits& work, const Until& until, bool checked) {
    return pump(work, until, [&](std::uint64_t item, Pump& pump) {
      const std::uint64_t first = item % kBatches * kBatchFiles;
      std::vector<remote::FilePiece> files;
      for (std::uint64_t i = first; i < first + kBatchFiles; ++i) {
        files.push_back({mFiles[i], 0, kFileSize});
      }
      disk().readSmallFiles(files, [&pump, first, checked](Result<remote::FilePieces> result) {
        pump.finish([&] {
          const remote::FilePieces got = need(std::move(result));
          std::uint64_t number = first;
          for (const wire::Bytes piece : got.pieces) {
            expect(piece.size() == kFileSize, "the size of a file of a batch");
            if (checked) expectContents(piece, number++, 0, kFileSize);
          }
        });
      });
    });
  }

  double writeChunks(const WorkTraits& work, const Until& until) {
    const double batches = pump(work, until, [&](std::uint64_t item, Pump& pump) {
      std::vector<remote::WritePiece> pieces;
      for (std::uint64_t i = item * kBatchChunks; i < (item + 1) * kBatchChunks; ++i) {
        pieces.push_back({static_cast<std::int64_t>(i % kChunks * kChunkDistance),
                          wire::Bytes(mData).first(kChunkSize)});
      }
      disk().writeBatch(written(), pieces,
                        [&](auto result) { pump.finish([&] { need(std::move(result)); }); });
    });
    return batches * mebibytes(kBatchChunks * kChunkSize);
  }

  double unchanged(const WorkTraits& work, const Until& until) {
    const std::string path = "/" + std::string(Tree::kManyName);
    const remote::Listing known = need(disk().list(path));
    return pump(work, until, [&](std::uint64_t, Pump& pump) {
      disk().checkDir(path, known, [&](auto result) {
        pump.finish([&] { expect(!need(std::move(result)).changed, "the outcome of a check"); });
      });
    });
  }

  std::unique_ptr<Server> mHost;
  std::unique_ptr<remote::Connection> mConnection;
  std::vector<std::byte> mData;
  std::vector<std::string> mFiles;
};

}  // namespace

std::unique_ptr<Side> makeLibrarySide(const Programs& programs, const Tree& tree) {
  return std::make_unique<LibrarySide>(programs, tree);
}

}  // namespace zor::bench
