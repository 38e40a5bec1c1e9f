// cat
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <deque>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "command.h"
#include "text.h"

namespace zor::remote::cli {

namespace {

constexpr std::uint32_t kStreamPiece = 1U << 20;
constexpr std::size_t kInFlight = 8;

/// One file on its way to standard output, pieces in order.
class Stream : public std::enable_shared_from_this<Stream> {
 public:
  /// `size` is nothing when only the end of the data tells it.
  Stream(Context& context, std::string path, std::optional<std::int64_t> size)
      : mContext(context), mPath(std::move(path)), mSize(size) {}

  Result<std::int64_t> run() {
    for (;;) {
      while (!mEnded && mPieces.size() < kInFlight && mAsked < end()) {
        const auto size =
            static_cast<std::uint32_t>(std::min<std::int64_t>(kStreamPiece, end() - mAsked));
        mPieces.push_back(std::make_shared<Piece>(Piece{mAsked, size, std::nullopt}));
        mAsked += size;
        ask(mPieces.back());
      }
      if (mPieces.empty() || mEnded) break;
      mContext.loop.runOne();
      while (!mPieces.empty() && mPieces.front()->data && !mEnded) {
        if (auto error = drain()) return *error;
      }
    }
    if (mSize && mWritten < *mSize) {
      return Error{ErrorKind::kFailed, "it ended after " + std::to_string(mWritten) + " of " +
                                           counted(static_cast<std::uint64_t>(*mSize), "byte") +
                                           ", or the host cannot read it"};
    }
    return mWritten;
  }

 private:
  struct Piece {
    std::int64_t offset;
    std::uint32_t size;
    std::optional<Result<FileData>> data;
  };

  std::int64_t end() const {
    return mSize.value_or(std::numeric_limits<std::int64_t>::max() - kStreamPiece);
  }

  void ask(const std::shared_ptr<Piece>& piece) {
    // Pieces may still come when the stream is over: it is kept as long.
    mContext.disk.read(
        mPath, piece->offset, piece->size,
        onLoop<FileData>(mContext.loop, [self = shared_from_this(), piece](Result<FileData> data) {
          piece->data = std::move(data);
        }));
  }

  /// Writes the first piece, which has come.
  std::optional<Error> drain() {
    Piece& piece = *mPieces.front();
    if (!*piece.data) return piece.data->error();
    const wire::Bytes bytes = (*piece.data)->bytes();
    mContext.out.write({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    mWritten += static_cast<std::int64_t>(bytes.size());
    if (bytes.empty()) {
      mEnded = true;
    } else if (bytes.size() < piece.size) {
      // The rest may be there all the same.
      piece.offset += static_cast<std::int64_t>(bytes.size());
      piece.size -= static_cast<std::uint32_t>(bytes.size());
      piece.data.reset();
      ask(mPieces.front());
    } else {
      mPieces.pop_front();
    }
    return std::nullopt;
  }

  Context& mContext;
  const std::string mPath;
  const std::optional<std::int64_t> mSize;
  std::deque<std::shared_ptr<Piece>> mPieces;
  std::int64_t mAsked = 0;
  std::int64_t mWritten = 0;
  bool mEnded = false;
};

bool runCat(Context& context, const std::vector<std::string>& paths) {
  bool ok = true;
  for (const std::string& typed : paths) {
    const std::string path = normalPath(typed);
    Result<udisk_stat> found = context.disk.attributes(path);
    if (found && S_ISDIR(found->st_mode)) {
      found = Error{ErrorKind::kFailed, "it is a directory"};
    } else if (found && !S_ISREG(found->st_mode) && !S_ISLNK(found->st_mode)) {
      found = Error{ErrorKind::kFailed,
                    "a " + std::string(typeName(found->st_mode)) + " cannot be carried"};
    }
    if (!found) {
      ok = report(context, "show", path, found.error());
      if (isFatal(found.error())) return false;
      continue;
    }
    const bool isLink = S_ISLNK(found->st_mode);
    std::optional<std::int64_t> size;
    if (!isLink) size = found->st_size;
    Result<std::int64_t> shown = std::make_shared<Stream>(context, path, size)->run();
    if (shown && isLink && *shown == 0) {
      shown = Error{ErrorKind::kFailed,
                    "nothing came through the symbolic link: it points to nothing, to an empty "
                    "file, or out of the disk"};
    }
    if (!shown) {
      ok = report(context, "show", path, shown.error());
      if (isFatal(shown.error())) return false;
    }
  }
  return ok;
}

}  // namespace

void addCat(CLI::App& app, Command& chosen) {
  auto paths = std::make_shared<std::vector<std::string>>();
  CLI::App* command = app.add_subcommand("cat", "Writes files to standard output");
  command->add_option("PATH", *paths, "what to show; symbolic links are followed")->required();
  command->callback([paths, &chosen] {
    chosen.run = [paths](Context& context) { return runCat(context, *paths); };
  });
}

}  // namespace zor::remote::cli
