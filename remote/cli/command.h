// What the commands have in common.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "connection.h"
#include "console.h"
#include "disk.h"
#include "event_loop.h"
#include "remote_path.h"

namespace CLI {
class App;
}

namespace zor::remote::cli {

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

/// Tells that `what` failed with `path`; returns false.
inline bool report(Context& context, std::string_view what, std::string_view path,
                   const Error& error) {
  std::string text("cannot ");
  text.append(what).append(" '").append(path).append("': ").append(error.message);
  context.console.message(text);
  return false;
}

/// Whether trying the next path makes sense after this error.
inline bool isFatal(const Error& error) { return error.kind == ErrorKind::kLinkLost; }

}  // namespace zor::remote::cli
