// The manual page and the shell completions name every command the tool has, and each command's
// options, so that they do not fall behind when a command or option is added.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "tool/ToolRunner.hpp"

namespace fs = std::filesystem;
using namespace QuiverToolTest;

namespace {

const fs::path kDocs = fs::path(__FILE__).parent_path().parent_path().parent_path() / "docs";

std::string ReadText(const fs::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The commands `quiver --help` lists.
std::vector<std::string> Commands() {
    RunResult help = RunTool({"--help"}, {});
    std::vector<std::string> commands;
    const size_t start = help.out.find("Subcommands:");
    std::istringstream in(help.out.substr(start == std::string::npos ? help.out.size() : start));
    std::regex line(R"(^  ([a-z]+)\s)");
    for (std::string text; std::getline(in, text);) {
        std::smatch m;
        if (std::regex_search(text, m, line)) commands.push_back(m[1]);
    }
    return commands;
}

// The long options `quiver COMMAND --help` lists, global ones aside.
std::vector<std::string> Options(const std::string& command) {
    RunResult help = RunTool({command, "--help"}, {});
    const std::string own = help.out.substr(0, help.out.find("Global options"));
    std::vector<std::string> options;
    std::regex option(R"(--[a-z][a-z-]+)");
    for (auto it = std::sregex_iterator(own.begin(), own.end(), option); it != std::sregex_iterator(); ++it)
        if (it->str() != "--help") options.push_back(it->str());
    return options;
}

TEST(Documentation, ManualAndCompletionsNameEveryCommandAndOption) {
    const std::vector<std::string> commands = Commands();
    ASSERT_GE(commands.size(), 10u);
    const std::string manual = ReadText(kDocs / "quiver.1");
    const std::string bash = ReadText(kDocs / "completions" / "quiver.bash");
    const std::string zsh = ReadText(kDocs / "completions" / "_quiver");
    ASSERT_FALSE(manual.empty() || bash.empty() || zsh.empty()) << "missing files below " << kDocs;
    const size_t listed = bash.find("local commands=\"");
    ASSERT_NE(listed, std::string::npos);
    const std::string bashCommands = " " + bash.substr(listed + 16, bash.find('"', listed + 16) - listed - 16) + " ";
    // The manual page escapes hyphens: "\-\-json".
    auto roff = [](std::string text) { return std::regex_replace(text, std::regex("-"), "\\-"); };
    for (const std::string& command : commands) {
        EXPECT_NE(manual.find(".BR " + command + " "), std::string::npos) << command;
        EXPECT_NE(bashCommands.find(" " + command + " "), std::string::npos) << command;
        EXPECT_NE(zsh.find("'" + command + ":"), std::string::npos) << command;
        for (const std::string& option : Options(command)) {
            EXPECT_NE(manual.find(roff(option)), std::string::npos) << command << " " << option;
            EXPECT_NE(bash.find(option), std::string::npos) << command << " " << option;
            EXPECT_NE(zsh.find(option), std::string::npos) << command << " " << option;
        }
    }
}

}  // namespace
