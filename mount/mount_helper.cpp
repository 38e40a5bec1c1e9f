// mount.udisk SOURCE TARGET [-sfnv] [-N NAMESPACE] [-o OPTIONS] [-t TYPE]
#include <algorithm>
#include <array>
#include <string_view>

#include "mount/options.h"

namespace zor::client::mount {
namespace {

// Words of an fstab line for mount(8) and init systems.
constexpr std::array<std::string_view, 12> kOtherWords{"auto",   "noauto",  "user",     "nouser",
                                                       "users",  "nousers", "owner",    "group",
                                                       "nofail", "_netdev", "defaults", "noowner"};

bool isForOthers(std::string_view word) {
  return word.empty() || word.starts_with("x-") || word.starts_with("X-") ||
         word.starts_with("comment=") || word.starts_with("user=") ||
         word.starts_with("uhelper=") ||
         std::find(kOtherWords.begin(), kOtherWords.end(), word) != kOtherWords.end();
}

/// Adds the words of a list that is separated by commas; a backslash escapes a comma.
void addWords(std::string_view list, std::vector<std::string>& arguments) {
  while (!list.empty()) {
    std::size_t end = 0;
    while (end < list.size() && list[end] != ',') end += list[end] == '\\' ? 2 : 1;
    end = std::min(end, list.size());
    const std::string_view word = list.substr(0, end);
    list.remove_prefix(std::min(end + 1, list.size()));
    if (isForOthers(word)) continue;
    arguments.emplace_back("-o");
    arguments.emplace_back(word);
  }
}

}  // namespace

bool isMountHelper(std::string_view programName) {
  return programName.substr(programName.rfind('/') + 1).starts_with("mount.");
}

Result<HelperArguments, std::string> translateHelperArguments(int argc, const char* const* argv) {
  HelperArguments result;
  std::vector<std::string> places;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument(argv[i]);
    if (argument == "-h" || argument == "--help" || argument == "-V" || argument == "--version") {
      result.arguments.emplace_back(argument);
      continue;
    }
    if (argument.size() < 2 || argument.front() != '-') {
      places.emplace_back(argument);
      continue;
    }
    for (std::size_t at = 1; at < argument.size(); ++at) {
      const char letter = argument[at];
      if (letter == 's' || letter == 'n' || letter == 'v') continue;
      if (letter == 'f') {
        result.fake = true;
        continue;
      }
      if (letter == 'N') {
        return std::string(
            "-N: cannot mount in another namespace; run udisk-mount inside of it with nsenter");
      }
      if (letter != 'o' && letter != 't') {
        return "-" + std::string(1, letter) + " is not an option of mount helpers; use -o OPTIONS";
      }
      std::string_view value = argument.substr(at + 1);
      if (value.empty()) {
        if (++i == argc) return "-" + std::string(1, letter) + " needs a value behind it";
        value = argv[i];
      }
      if (letter == 'o') addWords(value, result.arguments);
      break;
    }
  }
  // A place may begin with a hyphen.
  result.arguments.emplace_back("--");
  result.arguments.insert(result.arguments.end(), places.begin(), places.end());
  return result;
}

}  // namespace zor::client::mount
