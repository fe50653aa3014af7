// What every exported operation does first and last: pointers and lengths become spans and texts or are refused, and
// nothing leaves but a status.
#pragma once

#include "operations/library.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace softkey
{

/// Runs an operation; answers its status. Nothing escapes, and the host's OpenSSL error queue stays as it was.
template <class Work>
int answer(Work&& work) noexcept
{
    const ErrorQueueGuard guard;
    try {
        work();
        return static_cast<int>(SoftkeyStatus::Ok);
    } catch (const Refusal& refusal) {
        return static_cast<int>(refusal.status());
    } catch (const std::bad_alloc&) {
        return static_cast<int>(SoftkeyStatus::OutOfMemory);
    } catch (...) {
        return static_cast<int>(SoftkeyStatus::InternalError);
    }
}

inline void requireArgument(bool acceptable)
{
    require(acceptable, SoftkeyStatus::BadArgument);
}

/// Input that must not be empty.
inline Bytes input(const unsigned char* data, int length)
{
    requireArgument(data != nullptr && length > 0);
    return {data, static_cast<std::size_t>(length)};
}

/// Input that may be empty, and null then.
inline Bytes optionalInput(const unsigned char* data, int length)
{
    return length == 0 ? Bytes() : input(data, length);
}

inline std::string_view text(const char* value)
{
    requireArgument(value != nullptr);
    return value;
}

inline Identifier identifier(const unsigned char* bytes)
{
    requireArgument(bytes != nullptr);
    Identifier copy;
    std::memcpy(copy.data(), bytes, copy.size());
    return copy;
}

/// Text of a field that must hold its terminating zero.
template <std::size_t Size>
std::string_view fieldText(const char (&field)[Size])
{
    const void* end = std::memchr(field, 0, Size);
    requireArgument(end != nullptr);
    return field;
}

/// The key of that name, which is plugged in, and what it says.
inline PluggedKey pluggedDevice(const char* deviceId, const void* libraryInstance)
{
    requireInstance(libraryInstance);
    return keysFolder().findPlugged(text(deviceId));
}

inline std::shared_ptr<SoftKey> pluggedKey(const char* deviceId, const void* libraryInstance)
{
    return pluggedDevice(deviceId, libraryInstance).key;
}

/// A copy that the caller releases with `free`.
inline unsigned char* allocateCopy(Bytes bytes)
{
    auto* copy = static_cast<unsigned char*>(std::malloc(bytes.empty() ? 1 : bytes.size()));
    if (copy == nullptr)
        throw std::bad_alloc();
    std::copy(bytes.begin(), bytes.end(), copy);
    return copy;
}

} // namespace softkey
