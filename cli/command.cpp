#include "cli/command.h"

#include <sys/stat.h>

#include "cli/format.h"

namespace zor::client::cli {

bool report(CommandContext& context, std::string_view what, std::string_view path,
            const Error& error) {
  std::string text("cannot ");
  text.append(what).append(" '").append(path).append("': ").append(error.message);
  context.console.message(text);
  return false;
}

Status explained(CommandContext& context, const std::string& path, Status status) {
  if (status || status.error().kind != ErrorKind::kFailed) return status;
  const Result<udisk_stat> found = context.disk.attributes(path);
  if (!found) return found.error();
  return status;
}

bool isDirectory(CommandContext& context, const std::string& path) {
  const Result<udisk_stat> found = context.disk.attributes(path);
  if (!found) return false;
  return S_ISDIR(found->st_mode) || (S_ISLNK(found->st_mode) && context.disk.list(path).ok());
}

bool forEach(CommandContext& context, const std::vector<std::string>& paths, std::string_view what,
             const std::function<Status(const std::string&)>& act) {
  std::size_t done = 0;
  for (const std::string& path : paths) {
    const Status status = act(path);
    if (status) {
      ++done;
    } else {
      report(context, what, path, status.error());
      if (isFatal(status.error())) break;
    }
  }
  if (done < paths.size() && paths.size() > 1) {
    context.console.message("done with " + std::to_string(done) + " of " +
                            counted(paths.size(), "name"));
  }
  return done == paths.size();
}

}  // namespace zor::client::cli
