#include "mount/options.h"

#include <unistd.h>

#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <string_view>

#include "client/host_user.h"
#include "mount/messages.h"

namespace zor::client::mount {
namespace {

// A thread waits for the host with each request, so there are more threads than
// requests that the kernel sends ahead of need (kMaxBackground).
constexpr const char* kThreads = "-omax_threads=64";
constexpr double kMaxSeconds = 86400;

enum Key {
  kMaxRead,
  kUid,
  kGid,
  kUmask,
  kQuiet,
  kAttributeTimeout,
  kTimeout,
  kBandwidth,
  kAllowHostUser,
  kMetrics,
  kNoSync,
  kAllowOther,
};

constexpr fuse_opt option(const char* name, int key) {
  constexpr unsigned kNoOffset = std::numeric_limits<unsigned>::max();
  return {name, kNoOffset, key};
}

constexpr std::array<fuse_opt, 15> kOptions{{
    option("max_read=", kMaxRead),
    option("uid=", kUid),
    option("gid=", kGid),
    option("umask=", kUmask),
    option("quiet", kQuiet),
    option("nosync", kNoSync),
    option("attr_timeout=", kAttributeTimeout),
    option("timeout=", kTimeout),
    option("bandwidth=", kBandwidth),
    option("allow_host_user=", kAllowHostUser),
    option("--allow-host-user=", kAllowHostUser),
    option("stats", kMetrics),
    option("--stats", kMetrics),
    option("allow_other", kAllowOther),
    FUSE_OPT_END,
}};

struct Parsing {
  MountOptions& options;
  std::vector<std::string> places;
  std::string error;
  bool forOthers = false;
};

template <class T, class... Form>
std::optional<T> number(std::string_view text, Form... form) {
  T value{};
  const auto [end, status] =
      std::from_chars(text.data(), text.data() + text.size(), value, form...);
  if (status != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<std::uint32_t> idValue(std::string_view text) {
  const auto id = number<std::uint32_t>(text, 10);
  return id && *id != kSameId ? id : std::nullopt;
}

std::optional<std::uint32_t> umaskValue(std::string_view text) {
  const auto mask = number<std::uint32_t>(text, 8);
  return mask && *mask <= 0777 ? mask : std::nullopt;
}

bool setTime(std::chrono::milliseconds& time, std::string_view text, double smallest) {
  const auto seconds = number<double>(text);
  if (!seconds || !(*seconds >= smallest && *seconds <= kMaxSeconds)) return false;
  time = std::chrono::milliseconds(std::llround(*seconds * 1000));
  return true;
}

// Returns a complaint about the value, or nothing.
const char* apply(MountOptions& options, int key, std::string_view value) {
  switch (key) {
    case kUid:
      options.ownership.uid = idValue(value);
      return options.ownership.uid ? nullptr : "give the number of a user, as in uid=1000";
    case kGid:
      options.ownership.gid = idValue(value);
      return options.ownership.gid ? nullptr : "give the number of a group, as in gid=1000";
    case kUmask:
      options.ownership.umask = umaskValue(value);
      return options.ownership.umask ? nullptr : "give an octal number up to 777, as in umask=022";
    case kAttributeTimeout:
      if (setTime(options.attributeTimeout, value, 0)) return nullptr;
      return "give seconds from 0 to 86400, as in attr_timeout=0.5";
    case kTimeout:
      if (setTime(options.timeout, value, 0.001)) return nullptr;
      return "give seconds from 0.001 to 86400, as in timeout=30";
    case kBandwidth:
      options.bandwidthKbit = number<std::uint32_t>(value, 10).value_or(0);
      if (options.bandwidthKbit != 0) return nullptr;
      return "give kilobits per second from 1 to 4294967295, as in bandwidth=8000";
    case kAllowHostUser:
      options.allowedHostUser = userNumber(std::string(value));
      return options.allowedHostUser ? nullptr : "there is no such user";
    case kMaxRead:
      options.maxRead = number<unsigned>(value, 10).value_or(0);
      return options.maxRead != 0 ? nullptr : "give a number of bytes, as in max_read=131072";
    case kQuiet:
      options.quiet = true;
      return nullptr;
    case kNoSync:
      options.syncOnClose = false;
      return nullptr;
    case kMetrics:
      options.metrics = true;
      return nullptr;
    default:
      return "";
  }
}

int takeArgument(void* data, const char* argument, int key, fuse_args*) {
  constexpr int kKeep = 1;
  constexpr int kDiscard = 0;
  Parsing& parsing = *static_cast<Parsing*>(data);
  if (key == FUSE_OPT_KEY_NONOPT) {
    parsing.places.emplace_back(argument);
    return kDiscard;
  }
  if (key == FUSE_OPT_KEY_OPT) return kKeep;
  if (key == kAllowOther) {
    parsing.forOthers = true;
    return kKeep;
  }
  const std::string_view text(argument);
  const std::size_t equals = text.find('=');
  const std::string_view value =
      equals == std::string_view::npos ? std::string_view() : text.substr(equals + 1);
  const char* wrong = apply(parsing.options, key, value);
  if (wrong != nullptr && parsing.error.empty()) {
    parsing.error = (text.starts_with('-') ? "" : "-o ") + std::string(text) + ": " + wrong;
  }
  return key == kMaxRead ? kKeep : kDiscard;  // the kernel needs it, too
}

std::string asSentence(const FuseMessages& messages) {
  return messages.text() + "; see udisk-mount --help";
}

// libfuse leaves a "--" behind when it has moved options to the front.
FuseArguments withoutSeparator(FuseArguments& given) {
  FuseArguments kept;
  for (int i = 0; i < given.get()->argc; ++i) {
    const char* argument = given.get()->argv[i];
    if (std::string_view(argument) != "--") kept.add(argument);
  }
  return kept;
}

// The name under which the mount appears in lists of mounts.
std::string sourceArgument(const std::string& socketPath) {
  std::string argument = "-ofsname=";
  for (const char c : socketPath) {
    if (c == ',' || c == '\\') argument += '\\';
    argument += c;
  }
  return argument;
}

// Whether libfuse accepts all of them.
bool areKnown(FuseArguments arguments) {
  const fuse_lowlevel_ops none{};
  fuse_session* session = fuse_session_new(arguments.get(), &none, sizeof none, nullptr);
  if (session == nullptr) return false;
  fuse_session_destroy(session);
  return true;
}

std::string absolute(const std::string& path) {
  if (path.starts_with('/')) return path;
  const std::unique_ptr<char, FreeMemory> directory(::get_current_dir_name());
  return directory ? std::string(directory.get()) + "/" + path : path;
}

Result<MountOptions, std::string> parseOwn(FuseArguments given) {
  MountOptions options;
  Parsing parsing{options, {}, {}, false};
  const FuseMessages messages;
  if (fuse_opt_parse(given.get(), &parsing, kOptions.data(), takeArgument) != 0) {
    return asSentence(messages);
  }
  given = withoutSeparator(given);
  fuse_cmdline_opts general{};
  if (fuse_parse_cmdline(given.get(), &general) != 0) return asSentence(messages);
  if (general.show_help != 0 || general.show_version != 0) {
    options.action = general.show_help != 0 ? Action::kHelp : Action::kVersion;
    return options;
  }
  if (!parsing.error.empty()) return parsing.error;
  if (parsing.places.size() != 2) {
    return std::string(
        "give the host's socket and a mount point, as in: udisk-mount /run/usb.sock /mnt/usb");
  }
  options.socketPath = absolute(parsing.places[0]);
  options.mountPoint = parsing.places[1];
  if (fuse_opt_insert_arg(given.get(), 1, sourceArgument(options.socketPath).c_str()) != 0) {
    throw std::bad_alloc();
  }
  // Without it the kernel checks no permissions, and others could read everything.
  if (parsing.forOthers) given.add("-odefault_permissions");
  options.foreground = general.foreground != 0;
  options.singleThread = general.singlethread != 0;
  options.cloneFd = general.clone_fd != 0;
  options.maxThreads = general.max_threads;
  options.maxIdleThreads = general.max_idle_threads;
  options.connectionOptions.reset(fuse_parse_conn_info_opts(given.get()));
  if (!options.connectionOptions || !areKnown(given)) return asSentence(messages);
  options.fuseArguments = std::move(given);
  return options;
}

}  // namespace

Result<MountOptions, std::string> parseOptions(int argc, const char* const* argv) {
  // libfuse takes the file system's type from the program's name.
  FuseArguments given;
  given.add("udisk");
  given.add(kThreads);
  if (argc < 1 || !isMountHelper(argv[0])) {
    for (int i = 1; i < argc; ++i) given.add(argv[i]);
    return parseOwn(std::move(given));
  }
  auto helper = translateHelperArguments(argc, argv);
  if (!helper) return helper.error();
  for (const std::string& argument : helper->arguments) given.add(argument.c_str());
  auto options = parseOwn(std::move(given));
  if (options && options->action == Action::kMount && helper->fake) {
    options->action = Action::kCheck;
  }
  return options;
}

}  // namespace zor::client::mount
