// Silly renames: a file that is removed while it is open goes on under a name that nobody
// sees, until the last close.
#include <array>
#include <cstdio>
#include <utility>

#include "drive/drive.h"

namespace zor::client {

namespace {

constexpr std::string_view kSillyPrefix = ".udisk-removed-";

}  // namespace

std::string Drive::sillyName() {
  std::array<char, 17> digits{};
  std::snprintf(digits.data(), digits.size(), "%016llx",
                static_cast<unsigned long long>(++mSillyNames));
  return std::string(kSillyPrefix) + digits.data();
}

Outcome<Unit> Drive::sillyRename(NodeId directory, const std::string& name) {
  const std::string silly = sillyName();
  const Outcome<Unit> renamed = renameLocked(directory, name, directory, silly);
  if (!renamed) return renamed;
  mNames.markSilly(directory, silly);
  // It may have been closed meanwhile.
  if (isUnusedSilly(directory, silly)) return removeName(directory, silly, false);
  return Unit{};
}

bool Drive::isUnusedSilly(NodeId directory, const std::string& silly) {
  const Entry* entry = mNames.findSilly(directory, silly);
  return entry != nullptr &&
         (entry->node == nullptr || !entry->node->open || entry->node->open->handles == 0);
}

Outcome<Unit> Drive::restoreName(const Rename& rename, const Unfinished& one) {
  const Outcome<Unit> back = renameHeld(rename, one.directory, one.silly, one.directory, one.name);
  Entry* entry = back ? mNames.findEntry(one.directory, one.name) : nullptr;
  if (entry != nullptr) {
    entry->silly = false;
    mNames.find(one.directory)->directory->snapshot = nullptr;
  }
  return back;
}

/// After the last close.
void Drive::removeSilly(NodeId directory, const std::string& silly) {
  if (removeName(directory, silly, false)) return;
  // Seen again, so that its directory can still be emptied and removed.
  if (Entry* entry = mNames.findEntry(directory, silly); entry != nullptr) {
    entry->silly = false;
    mNames.find(directory)->directory->snapshot = nullptr;
  }
  report("a removed file could not be cleaned up; it is called '" + silly + "' on the disk");
}

}  // namespace zor::client
