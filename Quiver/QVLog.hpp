// Logging: one logger, "AppleDevice.Backup", on spdlog. The library's numeric levels 1, 2, 4 and 5 map
// to debug, info, warn and error. A message is formatted only when the logger accepts its level, so
// logging in hot paths costs a level check when the level is off.
#pragma once

#include <string>
#include <utility>

#include <fmt/format.h>
#include <spdlog/spdlog.h>

#include "Quiver/CF/Error.hpp"
#include "Quiver/Export.hpp"

namespace Quiver {

enum class log_level : int {
    debug = 1,    // progress detail
    info = 2,     // progress
    warning = 4,  // a skipped or doubtful item
    error = 5,    // a failure, including those that cannot be reported to a caller
};

inline constexpr const char* kLoggerName = "AppleDevice.Backup";

// The library's logger, registered with spdlog under kLoggerName so that an application can change its
// level and sinks (spdlog::get). It starts at the level named by the environment variable
// QUIVER_LOG_LEVEL (debug, info, warn, error, off), warn by default, and writes to standard error.
spdlog::logger& Logger();

spdlog::level::level_enum ToSpdlogLevel(log_level level);

template <typename... Args>
void log_fmt(log_level level, fmt::format_string<Args...> format, Args&&... args) {
    spdlog::logger& logger = Logger();
    const auto spdLevel = ToSpdlogLevel(level);
    if (!logger.should_log(spdLevel)) return;
    logger.log(spdLevel, fmt::format(format, std::forward<Args>(args)...));
}

// The text of a caught error for the log: domain, code, description, reason, and (when withUnderlying)
// the chain of underlying errors, indented by `indent` blanks.
std::string to_log_string(const CF::Error& error, bool withUnderlying = true, unsigned indent = 0);
void LogError(log_level level, const CF::Error& error);

// Logs the formatted text followed by the error.
template <typename... Args>
void LogErrorFmt(log_level level, CFErrorRef error, fmt::format_string<Args...> format, Args&&... args) {
    spdlog::logger& logger = Logger();
    const auto spdLevel = ToSpdlogLevel(level);
    if (!logger.should_log(spdLevel)) return;
    logger.log(spdLevel, "{}: {}", fmt::format(format, std::forward<Args>(args)...),
               to_log_string(CF::Error::Retain(error)));
}

}  // namespace Quiver
