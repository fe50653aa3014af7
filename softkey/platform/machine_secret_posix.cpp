#include "platform/machine_secret.h"

#include "platform/default_folder.h"
#include "platform/descriptor_posix.h"

#include <fcntl.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace softkey
{
namespace
{

bool isPrivate(const Descriptor& file, std::size_t size)
{
    struct stat status = {};
    return fstat(file.value(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
           (status.st_mode & 077) == 0 && static_cast<std::size_t>(status.st_size) == size;
}

} // namespace

std::optional<SecretBuffer> readMachineSecret(std::size_t size)
{
    const Descriptor file(machineSecretFile(), O_RDONLY | O_NOFOLLOW);
    SecretBuffer secret(size);
    const bool complete = file.isOpen() && isPrivate(file, size) &&
                          read(file.value(), secret.data(), secret.size()) == static_cast<ssize_t>(secret.size());
    return complete ? std::optional(std::move(secret)) : std::nullopt;
}

void storeMachineSecret(Bytes secret)
{
    const std::filesystem::path path = machineSecretFile();
    if (!path.has_parent_path() || !ensureFolder(path.parent_path()))
        return;
    std::filesystem::path draft = path;
    draft += ".";
    draft += std::to_string(std::random_device()());
    const Descriptor file(draft, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW);
    if (!file.isOpen())
        return;
    const bool written =
        write(file.value(), secret.data(), secret.size()) == static_cast<ssize_t>(secret.size()) && file.synchronise();
    if (written && link(draft.c_str(), path.c_str()) == 0) {
        const Descriptor folder(path.parent_path(), O_RDONLY | O_DIRECTORY);
        folder.synchronise();
    }
    unlink(draft.c_str());
}

} // namespace softkey
