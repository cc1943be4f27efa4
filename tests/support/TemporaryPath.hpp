// Tests that need the library's temporary storage path call UseTestTemporaryPath() first: it sets the
// path once per test process to a fresh directory below the system's temporary directory.
#pragma once

#include <filesystem>

namespace QuiverTest {

std::filesystem::path UseTestTemporaryPath();

}  // namespace QuiverTest
