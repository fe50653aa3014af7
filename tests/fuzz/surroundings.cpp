#include "surroundings.h"

#include <fstream>

#include "test_system.h"

namespace fuzz
{
namespace
{

std::filesystem::path folder;

const char* levelFile(bool all)
{
    return all ? "all.conf" : "nothing.conf";
}

} // namespace

std::filesystem::path prepareSurroundings()
{
    folder = test_system::scratchFolder(test_system::program().filename());
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
    std::ofstream(folder / levelFile(true)) << "logLevel = 3\n";
    std::ofstream(folder / levelFile(false)) << "logLevel = -1\n";
    test_system::setTemporaryFolder(folder);
    test_system::setEnvironment("VELKOR_CONFIG", folder / "velkor.conf");
    logAll(false);
    return folder;
}

/// In one step, and without a change of the environment: threads of the library may be reading both.
void logAll(bool all)
{
    const std::filesystem::path link = folder / "next.conf";
    std::filesystem::create_symlink(levelFile(all), link);
    std::filesystem::rename(link, folder / "velkor.conf");
}

void emptyLogs()
{
    const std::filesystem::path logs = folder / "Brenmoor";
    if (!std::filesystem::exists(logs))
        return;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(logs)) {
        if (entry.is_regular_file())
            std::filesystem::resize_file(entry.path(), 0);
    }
}

} // namespace fuzz
