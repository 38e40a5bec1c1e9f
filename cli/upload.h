// Sending files and trees with many requests in flight.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/local_tree.h"
#include "cli/transfer_run.h"
#include "support/unique_fd.h"

namespace zor::client::cli {

/// Each file goes to a temporary name beside its own, which it gets when it is complete.
class Upload final : public TransferRun {
 public:
  Upload(CommandContext& context, bool recursive)
      : TransferRun(context, "sent"), mRecursive(recursive) {}

  /// Sends what the user named, a link's target for a link, as `remotePath`.
  void add(const std::string& localPath, std::string remotePath);

 private:
  struct Mode {
    std::string path;
    std::uint32_t mode;
  };
  using Modes = std::vector<Mode>;

  /// A directory on the disk, whose mode is to be set when the last user is gone.
  struct Directory {
    Directory(Mode own, std::shared_ptr<Modes> due, std::shared_ptr<Directory> above)
        : mode(std::move(own)), modes(std::move(due)), parent(std::move(above)) {}
    ~Directory() { modes->push_back(std::move(mode)); }
    Mode mode;
    std::shared_ptr<Modes> modes;
    std::shared_ptr<Directory> parent;
  };

  struct Source {
    std::string localPath;
    std::string remotePath;
    std::shared_ptr<LocalDir> dir;  ///< where its last component is; null for what the user named
    std::uint32_t mode = 0;
    std::shared_ptr<Directory> parent;
  };

  /// A file on its way.
  struct Transfer {
    Source source;
    UniqueFd file;
    std::string temporary;               ///< its path on the disk until it is complete
    bool made = true;                    ///< something may have that path
    std::optional<udisk_stat> replaced;  ///< what has the source's path
    std::int64_t offset = 0;             ///< how far it has been read
    std::int64_t size = 0;               ///< as it was when it was opened
    unsigned inFlight = 0;
    bool read = false;      ///< to its end
    bool renaming = false;  ///< complete but for its name
    std::optional<Error> error;
  };
  using TransferPtr = std::shared_ptr<Transfer>;

  bool makeRequest() override;
  void conclude() override;
  void classify(Source source, const struct stat& status);
  void makeDirectory();
  void enter(const Source& source);
  void setMode();
  void create();
  bool sendPiece(const TransferPtr& transfer);
  Callback<Unit> step(const TransferPtr& transfer, std::uint64_t cost);
  void advance(const TransferPtr& transfer);
  void commit(const TransferPtr& transfer);
  void abandon(const TransferPtr& transfer);
  void removeTemporary(const TransferPtr& transfer);
  void cleanUp();
  void explainFailure();

  const bool mRecursive;
  std::vector<Source> mDirectories;
  unsigned mEntering = 0;  ///< directories that are being made on the disk
  std::deque<Source> mFiles;
  std::deque<TransferPtr> mWriting;  ///< created, not yet read to their ends
  std::vector<TransferPtr> mOpen;    ///< have a temporary name, as far as is known
  bool mCleaningUp = false;
  bool mRefusedData = false;  ///< the host could not create or write a file
  /// Of directories that are complete. Shared, since requests that are given up
  /// may hold a directory longer than this object lives.
  std::shared_ptr<Modes> mModes = std::make_shared<Modes>();
  std::uint64_t mUnsetModes = 0;
};

}  // namespace zor::client::cli
