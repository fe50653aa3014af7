#include "tool/module_view.h"

#include "cryptoki.h"
#include "platform/platform.h"
#include "tool/session.h"
#include "tool/system_view.h"

#include <string_view>

namespace softkey
{
namespace
{

/// A Cryptoki library that has been started, and is ended with this.
class Running
{
public:
    explicit Running(CK_FUNCTION_LIST_PTR functions) : functions_(functions)
    {
        demand(functions_->C_Initialize(nullptr), "C_Initialize");
    }
    ~Running() { functions_->C_Finalize(nullptr); }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    static void demand(CK_RV answer, const std::string& function)
    {
        if (answer != CKR_OK)
            throw Failure(ExitCode::Failed, function + " answers " + std::to_string(answer));
    }

    std::vector<CK_SLOT_ID> slots() const
    {
        CK_ULONG count = 0;
        demand(functions_->C_GetSlotList(CK_TRUE, nullptr, &count), "C_GetSlotList");
        std::vector<CK_SLOT_ID> slots(count);
        demand(functions_->C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
        slots.resize(count);
        return slots;
    }

    std::string serialNumberOf(CK_SLOT_ID slot) const
    {
        CK_TOKEN_INFO info{};
        demand(functions_->C_GetTokenInfo(slot, &info), "C_GetTokenInfo");
        const std::string_view field(reinterpret_cast<const char*>(info.serialNumber), sizeof info.serialNumber);
        return std::string(field.substr(0, field.find_last_not_of(std::string_view(" \0", 2)) + 1));
    }

private:
    CK_FUNCTION_LIST_PTR functions_;
};

} // namespace

std::vector<std::filesystem::path> modulePlaces()
{
    const std::filesystem::path here = velkor::platform::processFolder();
    const std::string name = libraryFileName("velkor-pkcs11");
    std::vector<std::filesystem::path> places;
    if (here.empty())
        return places; // Not in the working folder, where anybody's library may lie.
    for (const char* folder : {VELKOR_MODULE_FOLDER, "../lib", "."}) // As it is installed, as it is built, on Windows.
        places.push_back((here / folder / name).lexically_normal());
    return places;
}

std::vector<std::string> tokensOf(const std::filesystem::path& module)
{
    const LoadedLibrary library(module);
    const auto getFunctionList = library.function<CK_RV (*)(CK_FUNCTION_LIST_PTR_PTR)>("C_GetFunctionList");
    if (getFunctionList == nullptr)
        throw Failure(ExitCode::Failed, "it has no C_GetFunctionList");
    CK_FUNCTION_LIST_PTR functions = nullptr;
    Running::demand(getFunctionList(&functions), "C_GetFunctionList");
    const Running running(functions);
    std::vector<std::string> tokens;
    for (const CK_SLOT_ID slot : running.slots())
        tokens.push_back(running.serialNumberOf(slot));
    return tokens;
}

} // namespace softkey
