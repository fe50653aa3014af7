#include "tool/session.h"

#include "platform/default_folder.h"
#include "platform/exposure.h"
#include "store/key_settings.h"

#include <cstdio>

namespace softkey
{

namespace
{

/// Labels may hold any bytes.
std::string dumped(const nlohmann::json& document, int indentation)
{
    return document.dump(indentation, ' ', false, nlohmann::json::error_handler_t::replace);
}

} // namespace

void Session::warnOfReaders(const std::filesystem::path& path) const
{
    if (exposureOf(path) == Exposure::Readable)
        warn("others may read " + path.string() + " (chmod go-rwx)");
}

void Session::warn(const std::string& text) const
{
    tell(json, {{"warning", text}}, "warning: " + text);
}

const std::filesystem::path& Session::folder()
{
    if (!folder_.empty())
        return folder_;
    const std::filesystem::path wanted = home.empty() ? defaultKeysFolder() : std::filesystem::absolute(home);
    if (wanted.empty())
        throw Refusal(SoftkeyStatus::StorageFailed, "there is no home folder; set VELKOR_SOFTKEY_HOME");
    if (!ensureFolder(wanted))
        throw Refusal(SoftkeyStatus::StorageFailed,
                      "cannot make the folder " + wanted.string() + "; set VELKOR_SOFTKEY_HOME to another one");
    if (exposureOf(wanted) == Exposure::Writable)
        throw Refusal(SoftkeyStatus::FileExposed, wanted.string() + " has to be the user's own (chown, chmod go-w)");
    warnOfReaders(wanted);
    folder_ = wanted;
    keys_.open(folder_);
    return folder_;
}

KeysFolder& Session::keys()
{
    folder();
    return keys_;
}

std::shared_ptr<SoftKey> Session::key(const std::string& serialNumber)
{
    const std::filesystem::path path = folder() / (serialNumber + std::string(KEY_FILE_SUFFIX));
    try {
        std::shared_ptr<SoftKey> found = keys().find(serialNumber, KeysFolder::Identity::Checked);
        warnOfReaders(path);
        return found;
    } catch (const Refusal& refusal) {
        if (refusal.status() == SoftkeyStatus::DeviceRemoved)
            throw Refusal(refusal.status(),
                          "there is no " + path.string() + " (velkor-softkey list shows what there is)");
        throw Refusal(refusal.status(), path.string());
    }
}

std::shared_ptr<SoftKey> Session::pluggedKey(const std::string& serialNumber)
{
    std::shared_ptr<SoftKey> found = key(serialNumber);
    if (!found->contents()->device.plugged)
        throw Refusal(SoftkeyStatus::DeviceRemoved,
                      serialNumber + " is unplugged (velkor-softkey plug " + serialNumber + ")");
    return found;
}

void Session::print(const nlohmann::json& result, const std::string& text) const
{
    const std::string line = json ? dumped(result, 2) : text;
    if (std::puts(line.c_str()) < 0 || std::fflush(stdout) != 0)
        throw notWritten("standard output");
}

void tell(bool asJson, const nlohmann::json& message, const std::string& text)
{
    const std::string line = asJson ? dumped(message, -1) : "velkor-softkey: " + text;
    std::fprintf(stderr, "%s\n", line.c_str());
}

void addSerialNumber(CLI::App& command, std::string& serialNumber)
{
    command.add_option("serial", serialNumber, "Serial number of the key")->required()->type_name("SERIAL");
}

std::string hexText(Bytes bytes)
{
    std::string text;
    for (const unsigned char byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

ByteVector bytesFromHex(const std::string& text)
{
    const bool sound = text.size() % 2 == 0 && text.size() <= 2 * OBJECT_ID_CAPACITY &&
                       text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    if (!sound)
        throw Refusal(SoftkeyStatus::BadArgument, "an object ID is up to 128 bytes in hexadecimal");
    ByteVector bytes;
    for (std::size_t position = 0; position < text.size(); position += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(position, 2), nullptr, 16)));
    return bytes;
}

std::string printable(std::string_view text)
{
    std::string shown(text);
    for (char& character : shown) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20 || byte == 0x7f)
            character = '?';
    }
    return shown;
}

} // namespace softkey
