// What a line of the log costs that is not written, with and without the file that says what is logged, and what the
// system calls cost that it stands for. In one process, so that all rows see the same machine.
#include "log/log.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

using State = benchmark::State;

/// A file as deep in the tree as the one that is looked for when nobody names another.
struct LevelFile {
    std::filesystem::path folder;
    std::string path;

    LevelFile()
    {
        char pattern[] = "/tmp/velkor-XXXXXX";
        if (mkdtemp(pattern) == nullptr)
            std::abort();
        folder = pattern;
        path = (folder / "velkor.conf").string();
        std::ofstream(path) << "logLevel = 2\n";
    }
    ~LevelFile() { std::filesystem::remove_all(folder); }
};

/// Past the time in which the stamp of a fresh file is not trusted.
void settle()
{
    const timespec pause = {4, 0};
    nanosleep(&pause, nullptr);
}

void line(State& state)
{
    if (velkor::isLogged(velkor::LOG_DEBUG))
        state.SkipWithError("the line would be written");
    for (auto _ : state)
        velkor::logDebug("C_GetSessionInfo");
}

void look(State& state, const std::string& path)
{
    struct stat status {
    };
    for (auto _ : state)
        benchmark::DoNotOptimize(stat(path.c_str(), &status));
}

void addRows(const std::string& name, const std::string& path)
{
    benchmark::RegisterBenchmark(("Line" + name).c_str(), [path](State& state) {
        setenv("VELKOR_CONFIG", path.c_str(), 1);
        line(state);
    });
    benchmark::RegisterBenchmark(("Look" + name).c_str(), [path](State& state) { look(state, path); });
}

} // namespace

int main(int argumentCount, char** arguments)
{
    benchmark::Initialize(&argumentCount, arguments);
    const LevelFile file;
    settle();
    addRows("WithFile", file.path);
    addRows("WithoutFile", file.path + ".none");
    addRows("WithoutFolder", "/etc/brenmoor.none/velkor.conf");
    benchmark::RegisterBenchmark("ShortestSystemCall", [](State& state) {
        for (auto _ : state)
            benchmark::DoNotOptimize(syscall(SYS_getppid));
    });
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
