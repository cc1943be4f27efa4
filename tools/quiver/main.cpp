// The quiver command-line tool: inspect, read, extract, edit and write iOS device backups through the
// Quiver library. This file parses the command line, runs the chosen command inside a session (a
// private temporary folder for the library, removed at the end) and turns the outcome into one line
// on standard error and an exit status: 0 success, 1 failure, 2 usage, 3 password, 4 not a usable
// backup.
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <optional>

#include <fmt/format.h>

#include "Tool.hpp"

using namespace QuiverTool;

namespace {

void Report(const std::string& message) {
    if (message.empty()) return;
    try {
        WriteAll(STDERR_FILENO, fmt::format("quiver: {}\n", message));
    } catch (const Failure&) {
    }
}

// The first argument that is neither an option nor an option's value: the command a person meant.
// The parser would only say that a command is required, without naming what it was given.
std::optional<std::string> UnknownCommand(const CLI::App& app, int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") return std::nullopt;
        if (arg == "--password-file") {
            ++i;
            continue;
        }
        if (!arg.empty() && arg[0] == '-') continue;
        for (const CLI::App* command : app.get_subcommands({}))
            if (command->get_name() == arg) return std::nullopt;
        return arg;
    }
    return std::nullopt;
}

// Each command's --help ends with the options that every command takes, which the parser lists
// only in the main help.
std::string GlobalOptionsFooter(const CLI::App& app) {
    std::string text = "\nGlobal options (before or after the command):\n";
    for (const CLI::Option* option : app.get_options()) {
        std::string name = option->get_name(false, true);
        if (!option->get_type_name().empty() && option->get_expected_max() > 0) name += " " + option->get_type_name();
        text += fmt::format("  {:<26}{}\n", name, option->get_description());
    }
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Inspect, extract, edit and write iOS device backups (directories or zip files).\n"
                 "Passwords: QUIVER_PASSWORD, --password-file FILE, or a prompt on a terminal.\n"
                 "Exit status: 0 success, 1 failure, 2 usage, 3 password missing or incorrect,\n"
                 "4 not a backup, damaged, or of an unsupported version.",
                 "quiver");
    app.require_subcommand(1);
    app.fallthrough();
    GlobalOptions global;
    app.add_flag("-v,--verbose", global.verbosity, "Say more, and show the library's log (-vv: all of it)");
    app.add_option("--password-file", global.passwordFile, "Read the backup's password from FILE")
        ->type_name("FILE");
    app.set_version_flag("--version", std::string("quiver ") + QUIVER_VERSION, "Show the version and exit");
    Action action;
    AddInspectCommands(app, global, action);
    AddListCommand(app, global, action);
    AddLookCommands(app, global, action);
    AddVerifyCommand(app, global, action);
    AddReadCommands(app, global, action);
    AddWriteCommands(app, global, action);
    AddConvertCommands(app, global, action);
    const std::string footer = GlobalOptionsFooter(app);
    for (CLI::App* command : app.get_subcommands({})) command->footer(footer);

    if (argc < 2) {
        WriteAll(STDERR_FILENO, app.help());
        return kUsage;
    }
    if (std::optional<std::string> unknown = UnknownCommand(app, argc, argv)) {
        std::string commands;
        for (const CLI::App* command : app.get_subcommands({}))
            commands += (commands.empty() ? "" : ", ") + command->get_name();
        Report(fmt::format("unknown command \"{}\"; the commands are {} (quiver --help says more)", *unknown, commands));
        return kUsage;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? kSuccess : kUsage;
    }
    if (!action) return kUsage;

    int status = kFailure;
    try {
        StartSession();
        ConfigureLogging(global.verbosity);
        status = action();
    } catch (const Failure& f) {
        Report(f.what());
        status = f.status();
    } catch (const std::exception& e) {
        Report(e.what());
        status = kFailure;
    }
    EndSession();
    // Output goes out through write(2) as it is made, so nothing is left to flush; ending here skips
    // freeing what the process drops anyway (see OpenBackup::Release).
    std::fflush(nullptr);
    _exit(status);
}
