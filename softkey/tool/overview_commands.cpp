// Commands that show keys and what is on them: list, info.
#include "tool/objects.h"

#include "crypto/key_kinds.h"
#include "velkor/record_fields.h"

namespace softkey
{
namespace
{

using nlohmann::json;

json pinJson(const PinRecord& pin)
{
    return {{"changed", pin.changed}, {"triesMax", pin.triesMax}, {"triesLeft", pin.triesLeft}};
}

json deviceJson(const Contents& contents)
{
    const DeviceRecord& device = contents.device;
    return {{"serial", device.serialNumber},
            {"label", device.label},
            {"model", device.model},
            {"firmware", device.firmwareVersion},
            {"plugged", device.plugged},
            {"userPin", pinJson(contents.userPin)},
            {"soPin", pinJson(contents.soPin)},
            {"boundToMachine", !contents.userPin.machine.empty()}};
}

void requireReadable(const std::filesystem::path& folder)
{
    std::error_code failure;
    const std::filesystem::directory_iterator files(folder, failure);
    if (failure)
        throw Refusal(SoftkeyStatus::DeviceUnreachable, folder.string() + ": " + failure.message());
}

json objectJson(const VelkorKeyPair& keyPair)
{
    return {{"number", keyPair.id},
            {"kind", traitsOf(keyPair.keyKind).name},
            {"label", keyPair.label},
            {"id", hexText(velkor::objectIdOf(keyPair))},
            {"usage", keyPair.usageFlags},
            {"oaepOnly", keyPair.deviceFlag},
            {"identifier", hexText(keyPair.keyIdentifier)}};
}

json objectJson(const VelkorCertificate& certificate)
{
    return {{"number", certificate.id},
            {"label", certificate.label},
            {"id", hexText(velkor::objectIdOf(certificate))},
            {"size", certificate.der.size()},
            {"identifier", hexText(certificate.certificateIdentifier)}};
}

std::string lineOf(const VelkorKeyPair& keyPair)
{
    return "key pair " + std::to_string(keyPair.id) + "  " + traitsOf(keyPair.keyKind).name + "  id " +
           hexText(velkor::objectIdOf(keyPair)) + "  " + printable(keyPair.label);
}

std::string lineOf(const VelkorCertificate& certificate)
{
    return "certificate " + std::to_string(certificate.id) + "  id " + hexText(velkor::objectIdOf(certificate)) + "  " +
           printable(certificate.label);
}

std::string lineOf(const DeviceRecord& device)
{
    return device.serialNumber + (device.plugged ? "  plugged    " : "  unplugged  ") + printable(device.label);
}

/// A key pair or a certificate, and the lines of what stands below it.
struct Branch {
    std::string line;
    std::vector<std::string> leaves;
};

/// A key of the list, with what is on it when that is listed too.
struct Tree {
    std::string line;
    json document;
    std::vector<Branch> branches;
};

std::string textOf(const Tree& tree)
{
    std::string text = tree.line + '\n';
    for (const Branch& branch : tree.branches) {
        const bool isLast = &branch == &tree.branches.back();
        text += (isLast ? "`-- " : "|-- ") + branch.line + '\n';
        for (const std::string& leaf : branch.leaves) {
            text += isLast ? "    " : "|   ";
            text += (&leaf == &branch.leaves.back() ? "`-- " : "|-- ") + leaf + '\n';
        }
    }
    return text;
}

/// In the tree a certificate says whom it is for, and how long.
std::string leafOf(const VelkorCertificate& certificate)
{
    const std::optional<CertificateDetails> details = detailsOf(certificate);
    return lineOf(certificate) + "  " +
           (details ? printable(details->subject) + ", until " + details->notAfter.substr(0, 10) : "not readable");
}

/// Certificates stand below the key pair that they are for, or below the key.
Tree treeOf(const Contents& contents)
{
    Tree tree{lineOf(contents.device), deviceJson(contents), {}};
    json keyPairs = json::array();
    for (const VelkorKeyPair& keyPair : contents.keyPairs) {
        tree.branches.push_back({lineOf(keyPair), {}});
        keyPairs.push_back(objectJson(keyPair));
        keyPairs.back()["certificates"] = json::array();
    }
    json others = json::array();
    for (const VelkorCertificate& certificate : contents.certificates) {
        const VelkorKeyPair* owner = keyPairOf(certificate, contents);
        if (owner == nullptr) {
            tree.branches.push_back({leafOf(certificate), {}});
            others.push_back(objectJson(certificate));
            continue;
        }
        const auto place = static_cast<std::size_t>(owner - contents.keyPairs.data());
        tree.branches[place].leaves.push_back(leafOf(certificate));
        keyPairs[place]["certificates"].push_back(objectJson(certificate));
    }
    tree.document["keyPairs"] = std::move(keyPairs);
    tree.document["certificates"] = std::move(others);
    return tree;
}

/// A file that cannot be used says why.
Tree listed(Session& session, const std::string& name, bool withObjects)
{
    try {
        const std::shared_ptr<const Contents> contents = session.key(name)->contents();
        return withObjects ? treeOf(*contents) : Tree{lineOf(contents->device), deviceJson(*contents), {}};
    } catch (const Refusal& refusal) {
        const char* reason = rowOf(refusal.status()).text;
        return {name + "  unusable   " + reason, {{"serial", name}, {"error", reason}}, {}};
    }
}

void list(Session& session, bool withObjects)
{
    requireReadable(session.folder());
    json keys = json::array();
    std::string lines;
    for (const std::string& name : session.keys().keyNames()) {
        Tree key = listed(session, name, withObjects);
        lines += textOf(key);
        keys.push_back(std::move(key.document));
    }
    if (keys.empty() && !session.json)
        return tell(false, {}, "there is no key in " + session.folder().string() + "; velkor-softkey create makes one");
    if (!lines.empty())
        lines.pop_back();
    session.print(keys, lines);
}

void addList(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("list", "List all keys");
    const auto withObjects = std::make_shared<bool>(false);
    command->add_flag("--tree", *withObjects, "Also list what is on them, certificates below their key pairs");
    command->callback([&session, withObjects] { list(session, *withObjects); });
}

std::string pinText(const PinRecord& pin)
{
    return std::to_string(pin.triesLeft) + " of " + std::to_string(pin.triesMax) + " tries left" +
           (pin.changed ? "" : ", initial");
}

std::string infoText(const Contents& contents, const std::filesystem::path& path)
{
    const DeviceRecord& device = contents.device;
    std::string text = "serial    " + device.serialNumber + "\nlabel     " + printable(device.label) + "\nmodel     " +
                       printable(device.model) + "\nfirmware  " + printable(device.firmwareVersion) + "\nstate     " +
                       (device.plugged ? "plugged" : "unplugged") + "\nuser PIN  " + pinText(contents.userPin) +
                       "\nSO PIN    " + pinText(contents.soPin) +
                       (contents.userPin.machine.empty() ? "" : "\nbound to  a machine") + "\nfile      " +
                       path.string();
    for (const VelkorKeyPair& keyPair : contents.keyPairs)
        text += "\n" + lineOf(keyPair);
    for (const VelkorCertificate& certificate : contents.certificates)
        text += "\n" + lineOf(certificate);
    return text;
}

void info(Session& session, const std::string& serialNumber)
{
    const std::shared_ptr<SoftKey> key = session.key(serialNumber);
    const std::shared_ptr<const Contents> contents = key->contents();
    json result = deviceJson(*contents);
    result["file"] = key->file().path().string();
    result["keyPairs"] = json::array();
    result["certificates"] = json::array();
    for (const VelkorKeyPair& keyPair : contents->keyPairs)
        result["keyPairs"].push_back(objectJson(keyPair));
    for (const VelkorCertificate& certificate : contents->certificates)
        result["certificates"].push_back(objectJson(certificate));
    session.print(result, infoText(*contents, key->file().path()));
}

void addInfo(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand("info", "Show a key and what is on it");
    const auto serialNumber = std::make_shared<std::string>();
    addSerialNumber(*command, *serialNumber);
    command->callback([&session, serialNumber] { info(session, *serialNumber); });
}

} // namespace

void addOverviewCommands(CLI::App& app, Session& session)
{
    addList(app, session);
    addInfo(app, session);
}

} // namespace softkey
