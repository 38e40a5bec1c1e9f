#include "host/module_loader.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "support/temporary_directory.h"

namespace zor::host {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

TEST(DriverModule, RefusesWhatIsNotTheModule) {
  const client::test::TemporaryDirectory home;
  const std::string directory = home.path();
  const std::string fifo = directory + "/fifo.so", text = directory + "/text.so";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::ofstream(text) << "this is not a shared object";
  const struct {
    std::string file, why;
  } table[] = {{HOST_MODULES "missing.so", "no such file"},
               {directory, "not a regular file"},
               {fifo, "not a regular file"},
               {text, "file too short"},
               {HOST_MODULES "no_descriptor.so", "no descriptor ZOR_DRV_MODULE"},
               {HOST_MODULES "other_symbol.so", "no descriptor ZOR_DRV_MODULE"},
               {HOST_MODULES "wrong_name.so", "another-module"},
               {HOST_MODULES "null_name.so", "its name is \"\""},
               {HOST_MODULES "null_open.so", "no open entry"}};
  for (const auto& row : table) {
    try {
      DriverModule(row.file, "udisk-redir");
      ADD_FAILURE() << row.file << " was taken";
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), AllOf(HasSubstr(row.file), HasSubstr(row.why)));
    }
  }
  EXPECT_NO_THROW(DriverModule(HOST_MODULES "late_module.so", "udisk-redir"));
}

}  // namespace
}  // namespace zor::host
