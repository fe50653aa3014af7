// What the commands of the tool share: the keys folder and the form of the output.
#pragma once

#include "store/keys_folder.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <stdexcept>
#include <string>

namespace softkey
{

/// An output that could not be written to its end.
class WriteFailure : public std::runtime_error
{
public:
    explicit WriteFailure(const std::string& name) : std::runtime_error("cannot write " + name) {}
};

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

    /// Prints a result: JSON, or `text` as a line of its own. Throws WriteFailure.
    void print(const nlohmann::json& result, const std::string& text) const;

private:
    std::filesystem::path folder_;
    KeysFolder keys_;
};

void addSerialNumber(CLI::App& command, std::string& serialNumber);

std::string hexText(Bytes bytes);
/// Throws BadArgument for a text that is not hexadecimal or longer than an object ID.
ByteVector bytesFromHex(const std::string& text);
/// A label as it can be shown on a terminal.
std::string printable(std::string_view text);

void addManagementCommands(CLI::App& app, Session& session);
void addPinCommands(CLI::App& app, Session& session);
void addContentCommands(CLI::App& app, Session& session);

} // namespace softkey
