// One request for every command that works on a path, and the reply that says
// that the operation failed. What holds for all of them is tested in loops.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "wire_text.h"

namespace zor::test {

struct Probe {
  enum Kind { kFile, kDirectory, kNew };

  std::string request(const std::string& path) const { return make(path, false); }
  std::string failure(const std::string& path) const { return make(path, true); }
  /// The last component of a path that this command succeeds with.
  std::string leaf() const {
    return kind == kFile ? "inside.txt" : kind == kNew ? "fresh" : "empty";
  }

  int cmd;
  const char* name;
  Kind kind;
  bool followsLink;  ///< a link at the end of the path is followed
  bool changesDisk;
  /// Typed, with P for the path and pN for its length in N bytes. What begins
  /// with ! is ff in a failure's reply, with ? 00, and with + not there at all.
  const char* form;

 private:
  std::string make(const std::string& path, bool failed) const {
    std::istringstream words(form);
    std::string bytes;
    for (std::string word; words >> word;) {
      const std::string piece = wire(word.find_first_of("!?+") == 0 ? word.substr(1) : "");
      const std::string failure(word[0] == '+' ? 0 : piece.size(), word[0] == '!' ? '\xff' : '\0');
      if (word == "P") {
        bytes += path;
      } else if (word[0] == 'p') {
        bytes += le(path.size(), word[1] - '0');
      } else {
        bytes += piece.empty() ? wire(word) : failed ? failure : piece;
      }
    }
    return bytes;
  }
};

// clang-format off
inline constexpr Probe kProbes[] = {
    {102, "get_file_attr", Probe::kFile, false, false, "p2 0000 P"},
    {103, "file_create", Probe::kNew, true, true, "p4 42000000 a4010000 !00000000 P"},
    {105, "file_read", Probe::kFile, true, false,
     "0000000000000000 00000000 ?64000000 p4 00000000 P"},
    {106, "file_write", Probe::kFile, true, true,
     "0000000000000000 ?04000000 00000000 01000000 p2 0000 P +'EVIL'"},
    {107, "dir_read", Probe::kDirectory, true, false, "0700000000000000 00000000 p2 0000 P"},
    {109, "file_truncate", Probe::kFile, true, true, "0300000000000000 p4 !00000000 P"},
    {110, "file_fsync", Probe::kFile, true, true, "p4 07000000 !00000000 P"},
    {111, "file_chmod", Probe::kFile, true, true, "!00000000 p2 8001 P"},
    {112, "file_chown", Probe::kFile, true, true, "p4 ffffffff ffffffff !00000000 P"},
    {114, "make_dir", Probe::kNew, true, true, "!00000000 p2 ed01 P"},
    {115, "remove_dir", Probe::kDirectory, true, true, "p2 !0000 P"},
    {116, "set_link from", Probe::kFile, false, true, "!00000000 p2 0700 P '/target'"},
    {116, "set_link to", Probe::kNew, false, true, "!00000000 0600 p2 '/spare' P"},
    {117, "set_unlink", Probe::kFile, false, true, "p2 !0000 P"},
    {118, "set_rename from", Probe::kFile, false, true, "!00000000 p2 0700 P '/target'"},
    {118, "set_rename to", Probe::kNew, false, true, "!00000000 0600 p2 '/spare' P"},
    // The cached listing makes no sense, so that there is always an answer.
    {121, "check_dir", Probe::kDirectory, true, false, "0700000000000000 ?01000000 p2 ?0100 P +00"},
    {123, "small_file_read", Probe::kFile, true, false,
     "01000000 0000000000000000 00000000 ?64000000 p4 00000000 P"},
};
/// The commands whose answer does not tell a failure, or that take a name instead of a path.
inline constexpr Probe kUnfailing[] = {
    {100, "mount_remote", Probe::kFile, false, false, "p2 P"},
    {101, "umount_remote", Probe::kFile, false, false, "p2 P"},
    {108, "get_xattr", Probe::kFile, false, false, "0000000000000000 00000000 p2 0300 P 'abc'"},
    {113, "get_statvfs", Probe::kFile, false, false, "p4 00000000 P"},
    {119, "file_flush", Probe::kFile, false, false, "p4 00000000 P"},
    {120, "file_release", Probe::kFile, true, true, "p4 00000000 P"},
    {200, "mount_response", Probe::kFile, false, false, "0000 p2 P"},
};
// clang-format on

}  // namespace zor::test
