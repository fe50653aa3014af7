// A host on Windows: loads the module from another folder in one of the ways that hosts do, walks the function table
// and signs with a key of the device library. Ends with 0 when everything was as the way promises.
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include "cryptoki.h"

namespace
{

#define REQUIRE(condition)                                                                                             \
    if (!(condition)) {                                                                                                \
        std::fprintf(stderr, "line %d: %s (error %lu)\n", __LINE__, #condition, GetLastError());                       \
        std::_Exit(1);                                                                                                 \
    }

constexpr CK_OBJECT_HANDLE FIRST_PRIVATE_KEY = 0x70000001;
constexpr CK_OBJECT_HANDLE FIRST_EC_KEY = 0x70000005;
constexpr CK_OBJECT_HANDLE FIRST_DERIVED_KEY = 0x70003000;
constexpr CK_ULONG KEY_SIZE = 8 * 1024 * 1024;

/// The folder beside this program's own, in which the module and the device library lie.
std::string moduleFolder()
{
    std::array<char, MAX_PATH> program{};
    REQUIRE(GetModuleFileNameA(nullptr, program.data(), MAX_PATH) != 0);
    std::string folder = program.data();
    folder.resize(folder.rfind('\\'));
    return folder.substr(0, folder.rfind('\\')) + "\\module";
}

std::string modulePath()
{
    return moduleFolder() + "\\velkor-pkcs11.dll";
}

/// Every slot of the table is the export of that name.
CK_FUNCTION_LIST_PTR functionTable(HMODULE module)
{
    const auto getFunctionList =
        reinterpret_cast<CK_C_GetFunctionList>(reinterpret_cast<void*>(GetProcAddress(module, "C_GetFunctionList")));
    REQUIRE(getFunctionList != nullptr);
    CK_FUNCTION_LIST_PTR functions = nullptr;
    REQUIRE(getFunctionList(&functions) == CKR_OK);
#define EXPORT(name)                                                                                                   \
    REQUIRE(functions->name != nullptr);                                                                               \
    REQUIRE(reinterpret_cast<void*>(functions->name) == reinterpret_cast<void*>(GetProcAddress(module, #name)));
#include "frame/exports.inc"
    return functions;
}

CK_SESSION_HANDLE openSession(CK_FUNCTION_LIST_PTR functions)
{
    std::array<CK_SLOT_ID, 8> slots{};
    CK_ULONG slotCount = slots.size();
    REQUIRE(functions->C_GetSlotList(CK_TRUE, slots.data(), &slotCount) == CKR_OK && slotCount == 2);
    CK_SESSION_HANDLE session = 0;
    REQUIRE(functions->C_OpenSession(slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session) ==
            CKR_OK);
    CK_UTF8CHAR pin[] = {'1', '2', '3', '4'};
    REQUIRE(functions->C_Login(session, CKU_USER, pin, sizeof pin) == CKR_OK);
    return session;
}

/// From the start to the end of a session with a login, a signature and its verification.
void sign(CK_FUNCTION_LIST_PTR functions)
{
    REQUIRE(functions->C_Initialize(nullptr) == CKR_OK);
    const CK_SESSION_HANDLE session = openSession(functions);

    CK_OBJECT_CLASS privateKey = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE wanted = {CKA_CLASS, &privateKey, sizeof privateKey};
    std::array<CK_OBJECT_HANDLE, 16> keys{};
    CK_ULONG keyCount = 0;
    REQUIRE(functions->C_FindObjectsInit(session, &wanted, 1) == CKR_OK);
    REQUIRE(functions->C_FindObjects(session, keys.data(), keys.size(), &keyCount) == CKR_OK && keyCount != 0);
    REQUIRE(functions->C_FindObjectsFinal(session) == CKR_OK);

    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    CK_BYTE data[] = {'d', 'a', 't', 'a'};
    std::array<CK_BYTE, 512> signature{};
    CK_ULONG length = signature.size();
    CK_OBJECT_HANDLE signingKey = 0;
    for (CK_ULONG index = 0; index < keyCount && signingKey == 0; ++index) {
        if (functions->C_SignInit(session, &mechanism, keys[index]) == CKR_OK)
            signingKey = keys[index];
    }
    REQUIRE(signingKey >= FIRST_PRIVATE_KEY);
    REQUIRE(functions->C_Sign(session, data, sizeof data, signature.data(), &length) == CKR_OK);
    REQUIRE(length > 2 && signature[0] == 's'); // As the double signs.
    REQUIRE(functions->C_VerifyInit(session, &mechanism, signingKey + 0x1000) == CKR_OK);
    REQUIRE(functions->C_Verify(session, data, sizeof data, signature.data(), length) == CKR_OK);
    data[0] ^= 1;
    REQUIRE(functions->C_VerifyInit(session, &mechanism, signingKey + 0x1000) == CKR_OK);
    REQUIRE(functions->C_Verify(session, data, sizeof data, signature.data(), length) == CKR_SIGNATURE_INVALID);
    REQUIRE(functions->C_Logout(session) == CKR_OK);
    REQUIRE(functions->C_CloseSession(session) == CKR_OK);
}

void use(HMODULE module)
{
    REQUIRE(module != nullptr);
    const CK_FUNCTION_LIST_PTR functions = functionTable(module);
    sign(functions);
    REQUIRE(functions->C_Finalize(nullptr) == CKR_OK);
    REQUIRE(FreeLibrary(module));
}

void loadWithAlteredSearchPath()
{
    use(LoadLibraryExA(modulePath().c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
}

void loadWithTheFolderOnTheSearchPath()
{
    SetEnvironmentVariableA("PATH", moduleFolder().c_str());
    use(LoadLibraryA(modulePath().c_str()));
}

void loadWithTheDllFolderSet()
{
    REQUIRE(SetDllDirectoryA(moduleFolder().c_str()));
    use(LoadLibraryA(modulePath().c_str()));
}

/// Both lie beside the program, of which there is a second copy for that.
void loadFromTheProgramsFolder()
{
    use(LoadLibraryA("velkor-pkcs11.dll"));
}

/// The way that does not work: the device library's folder is none that is searched.
void loadByFullPathAlone()
{
    REQUIRE(LoadLibraryA(modulePath().c_str()) == nullptr);
    REQUIRE(GetLastError() == ERROR_MOD_NOT_FOUND);
}

HMODULE load()
{
    const HMODULE module = LoadLibraryExA(modulePath().c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    REQUIRE(module != nullptr);
    return module;
}

/// The end of a process with the monitor still running.
void exitWithoutFinalize()
{
    sign(functionTable(load()));
}

void exitInThread()
{
    sign(functionTable(load()));
    std::thread([] { std::exit(0); }).detach();
    std::this_thread::sleep_for(std::chrono::minutes(1));
}

void quickExit()
{
    sign(functionTable(load()));
    std::_Exit(0);
}

/// The last calls of a host whose own static objects hold the module.
void finalizeAfterMain()
{
    static const CK_FUNCTION_LIST_PTR functions = functionTable(load());
    sign(functions);
    std::atexit([] {
        CK_INFO info;
        REQUIRE(functions->C_GetInfo(&info) == CKR_OK);
        REQUIRE(functions->C_Finalize(nullptr) == CKR_OK);
    });
}

/// Makes a key of a long value, which the module keeps until it is unloaded.
CK_OBJECT_HANDLE deriveLongKey(CK_FUNCTION_LIST_PTR functions)
{
    REQUIRE(functions->C_Initialize(nullptr) == CKR_OK);
    std::vector<CK_BYTE> peer(KEY_SIZE + 1, 4);
    CK_ECDH1_DERIVE_PARAMS parameters = {CKD_NULL, 0, nullptr, KEY_SIZE + 1, peer.data()};
    CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameters, sizeof parameters};
    CK_OBJECT_HANDLE key = 0;
    REQUIRE(functions->C_DeriveKey(openSession(functions), &mechanism, FIRST_EC_KEY, nullptr, 0, &key) == CKR_OK);
    REQUIRE(functions->C_Finalize(nullptr) == CKR_OK);
    return key;
}

SIZE_T committedMemory()
{
    SIZE_T total = 0;
    MEMORY_BASIC_INFORMATION region;
    for (char* address = nullptr; VirtualQuery(address, &region, sizeof region) != 0; address += region.RegionSize) {
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE)
            total += region.RegionSize;
    }
    return total;
}

/// Each load begins anew, and each unloading takes everything along.
void unloadAndLoadAgain()
{
    SIZE_T before = 0;
    for (int round = 0; round < 5; ++round) {
        const HMODULE module = load();
        REQUIRE(deriveLongKey(functionTable(module)) == FIRST_DERIVED_KEY);
        REQUIRE(FreeLibrary(module));
        REQUIRE(GetModuleHandleA("velkor-pkcs11.dll") == nullptr);
        if (round == 0)
            before = committedMemory();
    }
    REQUIRE(committedMemory() < before + 2 * KEY_SIZE);
}

/// A text of the version resource, which is language neutral and in Unicode.
std::string versionText(std::vector<char>& resource, const std::string& name)
{
    void* text = nullptr;
    UINT size = 0;
    const std::string path = "\\StringFileInfo\\000004B0\\" + name;
    REQUIRE(VerQueryValueA(resource.data(), path.c_str(), &text, &size));
    return static_cast<const char*>(text);
}

/// What Windows shows of the file.
void readVersion()
{
    DWORD unused = 0;
    std::vector<char> resource(GetFileVersionInfoSizeA(modulePath().c_str(), &unused));
    REQUIRE(!resource.empty());
    REQUIRE(GetFileVersionInfoA(modulePath().c_str(), 0, static_cast<DWORD>(resource.size()), resource.data()));
    REQUIRE(versionText(resource, "CompanyName") == "Brenmoor");
    REQUIRE(versionText(resource, "ProductName") == "Velkor PKCS11 Library");
    const std::string version = std::to_string(VERSION_MAJOR) + "." + std::to_string(VERSION_MINOR);
    REQUIRE(versionText(resource, "ProductVersion") == version);
    REQUIRE(versionText(resource, "FileVersion") == version);
    void* fixed = nullptr;
    UINT size = 0;
    REQUIRE(VerQueryValueA(resource.data(), "\\", &fixed, &size) && size == sizeof(VS_FIXEDFILEINFO));
    REQUIRE(static_cast<VS_FIXEDFILEINFO*>(fixed)->dwProductVersionMS == MAKELONG(VERSION_MINOR, VERSION_MAJOR));
}

const std::map<std::string, std::function<void()>> ways = {
    {"altered-search-path", loadWithAlteredSearchPath},
    {"search-path", loadWithTheFolderOnTheSearchPath},
    {"dll-folder", loadWithTheDllFolderSet},
    {"full-path-alone", loadByFullPathAlone},
    {"program-folder", loadFromTheProgramsFolder},
    {"exit-without-finalize", exitWithoutFinalize},
    {"exit-in-thread", exitInThread},
    {"quick-exit", quickExit},
    {"finalize-after-main", finalizeAfterMain},
    {"unload-and-load-again", unloadAndLoadAgain},
    {"version", readVersion},
};

} // namespace

int main(int argumentCount, char** arguments)
{
    REQUIRE(argumentCount == 2);
    const auto way = ways.find(arguments[1]);
    REQUIRE(way != ways.end());
    way->second();
    return 0;
}
