// Fetching files and trees with many requests in flight.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/local_tree.h"
#include "cli/scanned_directory.h"
#include "cli/transfer_run.h"

namespace zor::client::cli {

struct DownloadOptions {
  bool recursive = false;
  bool keepExisting = false;  ///< leave files alone that are there already
  bool ask = false;           ///< whether to replace them
  bool batches = false;       ///< fetch small files together where the host serves that
};

class Download final : public TransferRun {
 public:
  Download(CommandContext& context, DownloadOptions options);

  /// Fetches `path`, whose attributes are known, as `name` in `dir`.
  void add(std::string path, const udisk_stat& attributes, std::shared_ptr<LocalDir> dir,
           std::string name);

  /// Whether anything is to be fetched.
  bool hasWork() const noexcept {
    return mProgress.missing() > 0 || !mDirectories.empty() || !mUnknown.empty();
  }

  /// Fetches what a directory holds into `dir`.
  void addContents(std::string path, std::shared_ptr<LocalDir> dir);

 private:
  struct Source {
    std::string path;  ///< empty while it waits in a listed directory
    udisk_stat attributes{};
    std::shared_ptr<LocalDir> dir;
    std::string name;
    std::shared_ptr<ScannedDirectory> above;  ///< that directory
    bool mustBeNew = false;                   ///< nothing may be replaced by it

    /// Fills in `path`: its turn has come.
    const std::string& resolve();
  };

  /// A directory that is to be listed.
  struct Directory {
    Source source;                    ///< what to make for it, or only its path
    std::shared_ptr<LocalDir> local;  ///< null until it is made
    bool postponed = false;           ///< too much was waiting when it was listed first
  };

  /// A file on its way.
  struct Transfer {
    Source source;
    std::uint64_t asked = 0;   ///< how far requests have been made
    std::uint64_t stored = 0;  ///< bytes that have arrived
    unsigned reads = 0;        ///< requests made
    unsigned inFlight = 0;
    unsigned attempts = 1;
    bool suspicious = false;  ///< the answers do not fit the known size
    std::optional<Error> error;
    std::unique_ptr<PartialFile> file;  ///< made with the first answer

    std::uint64_t size() const { return static_cast<std::uint64_t>(source.attributes.st_size); }
    bool fullyAsked() const { return reads > 0 && asked >= size(); }
  };
  using TransferPtr = std::shared_ptr<Transfer>;

  static constexpr std::int64_t kSmallFile = std::int64_t{128} << 10;
  static constexpr std::uint64_t kBatchBytes = std::uint64_t{2} << 20;
  static constexpr std::size_t kBatchFiles = 256;

  // download.cpp
  bool makeRequest() override;
  bool read();
  bool batchReady() const;
  void classify(Source source);
  bool mayReplace(Source& source);
  bool list();
  void listed(Directory directory, const Result<Listing>& listing);
  bool examine();

  // download_files.cpp
  static TransferPtr begin(std::deque<Source>& queue);
  static std::uint32_t nextSize(const Transfer& transfer);
  void askNext(const TransferPtr& transfer, std::uint32_t size);
  void ask(const TransferPtr& transfer, std::uint64_t offset, std::uint32_t size);
  void askBatch();
  void arrived(const TransferPtr& transfer, std::uint64_t offset, std::uint32_t size,
               Result<wire::Bytes> bytes);
  void store(const TransferPtr& transfer, std::uint64_t offset, std::uint32_t size,
             wire::Bytes bytes);
  void finish(const TransferPtr& transfer);
  void verify(const TransferPtr& transfer, const Result<udisk_stat>& now);
  void commit(Transfer& transfer);
  void giveUp(Transfer& transfer, const Error& error);

  const DownloadOptions mOptions;
  unsigned mListings = 0;  ///< requests in flight whose answers may bring more files
  std::vector<Directory> mDirectories;
  std::vector<Directory> mPostponed;  ///< to be listed when nothing else is waiting
  std::vector<Source> mUnknown;       ///< their attributes are to be asked for
  std::deque<Source> mFiles;
  std::deque<Source> mSmallFiles;   ///< those that are fetched in batches
  std::vector<TransferPtr> mAgain;  ///< changed while they were read
  TransferPtr mCurrent;             ///< the file whose requests are being made
};

}  // namespace zor::client::cli
