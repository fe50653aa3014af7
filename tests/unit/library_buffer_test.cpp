#include "crypto/library_buffer.h"

#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "free_watch.h"

using namespace velkor;

namespace
{

/// What became of the buffer that is watched, in order.
std::vector<std::string> events;
void* watched = nullptr;

} // namespace

/// Writes down what is to be wiped; wiping nothing at all is no event.
void platform::secureWipe(void* memory, std::size_t size)
{
    if (size != 0)
        events.push_back((memory == watched ? "wiped " : "something else wiped ") + std::to_string(size));
}

namespace
{

using Events = std::vector<std::string>;

/// What becomes of a buffer that the library has left so.
Events endOf(unsigned char* bytes, int length)
{
    events.clear();
    events.reserve(8);
    watched = bytes;
    watchFree([](void* memory) {
        if (memory != nullptr && memory == watched)
            events.emplace_back("freed");
    });
    {
        LibraryBuffer buffer;
        buffer.bytes = bytes;
        buffer.length = length;
    }
    watched = nullptr;
    return events;
}

unsigned char* allocated()
{
    return static_cast<unsigned char*>(std::malloc(32));
}

TEST(LibraryBuffer, IsWipedThenFreed)
{
    EXPECT_EQ(endOf(allocated(), 32), (Events{"wiped 32", "freed"}));
    EXPECT_EQ(endOf(allocated(), 1), (Events{"wiped 1", "freed"}));
}

TEST(LibraryBuffer, OfNoLengthIsFreedOnly)
{
    for (const int length : {0, -1, std::numeric_limits<int>::min()})
        EXPECT_EQ(endOf(allocated(), length), Events{"freed"}) << length;
}

TEST(LibraryBuffer, ThatIsNullIsLeftAlone)
{
    for (const int length : {0, 32, -1})
        EXPECT_EQ(endOf(nullptr, length), Events{}) << length;
}

} // namespace
