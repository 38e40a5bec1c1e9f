// watch
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <map>
#include <memory>

#include "cli/command.h"

namespace zor::client::cli {

namespace {

using Entries = std::map<std::string_view, const udisk_stat*>;

Entries entriesOf(const Listing& listing) {
  Entries entries;
  for (const wire::DirEntry& entry : listing.entries()) {
    if (!isDotEntry(entry.name)) entries[entry.name] = &entry.attributes;
  }
  return entries;
}

bool differ(const udisk_stat& a, const udisk_stat& b) {
  return a.st_size != b.st_size || a.st_mtim != b.st_mtim || a.st_mode != b.st_mode ||
         a.st_ino != b.st_ino;
}

void printChanges(CommandContext& context, const Listing& before, const Listing& after) {
  const Entries old = entriesOf(before);
  const Entries now = entriesOf(after);
  const auto print = [&](char kind, std::string_view name) {
    context.out.write(kind + context.out.shown(name) + '\n');
  };
  for (const auto& [name, attributes] : old) {
    const auto at = now.find(name);
    if (at == now.end()) {
      print('-', name);
    } else if (differ(*attributes, *at->second)) {
      print('~', name);
    }
  }
  for (const auto& [name, attributes] : now) {
    if (old.count(name) == 0) print('+', name);
  }
  context.out.flush();
}

/// Waits for an answer; nothing when a signal came first.
template <class T, class Start>
std::optional<Result<T>> awaitOnLoop(EventLoop& loop, Start start) {
  auto result = std::make_shared<std::optional<Result<T>>>();
  start(onLoop<T>(loop, [result](Result<T> value) { *result = std::move(value); }));
  while (!*result) {
    if (!loop.runOne()) return std::nullopt;
  }
  return std::move(*result);
}

/// False when a signal came first.
bool pause(EventLoop& loop, std::chrono::milliseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return true;
    if (!loop.runOne(left)) return false;
  }
}

bool runWatch(CommandContext& context, const std::string& path) {
  Result<Listing> known = context.disk.list(path);
  if (!known) return report(context, "watch", path, known.error());
  context.loop.catchSignals();
  while (pause(context.loop, std::chrono::seconds(1))) {
    auto check = awaitOnLoop<DirCheck>(
        context.loop, [&](auto done) { context.disk.checkDir(path, *known, std::move(done)); });
    if (!check) break;
    if (!*check) return report(context, "watch", path, check->error());
    if (!(*check)->changed) continue;
    Listing fresh = std::move((*check)->fresh);
    // Not one of its files need be gone.
    if (fresh.raw().empty()) {
      return report(context, "watch", path,
                    {ErrorKind::kFailed, "the directory is gone or cannot be read any more"});
    }
    printChanges(context, *known, fresh);
    *known = std::move(fresh);
  }
  return true;
}

}  // namespace

void addWatch(CLI::App& app, Subcommand& chosen) {
  auto path = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand(
      "watch",
      "Prints +NAME, -NAME and ~NAME for each entry of a directory that is added, removed or "
      "changed");
  command->footer(
      "Checks the directory every second until it is interrupted, and finds changes of the size "
      "and of the whole seconds of the modification time.");
  command->add_option("DIR", *path, "the directory")->required();
  command->callback([path, &chosen] {
    chosen.run = [path](CommandContext& context) { return runWatch(context, normalPath(*path)); };
  });
}

}  // namespace zor::client::cli
