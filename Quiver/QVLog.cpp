#include "Quiver/QVLog.hpp"

#include <cstdlib>

#include <spdlog/sinks/stdout_color_sinks.h>

namespace Quiver {

spdlog::logger& Logger() {
    static std::shared_ptr<spdlog::logger> logger = [] {
        auto existing = spdlog::get(kLoggerName);
        if (existing) return existing;
        auto created = spdlog::stderr_color_mt(kLoggerName);
        created->set_pattern("[%Y-%m-%d %H:%M:%S.%e] [%n] [%l] %v");
        spdlog::level::level_enum level = spdlog::level::warn;
        if (const char* env = std::getenv("QUIVER_LOG_LEVEL")) level = spdlog::level::from_str(env);
        created->set_level(level);
        return created;
    }();
    return *logger;
}

spdlog::level::level_enum ToSpdlogLevel(log_level level) {
    switch (level) {
        case log_level::debug: return spdlog::level::debug;
        case log_level::info: return spdlog::level::info;
        case log_level::warning: return spdlog::level::warn;
        case log_level::error: return spdlog::level::err;
    }
    return spdlog::level::err;
}

std::string to_log_string(const CF::Error& error, bool withUnderlying, unsigned indent) {
    if (!error) return "(no error)";
    std::string text = fmt::format("{}{} code {}: {}", std::string(indent, ' '), error.Domain().utf8(), error.Code(),
                                   error.Description());
    std::string reason = error.Reason();
    if (!reason.empty()) text.append(" (").append(reason).append(")");
    if (withUnderlying && indent < 32) {
        if (CF::Error underlying = error.Underlying())
            text.append("\n").append(to_log_string(underlying, true, indent + 4));
    }
    return text;
}

void LogError(log_level level, const CF::Error& error) {
    spdlog::logger& logger = Logger();
    const auto spdLevel = ToSpdlogLevel(level);
    if (!logger.should_log(spdLevel)) return;
    logger.log(spdLevel, "{}", to_log_string(error));
}

}  // namespace Quiver
