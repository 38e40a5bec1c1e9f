#include "host/trace_file.h"

#include <fcntl.h>
#include <json/json.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string_view>

#include "host/utf8.h"
#include "support/printable.h"

namespace zor::host {
namespace {

std::string timestamp() {
  using namespace std::chrono;
  const auto now = time_point_cast<milliseconds>(system_clock::now());
  const std::time_t seconds = system_clock::to_time_t(floor<std::chrono::seconds>(now));
  const auto fraction = (now - floor<std::chrono::seconds>(now)).count();
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(fraction));
  return text;
}

std::string toLine(const std::string& traceId, const std::string& context,
                   const std::string& eventName, const TraceAttributes& attributes) {
  Json::Value record(Json::objectValue);
  record["id"] = validUtf8(traceId);
  record["event"] = validUtf8(eventName);
  record["context"] = validUtf8(context);
  record["time"] = timestamp();
  Json::Value& members = record["attributes"] = Json::Value(Json::objectValue);
  for (const auto& [key, value] : attributes) members[validUtf8(key)] = validUtf8(value);
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, record) + '\n';
}

}  // namespace

namespace {

// What somebody else may have put there is not written to: a link, a file of his, or a
// second name of a file that is no trace file.
const char* whyNot(const struct stat& file) noexcept {
  if (S_ISREG(file.st_mode)) {
    if (file.st_uid != ::geteuid()) return "it belongs to another user";
    return file.st_nlink > 1 ? "it has a second name" : nullptr;
  }
  if (!S_ISFIFO(file.st_mode) && !S_ISCHR(file.st_mode)) return "it is no file, pipe or terminal";
  return file.st_uid == ::geteuid() || file.st_uid == 0 ? nullptr : "it belongs to another user";
}

}  // namespace

// Non-blocking: a pipe that nobody reads loses events, it does not stop the disk.
TraceFile::TraceFile(const std::string& path)
    : mPath(path),
      mFile(::open(path.c_str(),
                   O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK,
                   0600)) {
  struct stat status {};
  const char* reason = nullptr;
  if (!mFile || ::fstat(mFile.get(), &status) != 0) {
    reason = errno == ELOOP ? "it is a symbolic link" : std::strerror(errno);
  } else {
    reason = whyNot(status);
  }
  if (reason != nullptr) {
    throw std::runtime_error("cannot use the trace file " + printable(path) + ": " + reason);
  }
}

void TraceFile::write(const std::string& traceId, const std::string& context,
                      const std::string& eventName, const TraceAttributes& attributes) noexcept {
  try {
    const std::string line = toLine(traceId, context, eventName, attributes);
    const MutexLock lock(mMutex);
    if (append(line) || mLossLogged) return;
    mLossLogged = true;
    spdlog::error("trace events are lost: cannot write {}: {}", printable(mPath),
                  std::strerror(errno));
  } catch (...) {  // a trace is never worth the request that it reports
  }
}

bool TraceFile::append(const std::string& line) noexcept {
  if (mTorn && ::write(mFile.get(), "\n", 1) == 1) mTorn = false;
  std::string_view rest(line);
  while (!rest.empty()) {
    const ssize_t written = ::write(mFile.get(), rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) {
      mTorn = mTorn || rest.size() != line.size();
      return false;
    }
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace zor::host
