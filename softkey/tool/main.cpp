// velkor-softkey: makes software keys and puts keys and certificates on them.
#include "tool/session.h"

#include <cstdio>
#include <exception>

namespace
{

using namespace softkey;

int fail(const std::string& reason, ExitCode code)
{
    std::fprintf(stderr, "velkor-softkey: %s\n", reason.c_str());
    return static_cast<int>(code);
}

int failPin(const Refusal& refusal)
{
    std::string reason = refusal.what();
    if (refusal.triesLeft() != Refusal::TRIES_UNKNOWN)
        reason += " (" + std::to_string(refusal.triesLeft()) + " tries left)";
    return fail(reason, rowOf(refusal.status()).exitCode);
}

int run(CLI::App& app, int argc, char** argv)
{
    try {
        app.parse(argc, argv);
        return static_cast<int>(ExitCode::Done);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0)
            return app.exit(error); // Help or version.
        return fail(error.what(), ExitCode::Usage);
    } catch (const Refusal& refusal) {
        return failPin(refusal);
    } catch (const WriteFailure& failure) {
        return fail(failure.what(), ExitCode::NotWritten);
    } catch (const std::exception& error) {
        return fail(error.what(), ExitCode::Failed);
    }
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("Makes and manages Velkor software keys.", "velkor-softkey");
    Session session;
    app.add_option("--home", session.home, "Folder of the keys (default: VELKOR_SOFTKEY_HOME or the data folder)");
    app.add_flag("--json", session.json, "Print results as JSON");
    app.set_version_flag("--version", "velkor-softkey " VELKOR_VERSION, "Print the version and exit");
    app.require_subcommand(1);
    app.fallthrough(); // --home and --json may also follow the command.
    addManagementCommands(app, session);
    addPinCommands(app, session);
    addContentCommands(app, session);
    return run(app, argc, argv);
}
