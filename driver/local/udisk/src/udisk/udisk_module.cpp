// What the framework's loader finds in this library.
#include "udisk_driver.h"

extern "C" {
// Not const: a const object would stay private to this library.
__attribute__((visibility("default"))) constinit zor::ZorDriverModule ZOR_DRV_MODULE = {
    &zor::udisk_open, 0, {2, 0xFFFF, 0xFFFF, 0}, "udisk-redir"};
}
