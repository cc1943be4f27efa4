#include "support/TemporaryPath.hpp"

#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "Quiver/CF/String.hpp"
#include "Quiver/QVTemporaryPath.hpp"

namespace QuiverTest {

std::filesystem::path UseTestTemporaryPath() {
    static const std::filesystem::path path = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "quiver-test-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        // Removed when the process that made it ends (not a forked child that exits).
        static const std::string made = pattern;
        static const pid_t owner = getpid();
        std::atexit([] {
            std::error_code ec;
            if (getpid() == owner) std::filesystem::remove_all(made, ec);
        });
        std::filesystem::path p = std::filesystem::path(pattern) / "storage";
        if (!QuiverSetTemporaryPath(CF::String(p.string()).get())) throw std::runtime_error("could not set temporary path");
        return p;
    }();
    return path;
}

}  // namespace QuiverTest
