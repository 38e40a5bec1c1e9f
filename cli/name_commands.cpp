// mkdir, mv, ln
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <vector>

#include "cli/command.h"
#include "client/exchange.h"

namespace zor::client::cli {

namespace {

using exchange::refused;

Status makeDirectory(CommandContext& context, const std::string& path, std::uint16_t mode,
                     bool parents) {
  if (path.find('\\') != std::string::npos) {
    return refused("the host takes a backslash in a directory's name for a separator");
  }
  if (!parents) {
    // The host would make what is missing above, and accept what exists.
    const Result<udisk_stat> existing = context.disk.attributes(path);
    if (existing) return refused("it exists already");
    if (existing.error().kind != ErrorKind::kFailed) return existing.error();
    if (!isDirectory(context, parentPath(path))) {
      return refused("the directory above it does not exist; use -p to make it");
    }
  }
  return context.disk.makeDir(path, mode);
}

/// Renames or links: the last path is the new name, or the directory for it.
bool runTwoPaths(CommandContext& context, std::vector<std::string> paths, std::string_view what,
                 Status (Disk::*operation)(std::string_view, std::string_view)) {
  const std::string destination = normalPath(paths.back());
  paths.pop_back();
  for (std::string& path : paths) path = normalPath(path);
  const bool into = isDirectory(context, destination);
  if (!into && paths.size() > 1) {
    context.console.message("'" + destination + "' must be a directory to take several names");
    return false;
  }
  return forEach(context, paths, what, [&](const std::string& path) -> Status {
    if (path == "/") return refused("it is the whole disk");
    const std::string target = into ? joinPath(destination, baseName(path)) : destination;
    Status status = explained(context, path, (context.disk.*operation)(path, target));
    if (!status && status.error().kind == ErrorKind::kFailed && !into &&
        !isDirectory(context, parentPath(target))) {
      return refused("the directory '" + parentPath(target) + "' does not exist");
    }
    return status;
  });
}

}  // namespace

void addNames(CLI::App& app, Subcommand& chosen) {
  struct MakeOptions {
    bool parents = false;
    std::vector<std::string> paths;
  };
  auto make = std::make_shared<MakeOptions>();
  CLI::App* command = app.add_subcommand("mkdir", "Makes directories");
  command->add_flag("-p,--parents", make->parents,
                    "make missing parent directories, too, and accept existing ones");
  command->add_option("PATH", make->paths, "the directories to make")->required();
  command->callback([make, &chosen] {
    chosen = {[make](CommandContext& context) {
                const mode_t mask = ::umask(0);
                ::umask(mask);
                for (std::string& path : make->paths) path = normalPath(path);
                return forEach(context, make->paths, "make", [&](const std::string& path) {
                  return makeDirectory(context, path, static_cast<std::uint16_t>(0777U & ~mask),
                                       make->parents);
                });
              },
              true};
  });

  auto moved = std::make_shared<std::vector<std::string>>();
  command = app.add_subcommand("mv", "Renames files and directories");
  command
      ->add_option("SRC DEST", *moved,
                   "the files to rename, then their new name or the directory to move them to")
      ->required()
      ->expected(2, -1);
  command->callback([moved, &chosen] {
    chosen = {[moved](CommandContext& context) {
                return runTwoPaths(context, *moved, "move", &Disk::rename);
              },
              true};
  });

  auto linked = std::make_shared<std::vector<std::string>>();
  command = app.add_subcommand("ln", "Gives files an additional name (a hard link)");
  command
      ->add_option("SRC DEST", *linked,
                   "the files, then the additional name or the directory for it")
      ->required()
      ->expected(2, -1);
  command->callback([linked, &chosen] {
    chosen = {[linked](CommandContext& context) {
                return runTwoPaths(context, *linked, "link", &Disk::link);
              },
              true};
  });
}

}  // namespace zor::client::cli
