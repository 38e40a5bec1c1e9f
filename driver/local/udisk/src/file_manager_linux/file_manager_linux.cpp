#include "file_manager_linux.h"

#include <unistd.h>

namespace zor {

FileManagerLinux::~FileManagerLinux() { ::sync(); }

}  // namespace zor
