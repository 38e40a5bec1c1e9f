// Commands 100 (mount), 101 (unmount) and 200 (the client's drive).
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "morvel_log.h"
#include "reply.h"
#include "request.h"
#include "trace_message.h"
#include "udisk_operator.h"

namespace zor {
namespace {

constexpr std::size_t kMaxPasswordEntry = std::size_t{1} << 20;

// One plain component; anything else could create a directory elsewhere.
bool isPlainName(const PeerString& name) noexcept {
  return name.whole() && !name.text.empty() && name.text != "." && name.text != ".." &&
         name.text.find('/') == std::string_view::npos;
}

// Empty when the password database does not know the user.
std::string lookUpHome(uid_t user) {
  const long hint = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> memory(hint > 0 ? static_cast<std::size_t>(hint) : 1024);
  passwd entry{};
  passwd* found = nullptr;
  while (::getpwuid_r(user, &entry, memory.data(), memory.size(), &found) == ERANGE &&
         memory.size() < kMaxPasswordEntry) {
    memory.resize(memory.size() * 2);  // the hint is no limit
  }
  return found != nullptr && found->pw_dir != nullptr ? found->pw_dir : "";
}

// Looked up when the module is loaded: a process that confines itself afterwards
// does not reach the password database any more.
struct Home {
  uid_t user;
  std::string directory;
};
const Home gHome = []() noexcept {
  Home home{::getuid(), {}};
  try {
    if (home.user != 0) home.directory = lookUpHome(home.user);
  } catch (const std::bad_alloc&) {
  }
  return home;
}();

// Empty for root, and where none is known.
std::string homeDirectory() {
  const uid_t user = ::getuid();
  if (user == 0) return "";
  return user == gHome.user && !gHome.directory.empty() ? gHome.directory : lookUpHome(user);
}

void mountDirectory(const std::string& name, char (&path)[256]) {
  const std::string home = homeDirectory();
  if (home.empty()) {
    std::snprintf(path, sizeof path, "/media/%s", name.c_str());
  } else {
    std::snprintf(path, sizeof path, "%s%s%s", home.c_str(), "/", name.c_str());
  }
}

}  // namespace

int UDiskOperator::mountEcho(const DecodedRequest<wire::MountRemoteRequest>& request) {
  const std::string_view name = request.path().received;
  ReplyBuilder answer(request, wire::wireSize<wire::MountRemoteRequest>() + name.size());
  answer.add(request.record).add(name);
  return reply(request, answer);
}

int UDiskOperator::mount_remote(DecodedRequest<wire::MountRemoteRequest>& request) {
  if (isPlainName(request.path())) {
    char path[256] = {};
    mountDirectory(std::string(request.path().text), path);
    struct stat status {};
    if (::stat(path, &status) != 0 || !S_ISDIR(status.st_mode)) {
      const int result = ::mkdir(path, 0777);
      MORVEL_DEBUG(kLogDebug, "mkdir res: %d", result);
    }
    SetRootPath(path, nullptr);
    MORVEL_DEBUG(kLogDebug, "mount path: %s\n", path);
  } else {
    MORVEL_ERROR("mount name is not a plain name: %s", request.path().logged().c_str());
    SetRootPath(nullptr, nullptr);
  }
  return mountEcho(request);
}

int UDiskOperator::umount_remote(DecodedRequest<wire::MountRemoteRequest>& request) {
  SetRootPath(nullptr, nullptr);
  return mountEcho(request);
}

int UDiskOperator::mount_response(const HandlerCall& call) {
  MORVEL_DEBUG(kLogDebug, "vmId: %d", vmId);
  const DecodedRequest<wire::MountResponseRecord> request(call);
  if (!request) return -1;
  const std::string drive(request.strings[0].text);
  const std::string label(request.strings[1].text);
  MORVEL_DEBUG(kLogDebug, "mount_response header_len: %d, label: %s, drive: %s\n",
               static_cast<int>(wire::wireSize<wire::MountResponseRecord>()), label.c_str(),
               drive.c_str());
  {
    const MutexLock lock(mMountMutex);
    mMountDrive = drive;
  }
  Trace("DEVICE_OPEN", true, UDISK_TRACE_PLACE, "udisk create success RemoteMountPoint:", drive);
  return -1;
}

}  // namespace zor
