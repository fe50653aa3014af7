// Loads a module and shows what it says of itself. Usage: show_module MODULE
#include <cstdio>

#include <dlfcn.h>

#include "cryptoki.h"

int main(int argumentCount, char** arguments)
{
    if (argumentCount != 2) {
        std::fprintf(stderr, "usage: show_module MODULE\n");
        return 2;
    }
    void* library = dlopen(arguments[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::fprintf(stderr, "show_module: %s\n", dlerror());
        return 1;
    }
    CK_FUNCTION_LIST_PTR functions = nullptr;
    CK_INFO info{};
    const auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
    if (getFunctionList == nullptr || getFunctionList(&functions) != CKR_OK ||
        functions->C_Initialize(nullptr) != CKR_OK || functions->C_GetInfo(&info) != CKR_OK) {
        std::fprintf(stderr, "show_module: %s does not answer as a Cryptoki module\n", arguments[1]);
        return 1;
    }
    std::printf("Cryptoki      %d.%d\n", info.cryptokiVersion.major, info.cryptokiVersion.minor);
    std::printf("manufacturer  %.32s\n", reinterpret_cast<const char*>(info.manufacturerID));
    std::printf("library       %.32s %d.%d\n", reinterpret_cast<const char*>(info.libraryDescription),
                info.libraryVersion.major, info.libraryVersion.minor);
    return functions->C_Finalize(nullptr) == CKR_OK ? 0 : 1;
}
