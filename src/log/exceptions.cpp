#include "log/exceptions.h"

#include <exception>
#include <new>

#include "log/log.h"

namespace velkor
{
namespace
{

CK_RV refuseCurrentException(const char* name)
{
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return refuse(CKR_HOST_MEMORY, name, ": out of memory");
    } catch (const std::exception& exception) {
        return refuse(CKR_GENERAL_ERROR, name, ": unexpected exception: ", exception.what());
    } catch (...) {
        return refuse(CKR_GENERAL_ERROR, name, ": unexpected exception");
    }
}

} // namespace

CK_RV codeOfCurrentException(const char* name) noexcept
{
    try {
        return refuseCurrentException(name);
    } catch (...) {
        return CKR_HOST_MEMORY; // There was no memory left even for the log line.
    }
}

} // namespace velkor
