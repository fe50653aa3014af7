// The configuration file. It is written anew for each input, as an administrator does while programs run.
#include <algorithm>
#include <span>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include "expect.h"
#include "platform/platform.h"
#include "rooms.h"
#include "surroundings.h"
#include "test_system.h"

namespace
{

std::string& file()
{
    static auto& path = *new std::string;
    return path;
}

void writeConfiguration(std::string_view text)
{
    const int descriptor = open(file().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR);
    const bool written = write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(descriptor);
    fuzz::expect(written, "the configuration is written");
}

/// Reads into a room of that size, which stays as it was when there is no value.
bool readInto(fuzz::Rooms& rooms, std::size_t size, std::string& value)
{
    rooms.giveBackAll();
    const std::span room(reinterpret_cast<char*>(rooms.take(size)), size);
    std::fill(room.begin(), room.end(), '\x5A');
    const bool isRead = velkor::platform::readLogLevel(room);
    value.assign(room.begin(), room.end());
    fuzz::expect(isRead || value == std::string(size, '\x5A'), "a value that is not there changes nothing");
    return isRead;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argumentCount*/, char*** /*arguments*/)
{
    file() = (fuzz::prepareSurroundings() / "input.conf").string();
    test_system::setEnvironment("VELKOR_CONFIG", file());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size)
{
    static auto& rooms = *new fuzz::Rooms;
    const std::string text(reinterpret_cast<const char*>(bytes), size);
    std::string first;
    std::string again;
    writeConfiguration(text);
    const bool isThere = readInto(rooms, 32, first);
    fuzz::expect(readInto(rooms, 32, again) == isThere && again == first, "a file says the same twice");
    if (readInto(rooms, 4, again))
        fuzz::expect(isThere && first.starts_with(again), "a room that is just large enough has the same in it");
    // The first line counts, whatever comes behind it.
    writeConfiguration("logLevel = -1\n" + text);
    fuzz::expect(readInto(rooms, 32, again) && again.starts_with("\xFF\xFF\xFF\xFF\x5A"), "the first line counts");
    return 0;
}
