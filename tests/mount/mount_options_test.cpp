#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mount/options.h"

namespace zor::client::mount {
namespace {

using ::testing::HasSubstr;
using Words = std::vector<const char*>;

Result<MountOptions, std::string> parse(const Words& words) {
  return parseOptions(static_cast<int>(words.size()), words.data());
}

std::string forSession(const fuse_args& arguments) {
  std::string text;
  for (int i = 1; i < arguments.argc; ++i) text += std::string(arguments.argv[i]) + " ";
  return text;
}

TEST(MountOptions, BothFormsMeanTheSame) {
  const std::vector<Words> forms = {
      {"udisk-mount", "-o", "uid=1000,gid=5,umask=027,ro,allow_other", "/run/a,b", "-o",
       "quiet,timeout=2.5,attr_timeout=0.25,bandwidth=8000,allow_host_user=root,stats", "/mnt"},
      {"/sbin/mount.udisk", "/run/a,b", "/mnt", "-sn", "-v", "-t", "udisk", "-o",
       "rw,noauto,user,_netdev,x-systemd.automount,comment=a b,nofail,uid=1000,gid=5,umask=027,ro,"
       "allow_other,quiet,timeout=2.5,attr_timeout=0.25,bandwidth=8000,allow_host_user=root,stats,"
       "defaults"},
  };
  for (const Words& form : forms) {
    auto options = parse(form);
    ASSERT_TRUE(options) << options.error();
    EXPECT_EQ(options->socketPath + " " + options->mountPoint, "/run/a,b /mnt");
    const OwnershipOverride& shown = options->ownership;
    EXPECT_TRUE(shown.uid == 1000U && shown.gid == 5U && shown.umask == 027U);
    EXPECT_TRUE(options->quiet && options->metrics && options->bandwidthKbit == 8000U);
    EXPECT_EQ(options->allowedHostUser, 0U);
    EXPECT_EQ(options->timeout + options->attributeTimeout, std::chrono::milliseconds(2750));
    EXPECT_THAT(forSession(*options->fuseArguments.get()),
                AllOf(HasSubstr("fsname=/run/a\\,b"), HasSubstr("allow_other"),
                      HasSubstr("default_permissions")));
  }
}

TEST(MountOptions, HyphenFIsForegroundOrFake) {
  EXPECT_TRUE(parse({"udisk-mount", "-f", "s", "m"})->foreground);
  EXPECT_EQ(parse({"mount.udisk", "s", "m", "-fo", "ro"})->action, Action::kCheck);
}

TEST(MountOptions, WrongOnesAreNamed) {
  const std::vector<std::pair<Words, const char*>> cases = {
      {{"u", "s"}, "mount point"},
      {{"u", "s", "m", "-o", "umask=8"}, "umask=8"},
      {{"u", "s", "m", "-o", "uid=4294967295"}, "uid="},
      {{"u", "s", "m", "-o", "attr_timeout=nan"}, "attr_timeout=nan"},
      {{"u", "s", "m", "-o", "bandwidth=1e3"}, "bandwidth=1e3"},
      {{"u", "s", "m", "-o", "uidd=3"}, "uidd=3"},
      {{"u", "s", "m", "--allow-host-user=no-such"}, "--allow-host-user=no-such: there is no"},
      {{"mount.udisk", "s", "m", "-fo", "noauto,uidd=3"}, "uidd=3"},
      {{"mount.udisk", "s", "m", "-N", "/proc/1/ns/mnt"}, "nsenter"},
  };
  for (const auto& [words, part] : cases) {
    const auto options = parse(words);
    ASSERT_FALSE(options) << part;
    EXPECT_THAT(options.error(), HasSubstr(part));
  }
}

}  // namespace
}  // namespace zor::client::mount
