// chmod, chown, truncate, sync
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "cli/command.h"
#include "client/set_length.h"

namespace zor::client::cli {

namespace {

/// All of `text` as a number.
template <class T>
std::optional<T> parsed(std::string_view text, int base = 10) {
  T value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

/// "10", "10K", "3M": the suffixes count in powers of 1024.
std::optional<std::uint64_t> parseSize(std::string_view text) {
  constexpr std::string_view kUnits = "KMGT";
  unsigned shift = 0;
  if (!text.empty()) {
    const std::size_t unit = kUnits.find(text.back());
    if (unit != std::string_view::npos) {
      shift = 10 * (static_cast<unsigned>(unit) + 1);
      text.remove_suffix(1);
    }
  }
  const auto number = parsed<std::uint64_t>(text);
  if (!number || *number > (std::numeric_limits<std::uint64_t>::max() >> shift)) {
    return std::nullopt;
  }
  return *number << shift;
}

struct Owner {
  static constexpr std::uint32_t kUnchanged = 0xffffffff;
  std::uint32_t uid = kUnchanged;
  std::uint32_t gid = kUnchanged;
};

/// "UID", "UID:GID" or ":GID".
std::optional<Owner> parseOwner(std::string_view text) {
  Owner owner;
  const std::size_t colon = text.find(':');
  const std::string_view user = text.substr(0, colon);
  if (!user.empty()) {
    const auto uid = parsed<std::uint32_t>(user);
    if (!uid || *uid == Owner::kUnchanged) return std::nullopt;
    owner.uid = *uid;
  }
  if (colon != std::string_view::npos) {
    const auto gid = parsed<std::uint32_t>(text.substr(colon + 1));
    if (!gid || *gid == Owner::kUnchanged) return std::nullopt;
    owner.gid = *gid;
  } else if (user.empty()) {
    return std::nullopt;
  }
  return owner;
}

/// Checks an argument with one of the parsers above.
template <class Parse>
CLI::Validator accepted(Parse parse, const char* complaint) {
  return CLI::Validator(
      [parse, complaint](std::string& text) {
        return parse(text) ? std::string() : text + " is not " + complaint;
      },
      "");
}

std::optional<std::uint16_t> parseMode(std::string_view text) {
  const auto mode = parsed<std::uint16_t>(text, 8);
  return mode && *mode <= 07777 ? mode : std::nullopt;
}

/// Makes a file, or all files below a directory, reach the disk.
bool syncPath(CommandContext& context, const std::string& path) {
  std::vector<std::string> waiting{path};
  bool ok = true;
  while (!waiting.empty()) {
    const std::string current = std::move(waiting.back());
    waiting.pop_back();
    const bool directory = isDirectory(context, current);
    const Result<Listing> listing =
        directory ? context.disk.list(current) : Result<Listing>(Listing());
    const Status status = directory ? (listing ? Status(Unit{}) : Status(listing.error()))
                                    : context.disk.fsync(current);
    if (!status) {
      ok = report(context, "sync", current, status.error());
      if (isFatal(status.error())) return false;
    }
    if (!directory || !listing) continue;
    for (const wire::DirEntry& entry : listing->entries()) {
      const bool carried = S_ISREG(entry.attributes.st_mode) || S_ISDIR(entry.attributes.st_mode);
      if (carried && !isDotEntry(entry.name)) waiting.push_back(joinPath(current, entry.name));
    }
  }
  return ok;
}

struct Arguments {
  std::string value;
  std::vector<std::string> paths;
};

/// A command with a value and paths that does one thing with each path.
void addChange(CLI::App& app, Subcommand& chosen, const std::string& name,
               const std::string& description, const std::string& option,
               const CLI::Validator& validator,
               const std::function<Status(Disk&, const std::string&, const std::string&)>& act) {
  auto arguments = std::make_shared<Arguments>();
  CLI::App* command = app.add_subcommand(name, description);
  command->add_option(option, arguments->value)->required()->check(validator);
  command->add_option("PATH", arguments->paths, "the files to change")->required();
  command->callback([=, &chosen] {
    chosen = {[=](CommandContext& context) {
                for (std::string& path : arguments->paths) path = normalPath(path);
                return forEach(context, arguments->paths, name, [&](const std::string& path) {
                  return explained(context, path, act(context.disk, path, arguments->value));
                });
              },
              true};
  });
}

}  // namespace

void addAttributes(CLI::App& app, Subcommand& chosen) {
  addChange(app, chosen, "chmod", "Sets permission bits", "MODE",
            accepted(parseMode, "an octal mode such as 644"),
            [](Disk& disk, const std::string& path, const std::string& mode) {
              return disk.chmod(path, *parseMode(mode));
            });
  addChange(app, chosen, "chown", "Sets owner and group, as numbers", "UID:GID",
            accepted(parseOwner, "an owner such as 1000, 1000:100 or :100"),
            [](Disk& disk, const std::string& path, const std::string& text) {
              const Owner owner = *parseOwner(text);
              return disk.chown(path, owner.uid, owner.gid);
            });
  addChange(app, chosen, "truncate", "Sets the length of files", "-s,--size",
            accepted(parseSize, "a size such as 1000, 64K or 3G"),
            [](Disk& disk, const std::string& path, const std::string& size) {
              return setLength(disk, path, *parseSize(size));
            });

  auto paths = std::make_shared<std::vector<std::string>>();
  CLI::App* command =
      app.add_subcommand("sync", "Writes files from the memory of the host to the disk");
  command->add_option("PATH", *paths, "the files, or directories with all files in them")
      ->required();
  command->callback([paths, &chosen] {
    chosen = {[paths](CommandContext& context) {
                bool ok = true;
                for (const std::string& path : *paths) {
                  ok = syncPath(context, normalPath(path)) && ok;
                }
                return ok;
              },
              true};
  });
}

}  // namespace zor::client::cli
