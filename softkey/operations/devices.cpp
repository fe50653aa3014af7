// Instance, device list, and what a device says of itself.
#include "operations/boundary.h"

using namespace softkey;

namespace
{

TokenInfo tokenInfoOf(const PluggedKey& device)
{
    const std::shared_ptr<const Contents>& contents = device.seen.contents;
    TokenInfo info;
    info.serialNumber = contents->device.serialNumber;
    info.manufacturer = "Brenmoor";
    info.label = contents->device.label;
    info.productName = "Velkor software key";
    info.model = contents->device.model;
    info.firmwareVersion = contents->device.firmwareVersion;
    info.hardwareVersion = "1.0";
    info.pinChanged = contents->userPin.changed;
    info.pinTriesMax = contents->userPin.triesMax;
    info.pinTriesLeft = contents->userPin.triesLeft;
    info.soPinChanged = contents->soPin.changed;
    info.soPinTriesMax = contents->soPin.triesMax;
    info.soPinTriesLeft = contents->soPin.triesLeft;
    info.keyPairCount = static_cast<std::int32_t>(contents->keyPairs.size());
    info.certificateCount = static_cast<std::int32_t>(contents->certificates.size());
    info.readerName = "Velkor software key";
    info.devicePath = device.key->file().path().string();
    return info;
}

} // namespace

void velkor_createInstance(void** libraryInstance)
{
    if (libraryInstance == nullptr)
        return;
    *libraryInstance = nullptr;
    answer([&] { *libraryInstance = createInstance(); });
}

void velkor_releaseInstance(void* libraryInstance)
{
    answer([&] { releaseInstance(libraryInstance); });
}

std::vector<std::string> velkor_getConnectedDeviceList(bool refresh, void* libraryInstance)
{
    // Without OpenSSL as long as no key has changed: a host's monitor thread asks for the list while the process is
    // already exiting.
    try {
        requireInstance(libraryInstance);
        return keysFolder().pluggedKeys(refresh);
    } catch (...) {
        return {};
    }
}

TokenInfo velkor_getTokenInfo(const char* deviceName, void* libraryInstance)
{
    TokenInfo info;
    answer([&] { info = tokenInfoOf(pluggedDevice(deviceName, libraryInstance)); });
    return info;
}

int velkor_initDevice(const char* deviceId, bool readContents, void* libraryInstance)
{
    return answer([&] {
        const PluggedKey device = pluggedDevice(deviceId, libraryInstance);
        if (readContents)
            device.key->file().reload(*device.seen.contents);
    });
}
