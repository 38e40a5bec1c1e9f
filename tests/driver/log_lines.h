// What the code under test writes to the log.
#pragma once

#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "morvel_log.h"

namespace zor::test {

/// Takes every line for as long as it lives, on whichever thread.
class LogLines : public spdlog::sinks::base_sink<std::mutex> {
 public:
  LogLines() {
    const spdlog::sink_ptr self(std::shared_ptr<void>(), this);
    spdlog::set_default_logger(std::make_shared<spdlog::logger>("lines", self));
    spdlog::set_level(spdlog::level::trace);
    morvelLogSetLevel(kLogFrequent);
  }
  ~LogLines() override {
    spdlog::drop_all();
    morvelLogSetLevel(kLogError);
  }

  /// The lines that contain `part`, in order.
  std::vector<std::string> all(const std::string& part = "", bool onlyErrors = false) {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> found;
    for (const auto& [level, text] : mLines) {
      const bool wanted = !onlyErrors || level == spdlog::level::err;
      if (wanted && text.find(part) != std::string::npos) found.push_back(text);
    }
    return found;
  }
  std::size_t errors(const std::string& part = "") { return all(part, true).size(); }
  bool has(const std::string& part) { return !all(part).empty(); }
  void clear() {
    const std::lock_guard lock(mutex_);
    mLines.clear();
  }

  /// Called for every line, on the thread that writes it. Set it before there is one.
  std::function<void(const std::string&)> onLine;

 private:
  void sink_it_(const spdlog::details::log_msg& line) override {
    mLines.emplace_back(line.level, std::string(line.payload.data(), line.payload.size()));
    if (onLine) onLine(mLines.back().second);
  }
  void flush_() override {}

  std::vector<std::pair<spdlog::level::level_enum, std::string>> mLines;
};

}  // namespace zor::test
