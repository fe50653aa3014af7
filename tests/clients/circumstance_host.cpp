// A host that signs once, with the first private key that it finds. Its last line on standard error says how that went:
// "signed by" and the device library, or what refused and its code; a line before has the library's version. Standard
// output is left to the libraries, which have nothing to say there.
//     circumstance_host LIBRARY PIN [many-files | forked]
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cryptoki.h"

namespace
{

struct Refusal {
    std::string function;
    CK_RV code;
};

/// What is begun already is no refusal: a host asks for all of it again.
void demand(const char* function, CK_RV code)
{
    if (code != CKR_OK && code != CKR_CRYPTOKI_ALREADY_INITIALIZED && code != CKR_USER_ALREADY_LOGGED_IN)
        throw Refusal{function, code};
}

CK_FUNCTION_LIST_PTR load(const char* path)
{
    void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        throw Refusal{"dlopen", 0};
    }
    CK_FUNCTION_LIST_PTR functions = nullptr;
    demand("C_GetFunctionList",
           reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"))(&functions));
    return functions;
}

CK_SESSION_HANDLE openUserSession(const CK_FUNCTION_LIST& p11, std::string pin)
{
    demand("C_Initialize", p11.C_Initialize(nullptr));
    CK_INFO info{};
    demand("C_GetInfo", p11.C_GetInfo(&info));
    std::fprintf(stderr, "version %d.%d\n", info.libraryVersion.major, info.libraryVersion.minor);
    std::array<CK_SLOT_ID, 8> slots{};
    auto count = static_cast<CK_ULONG>(slots.size());
    demand("C_GetSlotList", p11.C_GetSlotList(CK_TRUE, slots.data(), &count));
    if (count == 0)
        throw Refusal{"no token", 0};
    CK_SESSION_HANDLE session = 0;
    demand("C_OpenSession",
           p11.C_OpenSession(slots[0], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session));
    demand("C_Login", p11.C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()),
                                  static_cast<CK_ULONG>(pin.size())));
    return session;
}

CK_OBJECT_HANDLE findPrivateKey(const CK_FUNCTION_LIST& p11, CK_SESSION_HANDLE session)
{
    CK_OBJECT_CLASS objectClass = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE criterion = {CKA_CLASS, &objectClass, sizeof objectClass};
    CK_OBJECT_HANDLE key = 0;
    CK_ULONG count = 0;
    demand("C_FindObjectsInit", p11.C_FindObjectsInit(session, &criterion, 1));
    demand("C_FindObjects", p11.C_FindObjects(session, &key, 1, &count));
    demand("C_FindObjectsFinal", p11.C_FindObjectsFinal(session));
    if (count == 0)
        throw Refusal{"no private key", 0};
    return key;
}

/// The device library that this process has loaded.
std::string deviceLibrary()
{
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find("libVelkorDSCLibrary.so") != std::string::npos)
            return line.substr(line.find('/'));
    }
    return "none";
}

void sign(const CK_FUNCTION_LIST& p11, const std::string& pin)
{
    const CK_SESSION_HANDLE session = openUserSession(p11, pin);
    const CK_OBJECT_HANDLE key = findPrivateKey(p11, session);
    CK_MECHANISM mechanism = {CKM_SHA256_RSA_PKCS, nullptr, 0};
    std::array<CK_BYTE, 32> data{};
    std::array<CK_BYTE, 1024> signature{};
    auto size = static_cast<CK_ULONG>(signature.size());
    demand("C_SignInit", p11.C_SignInit(session, &mechanism, key));
    demand("C_Sign", p11.C_Sign(session, data.data(), static_cast<CK_ULONG>(data.size()), signature.data(), &size));
    demand("C_CloseSession", p11.C_CloseSession(session));
    std::fprintf(stderr, "signed by %s\n", deviceLibrary().c_str());
}

/// The child begins anew, while the parent goes on.
void signInChild(const CK_FUNCTION_LIST& p11, const std::string& pin)
{
    const pid_t child = fork();
    if (child == 0) {
        int status = 0;
        try {
            sign(p11, pin);
        } catch (const Refusal& refusal) {
            std::fprintf(stderr, "in the child: %s %lu\n", refusal.function.c_str(), refusal.code);
            status = 1;
        }
        std::exit(status);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw Refusal{"the child", 0};
}

} // namespace

int main(int argumentCount, char** arguments)
{
    if (argumentCount < 3)
        return 2;
    const std::string way = argumentCount > 3 ? arguments[3] : "";
    for (int file = 0; way == "many-files" && file < 300; ++file) {
        if (open("/dev/null", O_RDONLY | O_CLOEXEC) < 0)
            return 2;
    }
    try {
        CK_FUNCTION_LIST_PTR p11 = load(arguments[1]);
        sign(*p11, arguments[2]);
        if (way == "forked") {
            signInChild(*p11, arguments[2]);
            sign(*p11, arguments[2]);
        }
        demand("C_Finalize", p11->C_Finalize(nullptr));
    } catch (const Refusal& refusal) {
        std::fprintf(stderr, "%s %lu\n", refusal.function.c_str(), refusal.code);
    }
    return 0;
}
