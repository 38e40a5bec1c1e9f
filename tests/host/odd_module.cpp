// Shared objects that the host must refuse, each for one reason.
#include "zor_driver.h"

namespace {
[[maybe_unused]] zor::ZorDriver* openNothing(zor::ZorDevice*, const std::string&) {
  return nullptr;
}
}  // namespace

extern "C" {
#if defined(ODD_NO_DESCRIPTOR)
extern const int someOtherSymbol;
const int someOtherSymbol = 1;
#elif defined(ODD_OTHER_SYMBOL)
void ZOR_DRV_MODULE() {}
#else
#if defined(ODD_WRONG_NAME)
constexpr const char* kName = "another-module";
#elif defined(ODD_NULL_NAME)
constexpr const char* kName = nullptr;
#else
constexpr const char* kName = "udisk-redir";
#endif
#if defined(ODD_NULL_OPEN)
#define ODD_OPEN nullptr
#else
#define ODD_OPEN openNothing
#endif
extern const zor::ZorDriverModule ZOR_DRV_MODULE;
const zor::ZorDriverModule ZOR_DRV_MODULE = {ODD_OPEN, 0, {2, 0xffff, 0xffff, 0}, kName};
#endif
}
