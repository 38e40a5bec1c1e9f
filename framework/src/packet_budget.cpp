#include "zor_packet.h"

namespace zor {

void releaseBudget(const PacketBuffer& buffer) noexcept {
  if (buffer.budget != nullptr) buffer.budget->ReleasePacket(buffer.charge);
}

}  // namespace zor
