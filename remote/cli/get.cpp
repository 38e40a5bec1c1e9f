// get
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <vector>

#include "command.h"
#include "download.h"

namespace zor::remote::cli {

namespace {

struct GetOptions {
  DownloadOptions download;
  std::vector<std::string> sources;
  std::string destination;
};

bool localFailure(Context& context, const std::string& path, const Error& error) {
  context.console.message("cannot write to '" + path + "': " + error.message);
  return false;
}

bool runGet(Context& context, const GetOptions& options) {
  struct Found {
    std::string path;
    Result<udisk_stat> attributes;
  };
  std::vector<Found> found;
  for (const std::string& typed : options.sources) {
    const std::string path = normalPath(typed);
    found.push_back({path, context.disk.attributes(path)});
  }

  struct stat local {};
  const bool into = ::stat(options.destination.c_str(), &local) == 0 && S_ISDIR(local.st_mode);
  if (found.size() > 1 && !into) {
    context.console.message("'" + options.destination +
                            "' must be a directory to take several files");
    return false;
  }
  if (options.destination.empty()) {
    return localFailure(context, "", {ErrorKind::kRefused, "it has no name"});
  }
  std::string parent = options.destination;
  std::string name;
  if (!into) {
    while (parent.size() > 1 && parent.back() == '/') parent.pop_back();
    const std::size_t slash = parent.rfind('/');
    name = parent.substr(slash + 1);
    parent = slash == std::string::npos ? "." : parent.substr(0, slash + 1);
  }
  auto dir = LocalDir::open(parent);
  if (!dir) return localFailure(context, parent, dir.error());

  raiseDescriptorLimit();
  context.loop.catchSignals();
  Download download(context, options.download);
  for (const auto& [path, attributes] : found) {
    if (!attributes) {
      download.fail("fetch", path, attributes.error());
    } else if (!into && options.destination.back() == '/' && !S_ISDIR(attributes->st_mode)) {
      download.fail("write to", options.destination, {ErrorKind::kRefused, "no such directory"});
    } else if (into && path == "/" && options.download.recursive) {
      download.addContents(path, *dir);
    } else {
      download.add(path, *attributes, *dir, into ? std::string(baseName(path)) : name);
    }
  }
  dir->reset();
  return download.run();
}

}  // namespace

void addGet(CLI::App& app, Command& chosen) {
  auto options = std::make_shared<GetOptions>();
  CLI::App* command = app.add_subcommand(
      "get",
      "Copies files from the disk. Permission bits and modification times are kept, holes stay "
      "holes, and a file appears under its name only when it is complete.");
  command->add_flag("-r,--recursive", options->download.recursive, "copy directories, too");
  command->add_flag("--batch", options->download.batches,
                    "fetch small files many at a time, if the host serves that");
  command
      ->add_option("SRC DEST", options->sources,
                   "what to copy, and last the local file or directory to copy it to")
      ->required()
      ->expected(2, -1);
  command->callback([options, &chosen] {
    options->destination = std::move(options->sources.back());
    options->sources.pop_back();
    chosen.run = [options](Context& context) {
      options->download.batches = options->download.batches && context.link.servesSmallFiles();
      return runGet(context, *options);
    };
  });
}

}  // namespace zor::remote::cli
