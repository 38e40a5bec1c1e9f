// ls, stat, df
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <vector>

#include "cli/command.h"
#include "cli/format.h"
#include "cli/scanned_directory.h"

namespace zor::client::cli {

namespace {

struct LsOptions {
  bool details = false;
  bool all = false;
  bool recursive = false;
  std::vector<std::string> paths;
};

void printEntries(CommandContext& context, const LsOptions& options,
                  const std::vector<wire::DirEntry>& entries) {
  struct Row {
    std::string links, uid, gid, size;
  };
  std::vector<Row> rows;
  Row widths;
  const auto widen = [](std::string& width, const std::string& text) {
    if (text.size() > width.size()) width = text;
  };
  if (options.details) {
    for (const wire::DirEntry& entry : entries) {
      const udisk_stat& at = entry.attributes;
      rows.push_back({std::to_string(at.st_nlink), std::to_string(at.st_uid),
                      std::to_string(at.st_gid), std::to_string(at.st_size)});
      widen(widths.links, rows.back().links);
      widen(widths.uid, rows.back().uid);
      widen(widths.gid, rows.back().gid);
      widen(widths.size, rows.back().size);
    }
  }
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const udisk_stat& at = entries[i].attributes;
    std::string line;
    if (options.details) {
      line = modeString(at.st_mode) + ' ' + padded(rows[i].links, widths.links.size()) + ' ' +
             padded(rows[i].uid, widths.uid.size()) + ' ' + padded(rows[i].gid, widths.gid.size()) +
             ' ' + padded(rows[i].size, widths.size.size()) + ' ' +
             localTime(at.st_mtim.tv_sec, "%Y-%m-%d %H:%M") + ' ';
    }
    context.out.write(line + context.out.shown(entries[i].name) + '\n');
  }
}

bool listDirectory(CommandContext& context, const LsOptions& options, const std::string& path,
                   bool heading) {
  // Depth first with a stack of its own: a disk may be nested deeper than ours.
  struct Waiting {
    std::shared_ptr<ScannedDirectory> parent;
    std::string name;
  };
  std::vector<Waiting> waiting;
  bool ok = true;
  for (bool first = true; first || !waiting.empty(); first = false) {
    std::string current = path;
    if (!first) {
      current = waiting.back().parent->pathOf(waiting.back().name);
      waiting.pop_back();
    }
    Result<Listing> listing = context.disk.list(current);
    if (!listing) {
      ok = report(context, "list", current, listing.error());
      if (isFatal(listing.error())) return false;
      continue;
    }
    if (heading) {
      context.out.write((first ? "" : "\n") + context.out.shown(current) + ":\n");
    }
    std::vector<wire::DirEntry> entries;
    for (const wire::DirEntry& entry : listing->entries()) {
      if (options.all || entry.name.front() != '.') entries.push_back(entry);
    }
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a.name < b.name; });
    printEntries(context, options, entries);
    if (!options.recursive) continue;
    const auto directory = std::make_shared<ScannedDirectory>(current);
    if (const Status held = directory->hold(*listing, sizeof(Waiting)); !held) {
      ok = report(context, "list all in", current, held.error());
      continue;
    }
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
      if (!S_ISDIR(entry->attributes.st_mode) || isDotEntry(entry->name)) continue;
      if (directory->reaches(entry->name)) {
        waiting.push_back({directory, std::string(entry->name)});
      } else {
        ok = report(context, "list", directory->pathOf(entry->name), pathTooLong());
      }
    }
  }
  return ok;
}

bool runLs(CommandContext& context, const LsOptions& options) {
  bool ok = true;
  std::vector<std::string> directories;
  std::vector<std::string> names;
  std::vector<wire::DirEntry> files;
  names.reserve(options.paths.size());  // the entries keep pointing at them
  for (const std::string& typed : options.paths) {
    const std::string path = normalPath(typed);
    Result<udisk_stat> found = context.disk.attributes(path);
    if (!found) {
      ok = report(context, "list", path, found.error());
      if (isFatal(found.error())) return false;
    } else if (S_ISDIR(found->st_mode) ||
               (S_ISLNK(found->st_mode) && !options.details && context.disk.list(path).ok())) {
      directories.push_back(path);
    } else {
      names.push_back(path);
      files.push_back({*found, names.back()});
    }
  }
  printEntries(context, options, files);
  const bool heading = options.recursive || options.paths.size() > 1;
  for (std::size_t i = 0; i < directories.size(); ++i) {
    if (i > 0 || !files.empty()) context.out.write("\n");
    ok = listDirectory(context, options, directories[i], heading) && ok;
  }
  return ok;
}

std::string fullTime(const udisk_timespec& time) {
  const std::string fraction = std::to_string(time.tv_nsec);
  return localTime(time.tv_sec, "%Y-%m-%d %H:%M:%S.") +
         std::string(fraction.size() < 9 ? 9 - fraction.size() : 0, '0') + fraction +
         localTime(time.tv_sec, " %z");
}

bool runStat(CommandContext& context, const std::vector<std::string>& paths) {
  bool ok = true;
  for (const std::string& typed : paths) {
    const std::string path = normalPath(typed);
    Result<udisk_stat> found = context.disk.attributes(path);
    if (!found) {
      ok = report(context, "examine", path, found.error());
      if (isFatal(found.error())) return false;
      continue;
    }
    std::array<char, 8> octal;
    std::snprintf(octal.data(), octal.size(), "%04o", found->st_mode & 07777U);
    context.out.write(
        "  File: " + context.out.shown(path) + "\n  Size: " + std::to_string(found->st_size) +
        "\tBlocks: " + std::to_string(found->st_blocks) + "\tIO block: " +
        std::to_string(found->st_blksize) + "\t" + std::string(typeName(found->st_mode)) +
        "\nDevice: " + std::to_string(found->st_dev) + "\tInode: " + std::to_string(found->st_ino) +
        "\tLinks: " + std::to_string(found->st_nlink) + "\nAccess: (" + octal.data() + "/" +
        modeString(found->st_mode) + ")\tUid: " + std::to_string(found->st_uid) +
        "\tGid: " + std::to_string(found->st_gid) + "\nAccess: " + fullTime(found->st_atim) +
        "\nModify: " + fullTime(found->st_mtim) + "\nChange: " + fullTime(found->st_ctim) + "\n");
  }
  return ok;
}

/// Blocks of any size as bytes; what does not fit is shown as the largest number.
std::uint64_t inBytes(std::uint64_t blocks, std::uint64_t blockSize) {
  std::uint64_t bytes = 0;
  return __builtin_mul_overflow(blocks, blockSize, &bytes) ? UINT64_MAX : bytes;
}

bool runDf(CommandContext& context, bool human) {
  Result<udisk_statvfs> found = context.disk.statfs("/");
  if (!found) return report(context, "examine", "/", found.error());
  const std::uint64_t usedBlocks =
      found->f_blocks > found->f_bfree ? found->f_blocks - found->f_bfree : 0;
  const std::uint64_t used = inBytes(usedBlocks, found->f_bsize);
  const std::uint64_t available = inBytes(found->f_bavail, found->f_bsize);
  const double whole = static_cast<double>(used) + static_cast<double>(available);
  const auto number = [human](std::uint64_t bytes) {
    return padded(human ? humanSize(bytes) : std::to_string(bytes / 1024), 12);
  };
  const std::string percent = whole > 0
                                  ? std::to_string(static_cast<int>(std::min(
                                        100.0, static_cast<double>(used) / whole * 100 + 0.9999))) +
                                        "%"
                                  : "-";
  context.out.write(std::string(human ? "        Size" : "   1K-blocks") +
                    "         Used    Available Use% Disk\n" +
                    number(inBytes(found->f_blocks, found->f_bsize)) + ' ' + number(used) + ' ' +
                    number(available) + ' ' + padded(percent, 4) + ' ' +
                    context.out.shown(context.announcement.name) + '\n');
  return true;
}

}  // namespace

void addListing(CLI::App& app, Subcommand& chosen) {
  auto ls = std::make_shared<LsOptions>();
  CLI::App* command = app.add_subcommand("ls", "Lists directories");
  command->add_flag("-l", ls->details, "show mode, links, owner, group, size and time");
  command->add_flag("-a,--all", ls->all, "show names that begin with a dot");
  command->add_flag("-R,--recursive", ls->recursive, "list subdirectories, too");
  command->add_option("PATH", ls->paths, "the directories to list (default: the root of the disk)");
  command->callback([ls, &chosen] {
    if (ls->paths.empty()) ls->paths.emplace_back("/");
    chosen.run = [ls](CommandContext& context) { return runLs(context, *ls); };
  });

  auto paths = std::make_shared<std::vector<std::string>>();
  command = app.add_subcommand("stat", "Shows all attributes of files");
  command->add_option("PATH", *paths, "the files to show")->required();
  command->callback([paths, &chosen] {
    chosen.run = [paths](CommandContext& context) { return runStat(context, *paths); };
  });

  auto human = std::make_shared<bool>(false);
  command = app.add_subcommand("df", "Shows how full the disk is");
  command->set_help_flag("--help", "Print this help message and exit");
  command->add_flag("-h,--human-readable", *human, "show sizes with units");
  command->callback([human, &chosen] {
    chosen.run = [human](CommandContext& context) { return runDf(context, *human); };
  });
}

}  // namespace zor::client::cli
