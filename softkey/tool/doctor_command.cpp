// The command doctor: why a host sees no token, or less on it than is there, and how to mend that.
#include "tool/diagnosis.h"
#include "tool/module_view.h"
#include "tool/objects.h"
#include "tool/system_view.h"

#include "crypto/certificate.h"
#include "platform/default_folder.h"
#include "platform/environment.h"
#include "platform/exposure.h"
#include "platform/platform.h"
#include "store/key_settings.h"
#include "store/machine_binding.h"
#include "velkor/record_fields.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <openssl/x509v3.h>
#include <optional>
#include <system_error>

namespace softkey
{
namespace
{

namespace fs = std::filesystem;

/// A path as a command takes it.
std::string commandWord(const fs::path& path)
{
    std::string text = path.string();
    if (text.find_first_of(" \t\"'\\$&;()<>|*?`#~!") == std::string::npos)
        return text;
    std::string word = "'";
    for (const char character : text)
        word += character == '\'' ? "'\\''" : std::string(1, character);
    return word + "'";
}

/// One look at everything.
class Doctor
{
public:
    Doctor(const Session& session, fs::path module) : session_(session), module_(std::move(module)) {}

    void run()
    {
        checkFolder();
        checkKeys();
        checkModule(); // After keys are closed: a file that two SQLites of one process have open loses its locks.
        checkStrictFront();
        checkConfiguration();
        checkLog();
        checkRegistration();
        diagnosis_.print(session_);
    }

private:
    void checkFolder();
    void checkFolderRights();
    void checkKeys();
    void checkKey(KeysFolder& keys, const std::string& name);
    void checkKeyFile(const std::string& part, const fs::path& path);
    void checkPins(const std::string& part, const Contents& contents);
    void checkCertificate(const std::string& part, const Contents& contents, const VelkorCertificate& certificate);
    void checkModule();
    void loadModule();
    void checkDeviceLibrary();
    std::string remedyForDeviceLibrary(const std::string& reason) const;
    void checkStrictFront();
    void loadLibrary(const fs::path& library, const std::string& part);
    void checkConfiguration();
    void checkLog();
    void checkRegistration();
    void checkRegistered(const fs::path& file, const std::string& module);
    fs::path strictFront() const;

    const Session& session_;
    Diagnosis diagnosis_;
    fs::path folder_; ///< Empty when there is none to look into.
    fs::path module_; ///< Empty when it was not found.
    bool isModuleWorking_ = false;
    std::vector<std::string> usable_; ///< Serial numbers of keys that hosts should see.
};

/// Whether the user may make a folder there, as far as rights tell. Nothing is made.
bool canBeMade(fs::path folder)
{
    std::error_code failure;
    while (folder.has_relative_path() && !fs::exists(folder, failure))
        folder = folder.parent_path();
    return fs::is_directory(folder, failure) && mayWrite(folder);
}

/// Whether a change of a key, which writes some pages before it takes them back, finds no room.
bool isDiskFull(const fs::path& folder)
{
    constexpr std::uintmax_t ROOM_OF_A_CHANGE = 65536;
    std::error_code failure;
    const fs::space_info space = fs::space(folder, failure);
    return !failure && space.available < ROOM_OF_A_CHANGE;
}

void Doctor::checkFolder()
{
    folder_ = session_.home.empty() ? defaultKeysFolder() : fs::absolute(session_.home);
    const std::string shown = folder_.string();
    std::error_code failure;
    if (folder_.empty()) {
        diagnosis_.problem("keys folder", "there is no home folder to keep keys in",
                           "set VELKOR_SOFTKEY_HOME to a folder of your own");
    } else if (!fs::exists(folder_, failure)) {
        if (canBeMade(folder_))
            diagnosis_.problem("keys folder", "there is no " + shown + ": no key has been made",
                               "velkor-softkey create");
        else
            diagnosis_.problem("keys folder", "there is no " + shown + ", and it cannot be made",
                               "set VELKOR_SOFTKEY_HOME to a folder of your own");
        folder_.clear();
    } else if (fs::directory_iterator(folder_, failure); failure) {
        diagnosis_.problem("keys folder", shown + " cannot be read: " + failure.message(),
                           "chmod u+rwx " + commandWord(folder_));
        folder_.clear();
    } else {
        checkFolderRights();
    }
}

void Doctor::checkFolderRights()
{
    const std::string shown = folder_.string();
    const Exposure exposure = exposureOf(folder_);
    if (exposure == Exposure::Writable)
        diagnosis_.problem("keys folder", shown + " is not the user's own, and refused: others may write to it",
                           "chown it to the user, and chmod go-w " + commandWord(folder_));
    else if (!mayWrite(folder_))
        diagnosis_.problem("keys folder",
                           shown + " is read-only: keys are seen, but no PIN can be checked, since tries are counted",
                           "chmod u+w " + commandWord(folder_) + ", or mount its disk for writing");
    else if (isDiskFull(folder_))
        diagnosis_.problem("keys folder",
                           shown + " is on a full disk: keys are seen, but no PIN is checked, since tries are counted",
                           "make room on it");
    else
        diagnosis_.good("keys folder", shown);
    if (exposure == Exposure::Readable)
        diagnosis_.note("keys folder",
                        "others may look into it; chmod go-rwx " + commandWord(folder_) + " keeps them out");
    if (!session_.home.empty() || environmentValue("VELKOR_SOFTKEY_HOME"))
        diagnosis_.note("keys folder", "it is not the usual one: a host sees it with VELKOR_SOFTKEY_HOME=" +
                                           commandWord(folder_) + " in its own environment alone");
}

/// What to do about a key's file that is refused.
std::string remedyFor(SoftkeyStatus status, const fs::path& path)
{
    const std::string shown = commandWord(path);
    switch (status) {
    case SoftkeyStatus::FileDamaged:
        return "velkor-softkey restore BACKUP --yes, if there is a backup; else velkor-softkey remove " +
               path.stem().string();
    case SoftkeyStatus::FileForeign:
        return "move " + shown + " away, or give it back the name of its own serial number";
    case SoftkeyStatus::FileNewer:
        return "install the version of the software key that wrote it";
    case SoftkeyStatus::FileExposed:
        return "chown it to the user, and chmod go-w " + shown;
    case SoftkeyStatus::StorageBusy:
        return "end the program that keeps it";
    default:
        return "chmod u+rw " + shown;
    }
}

void Doctor::checkKeys()
{
    if (folder_.empty())
        return;
    KeysFolder keys;
    keys.open(folder_);
    const std::vector<std::string> names = keys.keyNames();
    for (const std::string& name : names)
        checkKey(keys, name);
    if (names.empty())
        diagnosis_.problem("keys", "there is none in " + folder_.string(), "velkor-softkey create");
}

void Doctor::checkKey(KeysFolder& keys, const std::string& name)
{
    const std::string part = "key " + name;
    const fs::path path = folder_ / (name + std::string(KEY_FILE_SUFFIX));
    try {
        const std::shared_ptr<SoftKey> key = keys.find(name, KeysFolder::Identity::Checked);
        const std::shared_ptr<const Contents> contents = key->contents();
        key->file().reload(*contents);
        if (contents->device.plugged) {
            usable_.push_back(name);
            diagnosis_.good(part, "whole and plugged in, labelled \"" + contents->device.label + "\"");
        } else {
            diagnosis_.problem(part, "unplugged, so that no host sees it", "velkor-softkey plug " + name);
        }
        checkKeyFile(part, path);
        checkPins(part, *contents);
        for (const VelkorCertificate& certificate : contents->certificates)
            checkCertificate(part, *contents, certificate);
    } catch (const Refusal& refusal) {
        diagnosis_.problem(part, refusal.what(), remedyFor(refusal.status(), path));
    }
}

void Doctor::checkKeyFile(const std::string& part, const fs::path& path)
{
    if (!mayWrite(path))
        diagnosis_.problem(part, "its file is read-only: no PIN can be checked, since tries are counted",
                           "chmod u+w " + commandWord(path));
    if (exposureOf(path) == Exposure::Readable)
        diagnosis_.note(part, "others may read its file; chmod go-r " + commandWord(path) + " keeps them out");
}

void Doctor::checkPins(const std::string& part, const Contents& contents)
{
    const std::string& name = contents.device.serialNumber;
    const PinRecord& user = contents.userPin;
    const auto tries = [](const PinRecord& pin) {
        return std::to_string(pin.triesLeft) + " of " + std::to_string(pin.triesMax) + " tries left";
    };
    if (user.triesLeft == 0)
        diagnosis_.problem(part, "the user PIN is locked", "velkor-softkey unlock " + name);
    else if (!user.changed)
        diagnosis_.problem(part, "the user PIN is initial: some hosts log nobody in before it is changed",
                           "velkor-softkey set-pin " + name);
    else if (user.triesLeft < user.triesMax)
        diagnosis_.note(part, "the user PIN has " + tries(user) + "; the right PIN gives back all");
    if (contents.soPin.triesLeft == 0)
        diagnosis_.problem(part, "the SO PIN is locked: nothing unlocks the user PIN any more",
                           "make another key (velkor-softkey create), and move to it while this one works");
    try {
        const MachineBinding binding(user.machine);
    } catch (const Refusal& refusal) {
        diagnosis_.problem(part, refusal.what(), "put the secret of its machine to " + machineSecretFile().string());
    }
}

/// A certificate that issues others has its key elsewhere.
bool isOfIssuer(const VelkorCertificate& certificate)
{
    const Certificate parsed = parseCertificate(certificate.der);
    return X509_check_ca(parsed.get()) > 0;
}

void Doctor::checkCertificate(const std::string& part, const Contents& contents, const VelkorCertificate& certificate)
{
    const std::string& name = contents.device.serialNumber;
    const std::string number = std::to_string(certificate.id);
    const std::optional<CertificateDetails> details = detailsOf(certificate);
    const std::string deletion = "velkor-softkey delete " + name + " --certificate " + number;
    if (!details)
        return diagnosis_.problem(part, "certificate " + number + " cannot be read", deletion);
    const std::string what = "certificate " + number + " (" + details->subject + ")";
    const VelkorKeyPair* keyPair = keyPairOf(certificate, contents);
    if (keyPair == nullptr && isOfIssuer(certificate))
        return diagnosis_.note(part, what + " is an issuer's, and has no key here: it is there to be sent along");
    if (keyPair == nullptr)
        return diagnosis_.problem(part, what + " is without its key: hosts do not sign with it",
                                  "velkor-softkey import-key " + name + " with its private key, or " + deletion);
    const Bytes wanted = velkor::objectIdOf(*keyPair);
    const std::string itsKey = "its key pair " + std::to_string(keyPair->id);
    if (!velkor::sameBytes(wanted, velkor::objectIdOf(certificate)))
        diagnosis_.problem(part, what + " has another ID than " + itsKey + ": hosts do not find one by the other",
                           "velkor-softkey relabel " + name +
                               (wanted.empty() ? " --key " + std::to_string(keyPair->id) + " --id " +
                                                     hexText(velkor::objectIdOf(certificate))
                                               : " --certificate " + number + " --id " + hexText(wanted)));
}

void Doctor::checkModule()
{
    std::error_code failure;
    std::string places;
    for (const fs::path& place : module_.empty() ? modulePlaces() : std::vector<fs::path>{module_}) {
        places += (places.empty() ? "" : ", ") + place.string();
        if (fs::exists(place, failure)) {
            module_ = fs::absolute(place);
            return loadModule();
        }
    }
    module_.clear();
    diagnosis_.problem("module", "it is not there: " + places, "install it, or say where it is with --module FILE");
}

constexpr const char* INSTALLATION = "install it again, for this machine and with all of its package";
constexpr const char* OUT_OF_LOADER_PATH =
    "take its folder out of LD_LIBRARY_PATH, in the environment of the host, too: what is there comes first";

void Doctor::loadModule()
{
    if (!folder_.empty())
        setEnvironmentVariable("VELKOR_SOFTKEY_HOME", folder_.string());
    try {
        loadLibrary(module_, "module");
        isModuleWorking_ = true;
    } catch (const Failure& failure) {
        const std::string reason = failure.what();
        const bool isDeviceLibrary = reason.find("VelkorDSCLibrary") != std::string::npos;
        diagnosis_.problem(isDeviceLibrary ? "device library" : "module", module_.string() + ": " + reason,
                           isDeviceLibrary ? remedyForDeviceLibrary(reason) : INSTALLATION);
    }
    checkDeviceLibrary();
}

/// The one in the module's folder, where there is one, is that which hosts are to get.
void Doctor::checkDeviceLibrary()
{
    const fs::path loaded = loadedDeviceLibrary();
    const fs::path own = module_.parent_path() / loaded.filename();
    std::error_code failure;
    if (loaded.has_filename() && fs::exists(own, failure) && !fs::equivalent(own, loaded, failure))
        diagnosis_.problem("device library", "the module loads " + loaded.string() + ", not " + own.string(),
                           OUT_OF_LOADER_PATH);
    else if (isModuleWorking_)
        diagnosis_.good("device library", loaded.string());
}

/// The reason names a broken file with its folder, and one that was not found without.
std::string Doctor::remedyForDeviceLibrary(const std::string& reason) const
{
    const fs::path own = module_.parent_path() / libraryFileName("libVelkorDSCLibrary");
    std::error_code failure;
    if (reason.find("/" + own.filename().string() + ":") != std::string::npos &&
        !reason.starts_with(own.string() + ":"))
        return OUT_OF_LOADER_PATH;
    return fs::exists(own, failure) ? INSTALLATION : "put the device library into " + module_.parent_path().string();
}

/// Throws a Failure when it does not work. Keys that it should show, and does not, are problems.
void Doctor::loadLibrary(const fs::path& library, const std::string& part)
{
    const std::vector<std::string> tokens = [&] {
        const SilentOutput silence;
        return tokensOf(library);
    }();
    diagnosis_.good(part, library.string() + " loads and works");
    diagnosis_.good("tokens", "the " + part + " shows " + std::to_string(tokens.size()));
    for (const std::string& name : usable_) {
        if (std::ranges::find(tokens, name) == tokens.end())
            diagnosis_.problem("key " + name, "the " + part + " does not show it",
                               "have the module work with the device library of the software key, not with " +
                                   loadedDeviceLibrary().string());
    }
}

/// Where it lies when it is installed with the module.
fs::path Doctor::strictFront() const
{
    return module_.parent_path() / libraryFileName("velkor-pkcs11-strict");
}

/// What keeps the module from working is the module's, and not told twice.
void Doctor::checkStrictFront()
{
    const std::string remedy = "install it again, from the package of the module";
    const fs::path path = strictFront();
    std::error_code failure;
    if (!isModuleWorking_ || fs::equivalent(path, module_, failure))
        return;
    if (!fs::exists(path, failure))
        return diagnosis_.problem("strict front", "it is not there: " + path.string(), remedy);
    try {
        loadLibrary(path, "strict front");
    } catch (const Failure& reason) {
        diagnosis_.problem("strict front", path.string() + ": " + reason.what(), remedy);
    }
}

/// Why a file cannot be read; 0 when it can.
int errorOfReading(const fs::path& path)
{
    errno = 0;
    std::ifstream file(path);
    file.peek();
    return file.is_open() && !file.bad() ? 0 : errno;
}

/// Whether a line of the file begins with that name.
bool hasSetting(const fs::path& path, std::string_view name)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const std::size_t start = line.find_first_not_of(" \t");
        if (start != std::string::npos && line.compare(start, name.size(), name) == 0)
            return true;
    }
    return false;
}

void Doctor::checkConfiguration()
{
    const char* path = velkor::platform::configurationFile();
    if (path == nullptr)
        return;
    const std::string shown(path);
    const int error = errorOfReading(path);
    std::array<char, 32> value{};
    if (error == ENOENT || error == ENOTDIR)
        diagnosis_.note("configuration", "there is no " + shown + ": errors are logged");
    else if (error != 0)
        diagnosis_.problem("configuration",
                           shown + " cannot be read, and errors are logged whatever it says: " +
                               std::generic_category().message(error),
                           "make it a file that the user may read: chmod a+r " + commandWord(shown));
    else if (!velkor::platform::readLogLevel(value) && hasSetting(path, "logLevel"))
        diagnosis_.problem("configuration", shown + " has a logLevel that is not understood: errors are logged",
                           "write \"logLevel = 0\" there for nothing, 2 for errors, 3 for every call");
    else
        diagnosis_.good("configuration", shown);
}

std::string todaysLog()
{
    const velkor::platform::LocalTime now = velkor::platform::localTime();
    std::array<char, 80> name{};
    std::snprintf(name.data(), name.size(), "%04d-%02d-%02d.LOG", now.year, now.month, now.day);
    return name.data();
}

/// Whether a log could be written, as far as rights tell. Nothing is made.
bool couldLog(const fs::path& folder, const fs::path& file)
{
    std::error_code failure;
    if (const fs::file_status status = fs::symlink_status(file, failure); fs::exists(status))
        return fs::is_regular_file(status) && mayWrite(file);
    fs::path nearest = file.parent_path();
    while (nearest != folder && !fs::exists(nearest, failure))
        nearest = nearest.parent_path();
    return fs::is_directory(nearest, failure) && mayWrite(nearest);
}

/// Whether it can, as the module does it.
bool canLog(const std::string& folder, const std::string& own)
{
    velkor::platform::createFolder(folder + "Brenmoor");
    velkor::platform::createFolder(own);
    return velkor::platform::appendToFile(own + "/" + todaysLog(), "");
}

void Doctor::checkLog()
{
    constexpr char ERRORS = 2;
    constexpr char EVERYTHING = 3;
    std::array<char, 32> value{};
    const bool isSet = velkor::platform::readLogLevel(value);
    const bool isOff = isSet && static_cast<signed char>(value[0]) < ERRORS;
    const std::string effect = isOff ? "nothing could be logged" : "every line is lost";
    const std::string folder = velkor::platform::temporaryFolder();
    if (folder.empty() || !velkor::platform::folderExists(folder))
        return diagnosis_.problem("log", "there is no folder for it: " + effect, "set TMPDIR to a folder of your own");
    const std::string program = velkor::platform::processFileName();
    const std::string own = folder + "Brenmoor/" + program.substr(0, program.find('.'));
    const std::string file = folder + "Brenmoor/PROGRAM/" + todaysLog();
    if (isOff ? !couldLog(fs::path(folder).parent_path(), own + "/" + todaysLog()) : !canLog(folder, own))
        return diagnosis_.problem("log", file + " cannot be written: " + effect,
                                  "chown " + commandWord(folder + "Brenmoor") +
                                      " to the user, or set TMPDIR to a folder of your own");
    if (isOff)
        return diagnosis_.note("log", "nothing is logged; with logLevel = 2 errors would be in " + file +
                                          ", with 3 every call");
    const bool isWhole = isSet && value[0] == EVERYTHING;
    diagnosis_.good("log", std::string(isWhole ? "every call is" : "errors are") + " logged in " + file);
}

/// What a file of p11-kit says after "module:"; empty when it says nothing.
std::string registeredIn(const fs::path& file)
{
    constexpr std::string_view WORD = "module:";
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        line.erase(std::remove(line.begin(), line.end(), '\r'), line.end());
        const std::size_t start = line.find_first_not_of(" \t");
        if (start == std::string::npos || line.compare(start, WORD.size(), WORD) != 0)
            continue;
        const std::size_t value = line.find_first_not_of(" \t", start + WORD.size());
        return value == std::string::npos ? "" : line.substr(value, line.find_last_not_of(" \t") - value + 1);
    }
    return {};
}

void Doctor::checkRegistered(const fs::path& file, const std::string& module)
{
    std::error_code failure;
    const std::string shown = file.string();
    const std::string naming = "name " + strictFront().string() + " there, and in no other file";
    if (module.find("packed") != std::string::npos)
        diagnosis_.problem("p11-kit", shown + " names the library of the packed layout, which no host on Linux has",
                           naming);
    else if (fs::path(module).is_absolute() && !fs::exists(module, failure))
        diagnosis_.problem("p11-kit", shown + " names " + module + ", which is not there",
                           module_.empty() ? "install it" : naming);
    else if (!fs::path(module).is_absolute())
        diagnosis_.problem("p11-kit", shown + " names " + module + " without its folder: p11-kit looks into its own",
                           naming);
    else if (module.find("strict") == std::string::npos)
        diagnosis_.problem("p11-kit", shown + " names the plain module, whose texts p11-kit does not read to their end",
                           naming);
    else
        diagnosis_.good("p11-kit", module + " is registered by " + shown);
}

void Doctor::checkRegistration()
{
    bool isThere = false;
    bool isRegistered = false;
    const std::vector<fs::path> folders = registrationFolders();
    for (const fs::path& folder : folders) {
        std::error_code failure;
        for (fs::directory_iterator each(folder, failure), end; !failure && each != end; each.increment(failure)) {
            isThere = true;
            if (each->path().extension() != ".module")
                continue;
            const std::string module = registeredIn(each->path());
            if (module.find("velkor-pkcs11") == std::string::npos)
                continue;
            isRegistered = true;
            checkRegistered(each->path(), module);
        }
    }
    if (!isThere)
        diagnosis_.note("p11-kit", "it is not installed; hosts that name the module themselves need none");
    else if (!isRegistered && !module_.empty())
        diagnosis_.problem("p11-kit", "the strict front is not registered: hosts that ask p11-kit do not find it",
                           "write \"module: " + strictFront().string() + "\" into " +
                               (folders.front() / "velkor.module").string());
}

} // namespace

void addDoctorCommand(CLI::App& app, Session& session)
{
    CLI::App* command = app.add_subcommand(
        "doctor", "Find out why a host sees no token, and what to do; exit code 0 only when all is well");
    const auto module = std::make_shared<std::string>();
    command->add_option("--module", *module, "Module that the host loads (default: the one beside this tool)")
        ->type_name("FILE");
    command->callback([&session, module] { Doctor(session, *module).run(); });
}

} // namespace softkey
