#include "imported_function.h"

#include <cstring>

namespace test_system
{

std::vector<HMODULE> ownModules()
{
    std::vector<HMODULE> modules;
    for (const char* file :
         {static_cast<const char*>(nullptr), "velkor-pkcs11-strict.dll", "velkor-pkcs11.dll", "VelkorDSCLibrary.dll"}) {
        if (const HMODULE module = GetModuleHandleA(file))
            modules.push_back(module);
    }
    return modules;
}

void** importedFunction(HMODULE module, const char* name)
{
    auto* base = reinterpret_cast<char*>(module);
    const auto* headers =
        reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const IMAGE_DATA_DIRECTORY& table = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    auto* library = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + table.VirtualAddress);
    for (; table.Size != 0 && library->Name != 0; ++library) {
        const auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->OriginalFirstThunk);
        auto* addresses = reinterpret_cast<void**>(base + library->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++addresses) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal))
                continue;
            const auto* import = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            if (std::strcmp(reinterpret_cast<const char*>(import->Name), name) == 0)
                return addresses;
        }
    }
    return nullptr;
}

int replaceImportedFunction(const char* name, void* replacement)
{
    int replaced = 0;
    for (const HMODULE module : ownModules()) {
        void** address = importedFunction(module, name);
        if (address == nullptr)
            continue;
        DWORD protection = 0;
        VirtualProtect(address, sizeof *address, PAGE_READWRITE, &protection);
        *address = replacement;
        VirtualProtect(address, sizeof *address, protection, &protection);
        ++replaced;
    }
    return replaced;
}

} // namespace test_system
