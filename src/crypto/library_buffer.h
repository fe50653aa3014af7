// A buffer that the device library has allocated: wiped and released when it is dropped.
#pragma once

#include <cstdlib>

#include "platform/platform.h"
#include "util/bytes.h"

namespace velkor
{

struct LibraryBuffer {
    unsigned char* bytes = nullptr;
    int length = 0;

    LibraryBuffer() = default;
    LibraryBuffer(const LibraryBuffer&) = delete;
    LibraryBuffer& operator=(const LibraryBuffer&) = delete;
    ~LibraryBuffer()
    {
        platform::secureWipe(bytes, span().size());
        std::free(bytes);
    }

    Bytes span() const { return {bytes, bytes != nullptr && length > 0 ? static_cast<std::size_t>(length) : 0}; }
};

} // namespace velkor
