#include "platform/machine_secret.h"

#include "platform/default_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace softkey
{
namespace
{

/// A descriptor that is closed with its owner.
class Opened
{
public:
    Opened(const std::filesystem::path& path, int flags) : value_(open(path.c_str(), flags | O_CLOEXEC, 0600)) {}
    ~Opened()
    {
        if (value_ >= 0)
            close(value_);
    }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;
    bool isOpen() const { return value_ >= 0; }
    int value() const { return value_; }

private:
    int value_;
};

bool isPrivate(const Opened& file)
{
    struct stat status = {};
    return fstat(file.value(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
           (status.st_mode & 077) == 0;
}

} // namespace

std::optional<SecretBytes> readMachineSecret(std::size_t size)
{
    const Opened file(machineSecretFile(), O_RDONLY | O_NOFOLLOW);
    SecretBytes secret(size);
    const bool complete = file.isOpen() && isPrivate(file) &&
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
    draft += std::to_string(getpid());
    const Opened file(draft, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW);
    const bool written = file.isOpen() &&
                         write(file.value(), secret.data(), secret.size()) == static_cast<ssize_t>(secret.size()) &&
                         fsync(file.value()) == 0;
    if (written && link(draft.c_str(), path.c_str()) == 0) {
        const Opened folder(path.parent_path(), O_RDONLY | O_DIRECTORY);
        fsync(folder.value());
    }
    unlink(draft.c_str());
}

} // namespace softkey
