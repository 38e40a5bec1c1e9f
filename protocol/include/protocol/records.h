// The fixed part of every command's payload, in both directions. The strings
// and data that follow it are named by the record's length fields.
//
// `kStrings` lists the length fields of the strings behind the fixed part, in
// the order in which the strings stand there.
#pragma once

#include <cstdint>
#include <tuple>

#include "protocol/codec.h"
#include "protocol/commands.h"

namespace zor::wire {

/// 100 and 101, request and reply: the mount name follows.
struct MountRemoteRequest {
  std::uint16_t nameLength;
  static constexpr auto kFields = std::tuple(&MountRemoteRequest::nameLength);
  static constexpr auto kStrings = std::tuple(&MountRemoteRequest::nameLength);
};
static_assert(wireSize<MountRemoteRequest>() == 2);

/// 200: the drive and then the label follow, although the label's length comes first.
struct MountResponseRecord {
  std::uint16_t labelLength;
  std::uint16_t driveLength;
  static constexpr auto kFields =
      std::tuple(&MountResponseRecord::labelLength, &MountResponseRecord::driveLength);
  static constexpr auto kStrings =
      std::tuple(&MountResponseRecord::driveLength, &MountResponseRecord::labelLength);
};
static_assert(wireSize<MountResponseRecord>() == 4);

/// 102: the path follows; in the reply also the attributes, when attrLength says so.
struct FileAttrRecord {
  std::uint16_t pathLength;
  std::uint16_t attrLength;
  static constexpr auto kFields =
      std::tuple(&FileAttrRecord::pathLength, &FileAttrRecord::attrLength);
  static constexpr auto kStrings = std::tuple(&FileAttrRecord::pathLength);
};
static_assert(wireSize<FileAttrRecord>() == 4);

/// 103: the path follows.
struct FileCreateRecord {
  std::uint32_t pathLength;
  std::uint32_t flags;
  std::uint32_t mode;
  std::int32_t fd;  ///< reply: not negative when the file was created
  static constexpr auto kFields =
      std::tuple(&FileCreateRecord::pathLength, &FileCreateRecord::flags, &FileCreateRecord::mode,
                 &FileCreateRecord::fd);
  static constexpr auto kStrings = std::tuple(&FileCreateRecord::pathLength);
};
static_assert(wireSize<FileCreateRecord>() == 16);

/// 105, and each file of 123: the path follows; in the reply also `size` bytes.
struct FileReadRecord {
  std::int64_t offset;
  std::uint32_t reserved0;
  std::uint32_t size;  ///< request: bytes wanted; reply: bytes that follow
  std::uint32_t pathLength;
  std::uint32_t reserved1;
  static constexpr auto kFields =
      std::tuple(&FileReadRecord::offset, &FileReadRecord::reserved0, &FileReadRecord::size,
                 &FileReadRecord::pathLength, &FileReadRecord::reserved1);
  static constexpr auto kStrings = std::tuple(&FileReadRecord::pathLength);
};
static_assert(wireSize<FileReadRecord>() == 24);

/// 106: the path and then the data follow. A `fuse_length` of 0 means that the
/// data is a sequence of chunks.
struct FileWriteRecord {
  std::int64_t offset;
  std::int32_t file_buf_length;  ///< reply: unchanged on success, 0 on failure
  std::uint32_t reserved;
  std::uint32_t fuse_length;
  std::uint16_t pathLength;
  std::uint8_t replyMark;  ///< a reply is sent only when it equals replyMatch
  std::uint8_t replyMatch;
  static constexpr auto kFields = std::tuple(
      &FileWriteRecord::offset, &FileWriteRecord::file_buf_length, &FileWriteRecord::reserved,
      &FileWriteRecord::fuse_length, &FileWriteRecord::pathLength, &FileWriteRecord::replyMark,
      &FileWriteRecord::replyMatch);
  static constexpr auto kStrings = std::tuple(&FileWriteRecord::pathLength);
};
static_assert(wireSize<FileWriteRecord>() == 24);

/// A unit of a batch write: `length` bytes follow.
struct WriteChunk {
  std::int64_t offset;
  std::uint32_t length;
  static constexpr auto kFields = std::tuple(&WriteChunk::offset, &WriteChunk::length);
};
static_assert(wireSize<WriteChunk>() == 12);

/// 107 and 121: the path follows, then the listing (in the reply the current one, or
/// in a 121 request the cached one).
struct DirRecord {
  std::uint64_t opaque;  ///< returned as received
  std::uint32_t listingLength;
  std::uint16_t pathLength;
  std::uint16_t entryCount;  ///< low 16 bits of the count
  static constexpr auto kFields = std::tuple(&DirRecord::opaque, &DirRecord::listingLength,
                                             &DirRecord::pathLength, &DirRecord::entryCount);
  static constexpr auto kStrings = std::tuple(&DirRecord::pathLength);
};
static_assert(wireSize<DirRecord>() == 16);

/// 108: the path and the attribute name follow; in the reply only the name.
struct XattrRecord {
  std::uint64_t valueSize;
  std::int32_t valueLength;
  std::uint16_t pathLength;
  std::uint16_t nameLength;
  static constexpr auto kFields = std::tuple(&XattrRecord::valueSize, &XattrRecord::valueLength,
                                             &XattrRecord::pathLength, &XattrRecord::nameLength);
  static constexpr auto kStrings = std::tuple(&XattrRecord::pathLength, &XattrRecord::nameLength);
};
static_assert(wireSize<XattrRecord>() == 16);

/// 109: the path follows.
struct TruncateRecord {
  std::uint64_t length;
  std::uint32_t pathLength;
  std::int32_t result;
  static constexpr auto kFields =
      std::tuple(&TruncateRecord::length, &TruncateRecord::pathLength, &TruncateRecord::result);
  static constexpr auto kStrings = std::tuple(&TruncateRecord::pathLength);
};
static_assert(wireSize<TruncateRecord>() == 16);

/// 110: the path follows.
struct FsyncRecord {
  std::uint32_t pathLength;
  std::uint32_t opaque;  ///< returned as received
  std::int32_t result;
  static constexpr auto kFields =
      std::tuple(&FsyncRecord::pathLength, &FsyncRecord::opaque, &FsyncRecord::result);
  static constexpr auto kStrings = std::tuple(&FsyncRecord::pathLength);
};
static_assert(wireSize<FsyncRecord>() == 12);

/// 111: the path follows.
struct ChmodRecord {
  std::int32_t result;
  std::uint16_t pathLength;
  std::uint16_t mode;
  static constexpr auto kFields =
      std::tuple(&ChmodRecord::result, &ChmodRecord::pathLength, &ChmodRecord::mode);
  static constexpr auto kStrings = std::tuple(&ChmodRecord::pathLength);
};
static_assert(wireSize<ChmodRecord>() == 8);

/// 112: the path follows.
struct ChownRecord {
  std::uint32_t pathLength;
  std::uint32_t uid;
  std::uint32_t gid;
  std::int32_t result;
  static constexpr auto kFields = std::tuple(&ChownRecord::pathLength, &ChownRecord::uid,
                                             &ChownRecord::gid, &ChownRecord::result);
  static constexpr auto kStrings = std::tuple(&ChownRecord::pathLength);
};
static_assert(wireSize<ChownRecord>() == 16);

/// 113: the path follows; in the reply also zero or more `udisk_statvfs`.
struct StatvfsRecord {
  std::uint32_t pathLength;
  std::uint32_t recordLength;
  static constexpr auto kFields =
      std::tuple(&StatvfsRecord::pathLength, &StatvfsRecord::recordLength);
  static constexpr auto kStrings = std::tuple(&StatvfsRecord::pathLength);
};
static_assert(wireSize<StatvfsRecord>() == 8);

/// 114: the path follows.
struct MakeDirRecord {
  std::int32_t result;
  std::uint16_t pathLength;
  std::int16_t mode;
  static constexpr auto kFields =
      std::tuple(&MakeDirRecord::result, &MakeDirRecord::pathLength, &MakeDirRecord::mode);
  static constexpr auto kStrings = std::tuple(&MakeDirRecord::pathLength);
};
static_assert(wireSize<MakeDirRecord>() == 8);

/// 115 and 117: the path follows.
struct RemoveRecord {
  std::uint16_t pathLength;
  std::int16_t result;
  static constexpr auto kFields = std::tuple(&RemoveRecord::pathLength, &RemoveRecord::result);
  static constexpr auto kStrings = std::tuple(&RemoveRecord::pathLength);
};
static_assert(wireSize<RemoveRecord>() == 4);

/// 116 and 118: the existing path and the new one follow.
struct TwoPathRecord {
  std::int32_t result;
  std::uint16_t firstLength;
  std::uint16_t secondLength;
  static constexpr auto kFields =
      std::tuple(&TwoPathRecord::result, &TwoPathRecord::firstLength, &TwoPathRecord::secondLength);
  static constexpr auto kStrings =
      std::tuple(&TwoPathRecord::firstLength, &TwoPathRecord::secondLength);
};
static_assert(wireSize<TwoPathRecord>() == 8);

/// 119 and 120: the path follows. The reply is a copy of the request.
struct HandleRecord {
  std::uint32_t pathLength;
  std::int32_t fd;
  static constexpr auto kFields = std::tuple(&HandleRecord::pathLength, &HandleRecord::fd);
  static constexpr auto kStrings = std::tuple(&HandleRecord::pathLength);
};
static_assert(wireSize<HandleRecord>() == 8);

/// 123: `num_records` times a FileReadRecord with its name follow (in the
/// reply also with its data).
struct SmallFileRecord {
  std::uint32_t num_records;
  static constexpr auto kFields = std::tuple(&SmallFileRecord::num_records);
};
static_assert(wireSize<SmallFileRecord>() == 4);

/// 122, sent by the disk with `kSmallFileNoticeRequestId`: a header alone.
struct SmallFileTurboNotice {
  static constexpr Command kCommand = Command::kSmallFileNotice;
  static constexpr auto kFields = std::tuple<>();
};
static_assert(wireSize<SmallFileTurboNotice>() == 0);

/// The announcement's length field: the name, a zero byte and the read-only
/// byte follow.
struct MountAnnouncement {
  std::uint16_t nameLength;  ///< without the zero byte
  static constexpr auto kFields = std::tuple(&MountAnnouncement::nameLength);
};
static_assert(wireSize<MountAnnouncement>() == 2);

}  // namespace zor::wire
