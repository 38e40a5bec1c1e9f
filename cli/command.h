// What the commands have in common.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/console.h"
#include "cli/event_loop.h"
#include "client/connection.h"
#include "client/disk.h"
#include "client/remote_path.h"

namespace CLI {
class App;
}

namespace zor::client::cli {

struct CommandContext {
  Disk& disk;
  Link& link;
  const Announcement& announcement;
  EventLoop& loop;
  Output& out;
  Console& console;
};

/// The command that the arguments chose.
struct Subcommand {
  /// Returns false when something failed; it has been reported by then.
  std::function<bool(CommandContext&)> run;
  bool changesDisk = false;
};

// Each adds its commands to the command line.
void addListing(CLI::App& app, Subcommand& chosen);  // ls, stat, df
void addCat(CLI::App& app, Subcommand& chosen);
void addGet(CLI::App& app, Subcommand& chosen);
void addPut(CLI::App& app, Subcommand& chosen);
void addRemove(CLI::App& app, Subcommand& chosen);      // rm
void addNames(CLI::App& app, Subcommand& chosen);       // mkdir, mv, ln
void addAttributes(CLI::App& app, Subcommand& chosen);  // chmod, chown, truncate, sync
void addWatch(CLI::App& app, Subcommand& chosen);

/// Reports that `what` failed with `path`; returns false.
bool report(CommandContext& context, std::string_view what, std::string_view path,
            const Error& error);

/// `status` with the likely reason of a failure, as hosts report none: queries `path`, which
/// has to exist for the operation, and the disk.
Status explained(CommandContext& context, const std::string& path, Status status);

/// Whether `path` is a directory or a link to one.
bool isDirectory(CommandContext& context, const std::string& path);

/// Does `act` with each path, and reports failures ("cannot WHAT 'PATH'") and how many
/// succeeded; true when all did.
bool forEach(CommandContext& context, const std::vector<std::string>& paths, std::string_view what,
             const std::function<Status(const std::string&)>& act);

/// Whether trying the next path makes no sense after this error.
inline bool isFatal(const Error& error) { return error.kind == ErrorKind::kLinkLost; }

}  // namespace zor::client::cli
