// put
#include <CLI/CLI.hpp>
#include <memory>
#include <vector>

#include "cli/command.h"
#include "cli/upload.h"

namespace zor::client::cli {

namespace {

struct PutOptions {
  bool recursive = false;
  std::vector<std::string> sources;
  std::string destination;
};

/// The last component of a path on this machine.
std::string localBaseName(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path.substr(path.rfind('/') + 1);
}

bool runPut(CommandContext& context, const PutOptions& options) {
  const std::string destination = normalPath(options.destination);
  const bool into = isDirectory(context, destination);
  if (!into && options.sources.size() > 1) {
    context.console.message("'" + destination + "' must be a directory to take several files");
    return false;
  }
  const bool wantsDirectory = !options.destination.empty() && options.destination.back() == '/';
  if (!into && wantsDirectory && !options.recursive) {
    return report(context, "write to", destination, {ErrorKind::kRefused, "no such directory"});
  }
  raiseDescriptorLimit();
  context.loop.catchSignals();
  Upload upload(context, options.recursive);
  for (const std::string& source : options.sources) {
    // What has no name of its own ("." or "/") stands for what is in it.
    const std::string name = localBaseName(source);
    const bool named = !name.empty() && !isDotEntry(name);
    upload.add(source, into && named ? joinPath(destination, name) : destination);
  }
  return upload.run();
}

}  // namespace

void addPut(CLI::App& app, Subcommand& chosen) {
  auto options = std::make_shared<PutOptions>();
  CLI::App* command = app.add_subcommand("put", "Copies files to the disk, over existing ones");
  command->footer(
      "A file is sent under a temporary name "
      "beside its own (.udisk-remote.*.part) and renamed when it is complete, so that an "
      "existing file stays as it is until then; the disk needs room for both. An existing file's "
      "permission bits stay, its other hard links keep the old contents, and links, pipes and "
      "directories are not replaced. A new file gets the permission bits of its source as far as "
      "the disk keeps them. Modification times cannot be kept, because the host has no way to "
      "set them.");
  command->add_flag("-r,--recursive", options->recursive,
                    "copy directories with all files in them");
  command
      ->add_option(
          "SRC DEST", options->sources,
          "the local files to copy, then the file or directory on the disk to copy them to")
      ->required()
      ->expected(2, -1);
  command->callback([options, &chosen] {
    options->destination = std::move(options->sources.back());
    options->sources.pop_back();
    chosen = {[options](CommandContext& context) { return runPut(context, *options); }, true};
  });
}

}  // namespace zor::client::cli
