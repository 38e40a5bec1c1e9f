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

struct Context {
  Disk& disk;
  Link& link;
  const Announcement& announcement;
  EventLoop& loop;
  Output& out;
  Console& console;
};

/// The command that the arguments chose.
struct Command {
  /// Returns false when something failed; it has been told by then.
  std::function<bool(Context&)> run;
  bool changesDisk = false;
};

// Each adds its commands to the command line.
void addListing(CLI::App& app, Command& chosen);  // ls, stat, df
void addCat(CLI::App& app, Command& chosen);
void addGet(CLI::App& app, Command& chosen);
void addPut(CLI::App& app, Command& chosen);
void addRemove(CLI::App& app, Command& chosen);      // rm
void addNames(CLI::App& app, Command& chosen);       // mkdir, mv, ln
void addAttributes(CLI::App& app, Command& chosen);  // chmod, chown, truncate, sync
void addWatch(CLI::App& app, Command& chosen);

/// Tells that `what` failed with `path`; returns false.
bool report(Context& context, std::string_view what, std::string_view path, const Error& error);

/// Whether `path` is a directory or a link to one.
bool isDirectory(Context& context, const std::string& path);

/// Does `act` with each path and tells of failures ("cannot WHAT 'PATH'") and
/// how far it came; true when there was none.
bool forEach(Context& context, const std::vector<std::string>& paths, std::string_view what,
             const std::function<Status(const std::string&)>& act);

/// Whether trying the next path makes no sense after this error.
inline bool isFatal(const Error& error) { return error.kind == ErrorKind::kLinkLost; }

}  // namespace zor::client::cli
