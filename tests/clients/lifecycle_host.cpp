// A host that loads the module and then leaves it in one of the ways that hosts do. It must end by itself, with 0.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include <dlfcn.h>

#include "cryptoki.h"
#include "eventually.h"
#include "hurried_monitor.h"

namespace
{

#define REQUIRE(condition)                                                                                             \
    if (!(condition)) {                                                                                                \
        std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition);                                                   \
        std::_Exit(1);                                                                                                 \
    }

struct Module {
    void* library;
    CK_FUNCTION_LIST_PTR functions;
};

Module load(const char* path)
{
    Module module{dlopen(path, RTLD_NOW | RTLD_LOCAL), nullptr};
    if (module.library == nullptr)
        std::fprintf(stderr, "%s\n", dlerror());
    REQUIRE(module.library != nullptr);
    const auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(module.library, "C_GetFunctionList"));
    REQUIRE(getFunctionList != nullptr);
    REQUIRE(getFunctionList(&module.functions) == CKR_OK);
    return module;
}

Module start(const char* path)
{
    const Module module = load(path);
    REQUIRE(module.functions->C_Initialize(nullptr) == CKR_OK);
    return module;
}

void exitInThread(const char* path)
{
    start(path);
    std::thread([] { std::exit(0); }).detach();
    std::this_thread::sleep_for(std::chrono::minutes(1));
}

void unload(const char* path)
{
    const Module module = start(path);
    REQUIRE(dlclose(module.library) == 0);
    // More than one cycle of the monitor, which must still have its code.
    const int cycles = test_system::monitorCycles;
    REQUIRE(test_system::eventually([&] { return test_system::monitorCycles >= cycles + 2; }));
}

/// The library stays mapped, so its second load finds the module as the first left it.
void unloadAndLoadAgain(const char* path)
{
    REQUIRE(dlclose(start(path).library) == 0);
    const Module again = load(path);
    REQUIRE(again.functions->C_Initialize(nullptr) == CKR_CRYPTOKI_ALREADY_INITIALIZED);
    REQUIRE(again.functions->C_Finalize(nullptr) == CKR_OK);
    REQUIRE(again.functions->C_Initialize(nullptr) == CKR_OK);
}

void cycles(const char* path)
{
    const Module module = load(path);
    for (int cycle = 0; cycle < 8; ++cycle) {
        REQUIRE(module.functions->C_Initialize(nullptr) == CKR_OK);
        REQUIRE(module.functions->C_Finalize(nullptr) == CKR_OK);
        REQUIRE(module.functions->C_Finalize(nullptr) == CKR_CRYPTOKI_NOT_INITIALIZED);
    }
}

CK_FUNCTION_LIST_PTR functionsAfterMain = nullptr;

/// The last calls of a host whose own static objects hold the module.
void finalizeAfterMain(const char* path)
{
    functionsAfterMain = start(path).functions;
    std::atexit([] {
        CK_INFO info;
        REQUIRE(functionsAfterMain->C_GetInfo(&info) == CKR_OK);
        REQUIRE(functionsAfterMain->C_Finalize(nullptr) == CKR_OK);
    });
}

const std::map<std::string, std::function<void(const char*)>> ways = {
    {"exit", [](const char* path) { start(path); }},
    {"exit-in-thread", exitInThread},
    {"quick-exit",
     [](const char* path) {
         start(path);
         std::quick_exit(0);
     }},
    {"unload", unload},
    {"unload-and-load-again", unloadAndLoadAgain},
    {"cycles", cycles},
    {"finalize-after-main", finalizeAfterMain},
};

} // namespace

int main(int argumentCount, char** arguments)
{
    REQUIRE(argumentCount == 3);
    const auto way = ways.find(arguments[2]);
    REQUIRE(way != ways.end());
    test_system::hurryMonitor();
    way->second(arguments[1]);
    return 0;
}
