#include "support/TemporaryPath.hpp"

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
        std::filesystem::path p = std::filesystem::path(pattern) / "storage";
        if (!QuiverSetTemporaryPath(CF::String(p.string()).get())) throw std::runtime_error("could not set temporary path");
        return p;
    }();
    return path;
}

}  // namespace QuiverTest
