// cat
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <vector>

#include "cli/command.h"
#include "cli/format.h"
#include "cli/stream.h"

namespace zor::client::cli {

namespace {

bool runCat(CommandContext& context, const std::vector<std::string>& paths) {
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
    Result<std::int64_t> shown = streamFile(context, context.out, path, size);
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

void addCat(CLI::App& app, Subcommand& chosen) {
  auto paths = std::make_shared<std::vector<std::string>>();
  CLI::App* command = app.add_subcommand("cat", "Writes files to standard output");
  command->add_option("PATH", *paths, "the files to print; symbolic links are followed")
      ->required();
  command->callback([paths, &chosen] {
    chosen.run = [paths](CommandContext& context) { return runCat(context, *paths); };
  });
}

}  // namespace zor::client::cli
