// velkor-softkey: makes software keys and puts keys and certificates on them.
#include "tool/session.h"

#include "crypto/openssl.h"

#include <algorithm>
#include <exception>
#include <string_view>

namespace
{

using namespace softkey;

/// Says why a command has failed; with more fields where the answer is JSON.
class Ending
{
public:
    /// Not by what the options were parsed to: when that failed, they may not have been.
    Ending(int argc, char** argv) : asJson_(std::find(argv, argv + argc, std::string_view("--json")) != argv + argc) {}

    int fail(const std::string& reason, ExitCode code, nlohmann::json details = nlohmann::json::object()) const
    {
        details["error"] = reason;
        details["exitCode"] = static_cast<int>(code);
        tell(asJson_, details, reason);
        return static_cast<int>(code);
    }

    int refuse(const Refusal& refusal) const
    {
        const StatusRow& row = rowOf(refusal.status());
        nlohmann::json details = {{"status", static_cast<int>(row.status)}, {"name", row.name}};
        std::string reason = refusal.what();
        if (refusal.triesLeft() != Refusal::TRIES_UNKNOWN) {
            reason += " (" + std::to_string(refusal.triesLeft()) + " tries left)";
            details["triesLeft"] = refusal.triesLeft();
        }
        if (row.status == SoftkeyStatus::PinLocked)
            reason += "; if it is the user PIN, velkor-softkey unlock sets a new one with the SO PIN";
        return fail(reason, row.exitCode, details);
    }

private:
    bool asJson_;
};

int run(CLI::App& app, int argc, char** argv)
{
    const Ending ending(argc, argv);
    try {
        require(startOpenSsl()); // Names of certificates are made before a key is looked at.
        app.parse(argc, argv);
        return static_cast<int>(ExitCode::Done);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0)
            return app.exit(error); // Help or version.
        return ending.fail(error.what(), ExitCode::Usage);
    } catch (const Refusal& refusal) {
        return ending.refuse(refusal);
    } catch (const Failure& failure) {
        return ending.fail(failure.what(), failure.exitCode());
    } catch (const std::exception& error) {
        return ending.fail(error.what(), ExitCode::Failed);
    }
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("Makes and manages Velkor software keys.", "velkor-softkey");
    Session session;
    app.add_option("--home", session.home, "Folder of the keys (default: VELKOR_SOFTKEY_HOME or the data folder)");
    app.add_flag("--json", session.json, "Print results, warnings and failures as JSON");
    app.set_version_flag("--version", "velkor-softkey " VELKOR_VERSION, "Print the version and exit");
    app.require_subcommand(1);
    app.fallthrough(); // --home and --json may also follow the command.
    addManagementCommands(app, session);
    addOverviewCommands(app, session);
    addPinCommands(app, session);
    addContentCommands(app, session);
    addImportCommands(app, session);
    addRequestCommands(app, session);
    addDoctorCommand(app, session);
    addExportCommands(app, session);
    return run(app, argc, argv);
}
