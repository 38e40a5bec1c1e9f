#include "host/cleanup.h"

#include <spdlog/spdlog.h>

#include <exception>
#include <utility>

namespace zor::host {

Cleanup::~Cleanup() {
  for (const Step step : {kRemoveSocket, kUnmount}) tryToRun(step);
}

void Cleanup::run(Step step) {
  const auto action = std::exchange(mActions[step], nullptr);
  if (!action) return;
  mProcess ? mProcess->run(step) : action();
}

void Cleanup::tryToRun(Step step) noexcept {
  try {
    run(step);
  } catch (const std::exception& error) {
    spdlog::error("{}: {}", step == kUnmount ? "cannot unmount" : "the socket is left behind",
                  error.what());
  }
}

}  // namespace zor::host
