#include "run.h"

#include <memory>
#include <string>
#include <vector>

#include "device_double.h"
#include "library.h"
#include "surroundings.h"

namespace fuzz
{
namespace
{

constexpr int MOST_STEPS = 80;

/// The device draws from bytes of its own, so that it can change without the host's calls, and they without it.
constexpr std::size_t MOST_BYTES_OF_DEVICE = 255;

/// Most inputs are about what happens in a session, and half of them in one of a user.
void openFirstSession(Host& host)
{
    CK_SLOT_ID slots[8];
    CK_ULONG count = 8;
    if (host.p11.C_GetSlotList(CK_TRUE, slots, &count) != CKR_OK || count == 0)
        return;
    CK_SESSION_HANDLE session = 0;
    if (host.p11.C_OpenSession(slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session) != CKR_OK)
        return;
    host.learnSlot(slots[0]);
    host.learnSession(session);
    if (!host.input.ConsumeBool())
        return;
    CK_UTF8CHAR pin[] = {'1', '2', '3', '4'};
    host.p11.C_Login(session, CKU_USER, pin, sizeof pin);
}

std::vector<std::string> someDevices(FuzzedDataProvider& input)
{
    std::vector<std::string> names;
    for (const char* name : {FIRST_DEVICE, SECOND_DEVICE}) {
        if (input.ConsumeBool())
            names.emplace_back(name);
    }
    return names;
}

/// What happens between calls.
void disturb(Life& life, FuzzedDevice& device, FuzzedDataProvider& input)
{
    switch (input.ConsumeIntegralInRange(0, 3)) {
    case 0:
        return life.letMonitorLook();
    case 1:
        return device.setConnected(someDevices(input));
    case 2:
        return life.end();
    default:
        return life.begin();
    }
}

} // namespace

void prepareRuns()
{
    prepareSurroundings();
    library();
}

void runCalls(const std::uint8_t* bytes, std::size_t size, const RunSettings& settings)
{
    FuzzedDataProvider input(bytes, size);
    const bool logsAll = input.ConsumeIntegralInRange(0, 31) == 1;
    if (logsAll)
        logAll(true);
    const auto ofDevice =
        input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegralInRange<std::size_t>(0, MOST_BYTES_OF_DEVICE));
    FuzzedDataProvider deviceInput(ofDevice.data(), ofDevice.size());
    const auto device = std::make_shared<FuzzedDevice>(deviceInput);
    setDeviceOperations(device);
    Host host(library(), input, resultsOfLibrary());
    {
        Life life(host, *device);
        device->setCalm(true);
        life.begin();
        openFirstSession(host);
        device->setCalm(!settings.deviceFails);
        for (int step = 0; step < MOST_STEPS && input.remaining_bytes() != 0; ++step) {
            if (settings.deviceFails && host.isRarely()) {
                disturb(life, *device, input);
                continue;
            }
            const auto chosen = input.ConsumeIntegralInRange<std::size_t>(0, settings.calls.size() - 1);
            checkCode(settings.calls[chosen].function, settings.calls[chosen].make(host));
            host.rooms.giveBackAll();
        }
    }
    if (!logsAll)
        return;
    logAll(false);
    emptyLogs();
}

} // namespace fuzz
