#include "host/module_loader.h"

#include <dlfcn.h>
#include <link.h>

#include <cstring>
#include <stdexcept>

#include "support/printable.h"

namespace zor::host {
namespace {

[[noreturn]] void refuse(const std::filesystem::path& file, const std::string& why) {
  throw std::runtime_error(printable(file.string()) + " is not a usable driver module: " + why);
}

// A symbol that only happens to have the descriptor's name must not be read as
// one.
bool isRecord(void* symbol) noexcept {
  Dl_info info{};
  void* extra = nullptr;
  if (::dladdr1(symbol, &info, &extra, RTLD_DL_SYMENT) == 0 || extra == nullptr) return false;
  const auto* entry = static_cast<const ElfW(Sym)*>(extra);
  return ELF64_ST_TYPE(entry->st_info) == STT_OBJECT && entry->st_size >= sizeof(ZorDriverModule);
}

}  // namespace

void DriverModule::Unload::operator()(void* handle) const noexcept { ::dlclose(handle); }

DriverModule::DriverModule(const std::filesystem::path& file, const std::string& name) {
  // A name without a slash would be searched for in the system's directories,
  // and the opening of a FIFO would wait for a writer.
  const std::filesystem::path absolute = std::filesystem::absolute(file);
  std::error_code error;
  const auto status = std::filesystem::status(absolute, error);
  if (error && status.type() != std::filesystem::file_type::not_found) {
    refuse(absolute, error.message());
  }
  if (!std::filesystem::exists(status)) refuse(absolute, "there is no such file");
  if (!std::filesystem::is_regular_file(status)) refuse(absolute, "it is not a regular file");

  mHandle.reset(::dlopen(absolute.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (!mHandle) {
    const char* why = ::dlerror();
    refuse(absolute, why != nullptr ? printable(why) : "it cannot be loaded");
  }
  void* symbol = ::dlsym(mHandle.get(), kDriverModuleSymbol);
  if (symbol == nullptr || !isRecord(symbol)) {
    refuse(absolute, std::string("it has no descriptor ") + kDriverModuleSymbol);
  }
  mDescriptor = static_cast<const ZorDriverModule*>(symbol);
  if (mDescriptor->name == nullptr || mDescriptor->name != name) {
    const char* actual = mDescriptor->name != nullptr ? mDescriptor->name : "";
    refuse(absolute, "its name is \"" + printable(actual) + "\", not \"" + name + "\"");
  }
  if (mDescriptor->open == nullptr) refuse(absolute, "its descriptor has no open entry");
}

std::unique_ptr<ZorDriver> DriverModule::open(ZorDevice& device, const std::string& policy) const {
  return std::unique_ptr<ZorDriver>(mDescriptor->open(&device, policy));
}

std::filesystem::path DriverModule::defaultFile() {
  const auto program = std::filesystem::read_symlink("/proc/self/exe");
  return (program.parent_path() / "../lib/udisk/libudisk-redir.so").lexically_normal();
}

}  // namespace zor::host
