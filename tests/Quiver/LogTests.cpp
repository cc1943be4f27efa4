// The library logger: its name, the level mapping, and that messages are formatted only when logged.
#include <gtest/gtest.h>

#include <spdlog/sinks/ostream_sink.h>

#include <sstream>

#include "Quiver/QVError.hpp"
#include "Quiver/QVLog.hpp"

namespace {

// Counts how often it is formatted.
struct Expensive {
    int* formatted;
};

}  // namespace

template <>
struct fmt::formatter<Expensive> : fmt::formatter<std::string_view> {
    auto format(const Expensive& e, format_context& ctx) const {
        ++*e.formatted;
        return fmt::formatter<std::string_view>::format("expensive", ctx);
    }
};

class Logging : public ::testing::Test {
protected:
    void SetUp() override {
        auto& logger = Quiver::Logger();
        savedSinks = logger.sinks();
        savedLevel = logger.level();
        logger.sinks() = {std::make_shared<spdlog::sinks::ostream_sink_mt>(out)};
        logger.set_pattern("%l|%n|%v");
    }
    void TearDown() override {
        auto& logger = Quiver::Logger();
        logger.sinks() = savedSinks;
        logger.set_level(savedLevel);
    }
    std::ostringstream out;
    std::vector<spdlog::sink_ptr> savedSinks;
    spdlog::level::level_enum savedLevel{};
};

TEST_F(Logging, LoggerIsRegisteredUnderTheLibraryNameAndNumericLevelsMapInOrder) {
    EXPECT_EQ(Quiver::Logger().name(), "AppleDevice.Backup");
    EXPECT_EQ(spdlog::get("AppleDevice.Backup").get(), &Quiver::Logger());
    using Quiver::log_level;
    EXPECT_EQ(static_cast<int>(log_level::debug), 1);
    EXPECT_EQ(Quiver::ToSpdlogLevel(log_level::debug), spdlog::level::debug);
    EXPECT_EQ(Quiver::ToSpdlogLevel(log_level::info), spdlog::level::info);
    EXPECT_EQ(Quiver::ToSpdlogLevel(log_level::warning), spdlog::level::warn);
    EXPECT_EQ(Quiver::ToSpdlogLevel(log_level::error), spdlog::level::err);
}

TEST_F(Logging, MessagesBelowTheLevelAreNeverFormattedErrorsComeWithTheirChain) {
    int formatted = 0;
    Quiver::Logger().set_level(spdlog::level::warn);
    Quiver::log_fmt(Quiver::log_level::info, "value {}", Expensive{&formatted});
    EXPECT_EQ(formatted, 0);
    EXPECT_EQ(out.str(), "");
    Quiver::log_fmt(Quiver::log_level::warning, "value {}", Expensive{&formatted});
    EXPECT_EQ(formatted, 1);
    EXPECT_EQ(out.str(), "warning|AppleDevice.Backup|value expensive\n");
    // Errors are logged with their chain.
    CF::Error e = Quiver::Error(QVErrorInvalidBackup, Quiver::MakeErrnoError(2, "inner"), "outer");
    Quiver::LogErrorFmt(Quiver::log_level::error, e.get(), "loading {}", "backup");
    std::string text = out.str();
    EXPECT_NE(text.find("loading backup: Quiver.ErrorDomain code 10: Invalid backup (outer)"), std::string::npos) << text;
    EXPECT_NE(text.find("NSPOSIXErrorDomain code 2"), std::string::npos) << text;
}
