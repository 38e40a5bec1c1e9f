#include "zor_dev_base.h"

#include <fnmatch.h>

#include <utility>

namespace zor {

void ZorPathTable::Add(std::string pattern) {
  mEntries.push_back(std::make_shared<ZorPathEntry>(ZorPathEntry{std::move(pattern)}));
}

std::shared_ptr<ZorPathEntry> ZorPathTable::Lookup(const std::string& path) const {
  for (const auto& entry : mEntries) {
    if (::fnmatch(entry->pattern.c_str(), path.c_str(), 0) == 0) return entry;
  }
  return nullptr;
}

ZorDevBase::~ZorDevBase() = default;

}  // namespace zor
