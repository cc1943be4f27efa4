// quiver verify: every check the library knows, over a whole backup, without stopping at the first
// problem. Each problem is one line (or one JSON object per line with --json); the status is 0 when
// the backup is sound, warnings or not, and 4 when anything is damaged.
#include <unistd.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Tool.hpp"

namespace QuiverTool {

namespace {

using json = nlohmann::json;

struct VerifyOptions {
    std::string backup;
    bool quick = false;
    bool json = false;
};

std::string ProblemLine(const quiver::Problem& p) {
    std::string subject = p.domain.empty() && p.path.empty()
                              ? fmt::format("{} {}", p.kind == "metadata-not-a-property-list" ? "metadata file" : "stored file",
                                            Printable(p.storedName))
                              : fmt::format("{} {}", Printable(p.domain), Printable(p.path));
    if (!p.storedName.empty() && !p.domain.empty()) subject += fmt::format(" (stored as {})", p.storedName);
    return fmt::format("{}: {}: {} {}\n", p.warning ? "warning" : "damaged", p.kind, subject, p.detail);
}

json ProblemJson(const quiver::Problem& p) {
    auto orNull = [](const std::string& s) { return s.empty() ? json(nullptr) : json(s); };
    return json{{"kind", p.kind},
                {"warning", p.warning},
                {"domain", orNull(p.domain)},
                {"path", orNull(p.path)},
                {"fileID", orNull(p.fileID)},
                {"storedName", orNull(p.storedName)},
                {"storedLength", p.storedLength},
                {"protectionClass", p.protectionClass ? json(*p.protectionClass) : json(nullptr)},
                {"detail", p.detail}};
}

int RunVerify(const VerifyOptions& o, const GlobalOptions& global) {
    OpenBackup open = LoadBackup(o.backup, global);
    const quiver::Backup& backup = open.get();
    int64_t warnings = 0;
    std::optional<uint64_t> damaged;
    {
        Progress progress(o.quick ? "Checking (quick)" : "Checking every stored byte");
        // A failed write ends the walk; the library is not told why.
        std::optional<Failure> written;
        try {
            damaged = backup.verify(
                o.quick ? quiver::VerifyMode::Quick : quiver::VerifyMode::Full,
                [&](const quiver::Problem& p) {
                    if (p.warning) ++warnings;
                    if (written) return;
                    try {
                        WriteAll(STDOUT_FILENO, o.json ? ProblemJson(p).dump() + "\n" : ProblemLine(p));
                    } catch (const Failure& f) {
                        written = f;
                    }
                },
                [&](double fraction) { progress.Update(fraction); });
        } catch (const quiver::Error& e) {
            throw Failure(kFailure, "cannot verify the backup: " + std::string(e.what()));
        }
        if (written) throw *written;
    }
    if (*damaged > 0)
        throw Failure(kBadBackup, fmt::format("the backup is damaged: {} problem{} found{}", *damaged,
                                              *damaged == 1 ? "" : "s",
                                              warnings > 0 ? fmt::format(", and {} warning{}", warnings, warnings == 1 ? "" : "s") : ""));
    if (!o.json)
        WriteAll(STDERR_FILENO, fmt::format("quiver: the backup is sound{}\n",
                                            warnings > 0 ? fmt::format(" ({} warning{})", warnings, warnings == 1 ? "" : "s") : ""));
    return kSuccess;
}

}  // namespace

void AddVerifyCommand(CLI::App& app, const GlobalOptions& global, Action& action) {
    auto verify = std::make_shared<VerifyOptions>();
    CLI::App* command = app.add_subcommand(
        "verify", "Check every stored file and the manifest, and list every problem (status 4 when damaged)");
    command->add_option("BACKUP", verify->backup, "Backup directory or zip file")->required();
    command->add_flag("--quick", verify->quick, "Only what needs no full read: presence, lengths, keys, padding");
    command->add_flag("--json", verify->json, "One JSON object per problem, one per line");
    command->callback([verify, &global, &action] { action = [verify, &global] { return RunVerify(*verify, global); }; });
}

}  // namespace QuiverTool
