// The framework's log function and the macros that write lines through it.
//
//   MORVEL_DEBUG(5, "dir: %s\n", path);   ->  file.cpp Function(12): "Debug:" "dir: /x\n"
//
// The frame is made at compile time by quoting the message literal, so a "\n"
// that ends a message appears in the line as the two characters \ and n.
#pragma once

namespace zor {

/// Levels in use.
enum MorvelLogLevel : int {
  kLogFrequent = 3,  ///< debug lines written per request
  kLogDebug = 5,
  kLogError = 7,
};

/// Sets the lowest level that is written. Thread-safe. Initially kLogError.
void morvelLogSetLevel(int level) noexcept;

/// Whether a line of `level` would be written; lets callers skip the making
/// of arguments that nobody reads. Optional in a framework library.
[[gnu::weak]] bool morvelLogEnabled(int level) noexcept;

/// Writes one line: `format` is filled in printf's manner, control characters
/// are made visible, and the line goes to the default spdlog logger. A text of more than
/// 10,240 bytes is cut there. Lines below the
/// level are dropped before anything is formatted. Never throws; thread-safe.
void morvelLogPrint(int channel, int level, const char* tag, const char* format, ...) noexcept
    __attribute__((format(printf, 4, 5)));

/// The part of a source path behind its last separator.
constexpr const char* sourceBaseName(const char* path) noexcept {
  const char* base = path;
  for (const char* at = path; *at != '\0'; ++at) {
    if (*at == '/' || *at == '\\') base = at + 1;
  }
  return base;
}

/// Whether a line of `level` may be written, as far as the framework library reports it.
inline bool worthLogging(int level) noexcept {
  return morvelLogEnabled == nullptr || morvelLogEnabled(level);
}

/// Whether a quoted message is one literal: two in a row would be quoted with what stands between.
constexpr bool isOneLiteral(const char* quoted) noexcept {
  int quotes = 0;
  for (; *quoted != '\0'; ++quoted) {
    if (*quoted == '"') ++quotes;
    if (*quoted == '\\') ++quoted;
  }
  return quotes == 2;
}

}  // namespace zor

#define MORVEL_QUOTED(literal) #literal
#define MORVEL_FORMAT(kind, message) "%s %s(%d): " MORVEL_QUOTED(kind) " " MORVEL_QUOTED(message)
#define MORVEL_LINE(function, level, kind, message, ...)                                   \
  do {                                                                                     \
    static_assert(::zor::isOneLiteral(MORVEL_QUOTED(message)), "write it as one literal"); \
    if (::zor::worthLogging(level)) {                                                      \
      static constexpr const char* morvelFile = ::zor::sourceBaseName(__FILE__);           \
      ::zor::morvelLogPrint(0, level, "ZOR_LOG", MORVEL_FORMAT(kind, message), morvelFile, \
                            function, __LINE__ __VA_OPT__(, ) __VA_ARGS__);                \
    }                                                                                      \
  } while (false)

#define MORVEL_DEBUG(level, message, ...) \
  MORVEL_LINE(__func__, level, "Debug:", message __VA_OPT__(, ) __VA_ARGS__)
#define MORVEL_ERROR(message, ...) \
  MORVEL_LINE(__func__, ::zor::kLogError, "Error:", message __VA_OPT__(, ) __VA_ARGS__)
// For a part of `function` that is a function by itself.
#define MORVEL_DEBUG_OF(function, level, message, ...) \
  MORVEL_LINE(function, level, "Debug:", message __VA_OPT__(, ) __VA_ARGS__)
#define MORVEL_ERROR_OF(function, message, ...) \
  MORVEL_LINE(function, ::zor::kLogError, "Error:", message __VA_OPT__(, ) __VA_ARGS__)
