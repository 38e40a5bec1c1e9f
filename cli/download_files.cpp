// How one file is fetched: requests, answers, and whether they fit together.
#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "cli/download.h"
#include "client/exchange.h"

namespace zor::client::cli {

namespace {

constexpr std::uint64_t kDownloadPiece = std::uint64_t{1} << 20;
constexpr unsigned kMaxAttempts = 3;

}  // namespace

Download::TransferPtr Download::begin(std::deque<Source>& queue) {
  auto transfer = std::make_shared<Transfer>();
  transfer->source = std::move(queue.front());
  queue.pop_front();
  transfer->source.resolve();
  return transfer;
}

/// The last request asks for one byte more than there should be: a file that
/// has grown shows itself.
std::uint32_t Download::nextSize(const Transfer& transfer) {
  const std::uint64_t left = transfer.size() - transfer.asked;
  return static_cast<std::uint32_t>(left <= kDownloadPiece ? left + 1 : kDownloadPiece);
}

void Download::askNext(const TransferPtr& transfer, std::uint32_t size) {
  const std::uint64_t offset = transfer->asked;
  transfer->asked = std::min(transfer->size(), offset + size);
  ask(transfer, offset, size);
}

void Download::ask(const TransferPtr& transfer, std::uint64_t offset, std::uint32_t size) {
  ++transfer->inFlight;
  ++transfer->reads;
  mContext.disk.read(transfer->source.path, static_cast<std::int64_t>(offset), size,
                     entered<FileData>(size, [this, transfer, offset, size](Result<FileData> data) {
                       if (data) {
                         arrived(transfer, offset, size, data->bytes());
                       } else {
                         arrived(transfer, offset, size, std::move(data.error()));
                       }
                     }));
}

void Download::askBatch() {
  std::vector<TransferPtr> batch;
  std::vector<FilePiece> pieces;
  std::uint64_t cost = 0;
  while (!mSmallFiles.empty() && batch.size() < kBatchFiles) {
    Source& source = mSmallFiles.front();
    const auto size = static_cast<std::uint32_t>(source.attributes.st_size + 1);
    FilePiece piece{source.resolve(), 0, size};
    if (!batch.empty() && cost + batchCost(piece) > kBatchBytes) break;
    cost += batchCost(piece);
    pieces.push_back(std::move(piece));
    batch.push_back(begin(mSmallFiles));
    TransferPtr& transfer = batch.back();
    transfer->asked = transfer->size();
    transfer->reads = transfer->inFlight = 1;
  }
  mContext.disk.readSmallFiles(
      pieces,
      entered<FilePieces>(cost, [this, batch = std::move(batch)](Result<FilePieces> answer) {
        for (std::size_t i = 0; i < batch.size(); ++i) {
          const auto size = static_cast<std::uint32_t>(batch[i]->size() + 1);
          if (answer) {
            arrived(batch[i], 0, size, answer->pieces[i]);
          } else {
            arrived(batch[i], 0, size, answer.error());
          }
        }
      }));
}

void Download::arrived(const TransferPtr& transfer, std::uint64_t offset, std::uint32_t size,
                       Result<wire::Bytes> bytes) {
  --transfer->inFlight;
  if (transfer->error) {
    // Given up already; this answer was still on its way.
  } else if (!bytes) {
    transfer->error = std::move(bytes.error());
  } else {
    store(transfer, offset, size, *bytes);
  }
  if (transfer->suspicious || transfer->error) transfer->asked = transfer->size();
  if (transfer->inFlight == 0 && transfer->fullyAsked()) finish(transfer);
}

void Download::store(const TransferPtr& transfer, std::uint64_t offset, std::uint32_t size,
                     wire::Bytes bytes) {
  const std::uint64_t expected = std::min<std::uint64_t>(size, transfer->size() - offset);
  if (bytes.size() > expected) {
    transfer->suspicious = true;
    bytes = bytes.first(static_cast<std::size_t>(expected));
  }
  if (!transfer->file) {
    auto file = PartialFile::create(transfer->source.dir, transfer->source.name,
                                    transfer->source.mustBeNew);
    if (!file) {
      transfer->error = std::move(file.error());
      return;
    }
    transfer->file = std::move(*file);
  }
  if (bytes.empty()) {
    if (expected > 0) transfer->suspicious = true;
    return;
  }
  Status status = transfer->file->writeAt(static_cast<std::int64_t>(offset), bytes);
  if (!status) {
    transfer->error = std::move(status.error());
    return;
  }
  transfer->stored += bytes.size();
  mProgress.moved(bytes.size());
  if (bytes.size() < expected) {
    ask(transfer, offset + bytes.size(), size - static_cast<std::uint32_t>(bytes.size()));
  }
}

/// All answers are in.
void Download::finish(const TransferPtr& transfer) {
  if (transfer->error) return giveUp(*transfer, *transfer->error);
  // One answer is one moment of the file; several need not be of the same.
  if (!transfer->suspicious && transfer->reads == 1) return commit(*transfer);
  mContext.disk.attributes(transfer->source.path,
                           entered<udisk_stat>(0, [this, transfer](const Result<udisk_stat>& now) {
                             verify(transfer, now);
                           }));
}

void Download::verify(const TransferPtr& transfer, const Result<udisk_stat>& now) {
  if (!now) {
    return giveUp(*transfer, isFatal(now.error())
                                 ? now.error()
                                 : exchange::failed("it vanished while it was being read"));
  }
  const udisk_stat& before = transfer->source.attributes;
  const bool same = now->st_size == before.st_size && now->st_mtim == before.st_mtim &&
                    now->st_mode == before.st_mode;
  if (same && !transfer->suspicious) return commit(*transfer);
  if (same) return giveUp(*transfer, exchange::failed("the host cannot read it"));
  if (!S_ISREG(now->st_mode) || now->st_size < 0 || transfer->attempts == kMaxAttempts) {
    return giveUp(*transfer, exchange::failed("it kept changing while it was being read"));
  }
  mProgress.undone(transfer->stored);
  auto again = std::make_shared<Transfer>();
  again->source = std::move(transfer->source);
  again->source.attributes = *now;
  again->attempts = transfer->attempts + 1;
  transfer->file.reset();
  mAgain.push_back(std::move(again));
}

void Download::commit(Transfer& transfer) {
  Status status = transfer.file->commit(transfer.source.attributes);
  if (!status) return giveUp(transfer, status.error());
  transfer.file.reset();
  mProgress.finished();
}

void Download::giveUp(Transfer& transfer, const Error& error) {
  mProgress.undone(transfer.stored);
  transfer.file.reset();
  fail("fetch", transfer.source.path, error);
}

}  // namespace zor::client::cli
