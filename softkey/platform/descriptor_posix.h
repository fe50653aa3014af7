// A file descriptor that is closed with its owner.
#pragma once

#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace softkey
{

class Descriptor
{
public:
    Descriptor(const std::filesystem::path& path, int flags) : value_(open(path.c_str(), flags | O_CLOEXEC, 0600)) {}
    ~Descriptor()
    {
        if (value_ >= 0)
            close(value_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    bool isOpen() const { return value_ >= 0; }
    int value() const { return value_; }
    bool synchronise() const { return fsync(value_) == 0; }

private:
    int value_;
};

} // namespace softkey
