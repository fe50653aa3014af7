#include "platform/machine_secret.h"

#include "base/small_file.h"
#include "platform/default_folder.h"

#include <cstring>
#include <random>
#include <string>
#include <windows.h>
// Behind windows.h, which it needs.
#include <dpapi.h>

namespace softkey
{
namespace
{

constexpr DWORD QUIETLY = CRYPTPROTECT_UI_FORBIDDEN;

DATA_BLOB blobOf(Bytes bytes)
{
    return {static_cast<DWORD>(bytes.size()), const_cast<BYTE*>(bytes.data())};
}

} // namespace

std::optional<SecretBuffer> readMachineSecret(std::size_t size)
{
    const std::optional<ByteVector> content = readSmallFile(machineSecretFile());
    if (!content)
        return std::nullopt;
    DATA_BLOB sealed = blobOf(*content);
    DATA_BLOB plain{};
    if (CryptUnprotectData(&sealed, nullptr, nullptr, nullptr, nullptr, QUIETLY, &plain) == 0)
        return std::nullopt;
    SecretBuffer secret(size);
    const bool complete = plain.cbData == size;
    if (complete)
        std::memcpy(secret.data(), plain.pbData, size);
    SecureZeroMemory(plain.pbData, plain.cbData);
    LocalFree(plain.pbData);
    return complete ? std::optional(std::move(secret)) : std::nullopt;
}

void storeMachineSecret(Bytes secret)
{
    const std::filesystem::path path = machineSecretFile();
    DATA_BLOB plain = blobOf(secret);
    DATA_BLOB sealed{}; // Under what the system keeps for this user.
    if (!path.has_parent_path() || !ensureFolder(path.parent_path()) ||
        CryptProtectData(&plain, L"velkor-softkey", nullptr, nullptr, nullptr, QUIETLY, &sealed) == 0)
        return;
    std::filesystem::path draft = path;
    draft += ".";
    draft += std::to_string(std::random_device()());
    HANDLE file = CreateFileW(draft.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != INVALID_HANDLE_VALUE) {
        DWORD written = 0;
        const bool complete = WriteFile(file, sealed.pbData, sealed.cbData, &written, nullptr) != 0 &&
                              written == sealed.cbData && FlushFileBuffers(file) != 0;
        CloseHandle(file);
        if (!complete || MoveFileExW(draft.c_str(), path.c_str(), MOVEFILE_WRITE_THROUGH) == 0)
            DeleteFileW(draft.c_str());
    }
    LocalFree(sealed.pbData);
}

} // namespace softkey
