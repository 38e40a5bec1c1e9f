#include "cli/stream.h"

#include <algorithm>
#include <deque>
#include <limits>
#include <memory>
#include <utility>

#include "cli/format.h"

namespace zor::client::cli {

namespace {

constexpr std::uint32_t kStreamPiece = 1U << 20;
constexpr std::size_t kInFlight = 8;

/// One file on its way to an output, pieces in order.
class Stream : public std::enable_shared_from_this<Stream> {
 public:
  /// `size` is nothing when it is known only from the end of the data.
  Stream(CommandContext& context, Output& out, std::string path, std::optional<std::int64_t> size)
      : mContext(context), mOut(out), mPath(std::move(path)), mSize(size) {}

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
    mOut.write({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
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

  CommandContext& mContext;
  Output& mOut;
  const std::string mPath;
  const std::optional<std::int64_t> mSize;
  std::deque<std::shared_ptr<Piece>> mPieces;
  std::int64_t mAsked = 0;
  std::int64_t mWritten = 0;
  bool mEnded = false;
};

}  // namespace

Result<std::int64_t> streamFile(CommandContext& context, Output& out, std::string path,
                                std::optional<std::int64_t> size) {
  return std::make_shared<Stream>(context, out, std::move(path), size)->run();
}

}  // namespace zor::client::cli
