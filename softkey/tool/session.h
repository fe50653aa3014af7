// What the commands of the tool share: the keys folder and the form of the output.
#pragma once

#include "store/keys_folder.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <stdexcept>
#include <string>

namespace softkey
{

/// Ends a command for a reason that is the tool's own and no status of a key.
class Failure : public std::runtime_error
{
public:
    Failure(ExitCode exitCode, const std::string& reason) : std::runtime_error(reason), exitCode_(exitCode) {}
    ExitCode exitCode() const noexcept { return exitCode_; }

private:
    ExitCode exitCode_;
};

/// An output that could not be written to its end.
inline Failure notWritten(const std::string& name)
{
    return {ExitCode::NotWritten, "cannot write " + name};
}

class Session
{
public:
    std::string home; ///< Option: the keys folder, when it is not the default.
    bool json = false;

    /// Makes the folder on first use; throws with the path that was tried.
    const std::filesystem::path& folder();
    KeysFolder& keys();
    /// Any key of the folder, or DeviceRemoved.
    std::shared_ptr<SoftKey> key(const std::string& serialNumber);
    /// A key that is plugged in, or DeviceRemoved.
    std::shared_ptr<SoftKey> pluggedKey(const std::string& serialNumber);

    /// Prints a result: JSON, or `text` as a line of its own. Throws a Failure when it cannot be written.
    void print(const nlohmann::json& result, const std::string& text) const;
    /// Says on standard error what the user should know of a command that goes on.
    void warn(const std::string& text) const;

private:
    void warnOfReaders(const std::filesystem::path& path) const;

    std::filesystem::path folder_;
    KeysFolder keys_;
};

/// One line on standard error: JSON, or the tool's name and `text`.
void tell(bool asJson, const nlohmann::json& message, const std::string& text);

void addSerialNumber(CLI::App& command, std::string& serialNumber);

std::string hexText(Bytes bytes);
/// Throws BadArgument for a text that is not hexadecimal or longer than an object ID.
ByteVector bytesFromHex(const std::string& text);
/// A label as it can be shown on a terminal.
std::string printable(std::string_view text);

void addManagementCommands(CLI::App& app, Session& session);
void addPinCommands(CLI::App& app, Session& session);
void addContentCommands(CLI::App& app, Session& session);
void addOverviewCommands(CLI::App& app, Session& session);
void addDoctorCommand(CLI::App& app, Session& session);
void addImportCommands(CLI::App& app, Session& session);
void addRequestCommands(CLI::App& app, Session& session);
void addExportCommands(CLI::App& app, Session& session);

} // namespace softkey
