#include "world.h"

#include <array>
#include <fstream>
#include <string_view>

#include "device_double.h"
#include "hexadecimal.h"
#include "perform.h"

namespace
{

constexpr std::size_t TEXT_BEGINS = 34; ///< Behind the time and the tag of a line,
constexpr std::size_t TAG_BEGINS = 24;

DeviceBytes bytesOfName(std::string_view name)
{
    return {name.begin(), name.end()};
}

void addParsed(RecordingDevice& device, std::string_view name, const std::string& issuer)
{
    CertificateDetails& details = device.detailsOf(bytesOfName(name));
    details.subjectCommonName = name;
    details.issuerCommonName = "by " + issuer;
    details.subject = "CN=" + std::string(name) + ",O=Example";
    details.issuer = issuer.empty() ? "O=Example" : "CN=" + issuer;
    details.publicKey = bytesOfName(name);
}

bool isMonitorLine(const std::string& line)
{
    return line.starts_with("DEBUG Session monitor thread ") || line.starts_with("DEBUG Slot event: ") ||
           line == "DEBUG Device disconnected, clearing userPassword";
}

std::string inWords(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines)
        text += "\n      " + line;
    return lines.empty() ? " none" : text;
}

std::string inWords(const char* what, const std::vector<std::string>& module, const std::vector<std::string>& model)
{
    if (module == model)
        return {};
    return std::string("  ") + what + "\n    of the module:" + inWords(module) +
           "\n    of the model:" + inWords(model) + "\n";
}

} // namespace

ModelWorld::ModelWorld(const std::filesystem::path& folder)
    : logFolder_(folder / "Brenmoor" / test_system::loggedProgramName()), logLevel_(folder)
{
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(logFolder_);
    logLevel_.set("3");
    test_system::setTemporaryFolder(folder);
    test_system::setEnvironment("VELKOR_HOME", "/some where");
    prepareDevice(*moduleDevice_);
    prepareDevice(modelDevice_);
    setDeviceOperations(moduleDevice_);
    CK_FUNCTION_LIST* table = nullptr;
    C_GetFunctionList(&table);
    Seen ignored;
    readLog(ignored);
    module_ = table;
    sleep_.hold();
}

/// Certificates that are imported, and the issuers of some that are on disk.
void ModelWorld::prepareDevice(RecordingDevice& device) const
{
    addParsed(device, "Leaf", "Middle");
    addParsed(device, "Middle", "Root");
    addParsed(device, "Root", "Root");
    addParsed(device, "Lonely", "Nobody");
    addParsed(device, "None", "");
    device.detailsOf(bytesOfName("Lonely")).publicKey = device.detailsOf({0x30, 0x03, 0x02, 0x01, 0x01}).publicKey;
    device.files = {{"broken.cer", bytesOfName("Broken")},
                    {"empty.pem", {}},
                    {"middle.cer", bytesOfName("Middle")},
                    {"root.crt", bytesOfName("Root")}};
}

void ModelWorld::change(RecordingDevice& device, const ModelStep& step) const
{
    static const std::vector<std::vector<std::string>> ARRANGEMENTS = {{FIRST_DEVICE, SECOND_DEVICE},
                                                                       {},
                                                                       {FIRST_DEVICE},
                                                                       {SECOND_DEVICE},
                                                                       {SECOND_DEVICE, FIRST_DEVICE},
                                                                       {FIRST_DEVICE, "VK999999", SECOND_DEVICE}};
    DeviceRecords& records = device.devices.at(FIRST_DEVICE);
    if (step.call == ModelCall::SetDevices)
        device.setConnected(ARRANGEMENTS[step.number % ARRANGEMENTS.size()]);
    if (step.call == ModelCall::ClearLabels) {
        for (VelkorKeyPair& each : records.keyPairs)
            each.label[0] = '\0';
        for (VelkorCertificate& each : records.certificates)
            each.label[0] = '\0';
    }
    if (step.call != ModelCall::ChangeToken)
        return;
    static constexpr std::array<std::array<const char*, 4>, 8> TOKENS = {
        {{FIRST_DEVICE, "First key", "VK1 Key", "2.1.0"},
         {FIRST_DEVICE, "A label of 32 characters, indeed", "VK0 Key", "2"},
         {FIRST_DEVICE, "A label that is longer than its field", "VK1 Key", "1.9.12"},
         {SECOND_DEVICE, "First key", "A", "2.0.0-beta"},
         {"", "", "", ""},
         {FIRST_DEVICE, "", "VK", "02.0.1"},
         {FIRST_DEVICE, "x", "VK2", " 10.300.1"},
         {FIRST_DEVICE, "x", "VK1", ""}}};
    const auto& [serialNumber, label, model, firmware] = TOKENS[step.number % TOKENS.size()];
    records.token.serialNumber = serialNumber;
    records.token.label = label;
    records.token.model = model;
    records.token.firmwareVersion = firmware;
    records.token.pinChanged = step.number % 2 == 0 ? 1 : 0;
    records.token.pinTriesLeft = static_cast<std::int32_t>(step.number);
}

void ModelWorld::changeBoth(const ModelStep& step)
{
    change(*moduleDevice_, step);
    change(modelDevice_, step);
    if (step.call == ModelCall::SetLogLevel) {
        const int level = static_cast<int>(step.number % 5);
        logLevel_.set(std::to_string(level));
        model_.setLogLevel(level);
    }
}

void ModelWorld::runMonitor()
{
    if (!model_.monitorRuns())
        return;
    sleep_.runCycle();
    model_.monitorCycle();
}

/// The lines since the last time. Which handles a search gives is told in a form that is free.
void ModelWorld::readLog(Seen& seen)
{
    for (const auto& file : std::filesystem::directory_iterator(logFolder_)) {
        std::ifstream stream(file.path(), std::ios::binary);
        std::streamoff& position = readTo_[file.path()];
        stream.seekg(position);
        for (std::string line; std::getline(stream, line);) {
            position += static_cast<std::streamoff>(line.size()) + 1;
            if (line.size() >= TEXT_BEGINS)
                line = line.substr(TAG_BEGINS, 6) + line.substr(TEXT_BEGINS);
            if (!line.starts_with("DEBUG Find object return : "))
                (isMonitorLine(line) ? seen.monitorLines : seen.lines).push_back(line);
        }
    }
}

ModelWorld::Seen ModelWorld::callModule(const ModelStep& step)
{
    Seen seen;
    CallMemory memory(step);
    seen.code = makeCall(*module_, step, memory, seen.outputs);
    const DeviceBytes written = memory.contents();
    seen.outputs.insert(seen.outputs.end(), written.begin(), written.end());
    seen.deviceCalls = moduleDevice_->calls();
    return seen;
}

ModelWorld::Seen ModelWorld::callModel(const ModelStep& step)
{
    Seen seen;
    CallMemory memory(step);
    seen.code = makeCall(model_, step, memory, seen.outputs);
    const DeviceBytes written = memory.contents();
    seen.outputs.insert(seen.outputs.end(), written.begin(), written.end());
    seen.deviceCalls = modelDevice_.calls();
    seen.lines = model_.takeLines();
    seen.monitorLines = model_.takeMonitorLines();
    return seen;
}

std::string ModelWorld::step(const ModelStep& given)
{
    ModelStep step = given;
    moduleDevice_->begin(step.fault);
    modelDevice_.begin(step.fault);
    changeBoth(step);
    const bool ends = step.call == ModelCall::Initialize || step.call == ModelCall::Finalize;
    if (ends || step.call == ModelCall::MonitorCycle)
        runMonitor(); // Nothing is left for the cycles that come while the monitor is made to stop.
    if (step.call == ModelCall::WaitForSlotEvent && !model_.answersWaiting())
        step.number |= CKF_DONT_BLOCK;
    if (ends && model_.monitorRuns())
        sleep_.skip();
    Seen module = callModule(step);
    const Seen model = callModel(step);
    if (ends) {
        sleep_.hold();
        if (model_.monitorRuns())
            sleep_.waitForIt();
    }
    readLog(module);
    return difference(module, model);
}

std::string ModelWorld::difference(const Seen& module, const Seen& model)
{
    std::string text;
    if (module.code != model.code)
        text += "  code " + std::to_string(module.code) + " of the module, " + std::to_string(model.code) +
                " of the model\n";
    if (module.outputs != model.outputs) {
        const auto [at, other] =
            std::mismatch(module.outputs.begin(), module.outputs.end(), model.outputs.begin(), model.outputs.end());
        const auto from = [](auto position, const DeviceBytes& all) {
            return hexadecimal(DeviceBytes(position, position + std::min<std::ptrdiff_t>(32, all.end() - position)));
        };
        text += "  output from byte " + std::to_string(at - module.outputs.begin()) +
                " on: " + from(at, module.outputs) + " of the module, " + from(other, model.outputs) +
                " of the model\n";
    }
    text += inWords("log lines", module.lines, model.lines);
    text += inWords("log lines of the monitor", module.monitorLines, model.monitorLines);
    text += inWords("device calls", module.deviceCalls, model.deviceCalls);
    return text;
}
