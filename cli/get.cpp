// get
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <vector>

#include "cli/command.h"
#include "cli/download.h"
#include "cli/local_target.h"
#include "cli/stream.h"

namespace zor::client::cli {

namespace {

struct GetOptions {
  DownloadOptions download;
  std::vector<std::string> sources;
  std::string destination;
};

bool localFailure(CommandContext& context, const std::string& path, const Error& error) {
  context.console.message("cannot write to '" + path + "': " + error.message);
  return false;
}

bool runGet(CommandContext& context, const GetOptions& options) {
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
  Download download(context, options.download);
  std::string parent = options.destination;
  std::string name;
  auto output = standardOutput(options.destination);
  std::shared_ptr<LocalDir> dir;
  if (!output) {
    if (!into) {
      while (parent.size() > 1 && parent.back() == '/') parent.pop_back();
      const std::size_t slash = parent.rfind('/');
      name = parent.substr(slash + 1);
      parent = slash == std::string::npos ? "." : parent.substr(0, slash + 1);
    }
    auto opened = LocalDir::open(parent);
    if (!opened) return localFailure(context, parent, opened.error());
    dir = std::move(*opened);
  }

  raiseDescriptorLimit();
  bool ok = true;
  for (const auto& [path, attributes] : found) {
    if (!attributes) {
      download.fail("fetch", path, attributes.error());
      continue;
    }
    const bool file = S_ISREG(attributes->st_mode);
    if (!into && options.destination.back() == '/' && !S_ISDIR(attributes->st_mode)) {
      download.fail("write to", options.destination, {ErrorKind::kRefused, "no such directory"});
    } else if (into && path == "/" && options.download.recursive) {
      download.addContents(path, dir);
    } else if (output && !file) {
      download.fail("fetch", path, {ErrorKind::kRefused, "only files go to standard output"});
    } else {
      const std::string as = into ? std::string(baseName(path)) : name;
      Result<LocalTarget> target = output ? Result<LocalTarget>(std::move(*output))
                                   : file ? openTarget(dir, parent, as)
                                          : Result<LocalTarget>(LocalTarget{dir, as, UniqueFd()});
      if (!target) {
        download.fail("write to", into ? joinPath(parent, as) : options.destination,
                      target.error());
      } else if (target->stream) {
        Output out(target->stream.get());
        const auto written = streamFile(context, out, path, attributes->st_size);
        out.flush();
        if (!written) download.fail("fetch", path, written.error());
        ok = ok && written.ok();
      } else {
        download.add(path, *attributes, std::move(target->dir), target->name);
      }
    }
  }
  dir.reset();
  if (!download.hasWork()) return ok && !download.failed();
  context.loop.catchSignals();
  return download.run() && ok;
}

}  // namespace

void addGet(CLI::App& app, Subcommand& chosen) {
  auto options = std::make_shared<GetOptions>();
  CLI::App* command = app.add_subcommand("get", "Copies files from the disk");
  command->footer(
      "Modification times are kept, holes stay holes, and a file "
      "appears under its name only when it is complete. A new file gets the permission bits of "
      "its source under the umask; a file that is replaced keeps its own. A link is followed to "
      "its file, a pipe or character device is written to, and so is standard output for - and "
      "/dev/stdout. Nothing else is replaced.");
  CLI::Option* keep = command->add_flag("-n,--no-clobber", options->download.keepExisting,
                                        "leave existing files as they are");
  command->add_flag("-i,--interactive", options->download.ask, "ask before replacing a file")
      ->excludes(keep);
  command->add_flag("-r,--recursive", options->download.recursive,
                    "copy directories with all files in them");
  command->add_flag("--batch", options->download.batches,
                    "fetch many small files with one request, if the host serves that");
  command
      ->add_option("SRC DEST", options->sources,
                   "the files to copy, then the local file or directory to copy them to")
      ->required()
      ->expected(2, -1);
  command->callback([options, &chosen] {
    options->destination = std::move(options->sources.back());
    options->sources.pop_back();
    chosen.run = [options](CommandContext& context) {
      options->download.batches = options->download.batches && context.link.servesSmallFiles();
      return runGet(context, *options);
    };
  });
}

}  // namespace zor::client::cli
