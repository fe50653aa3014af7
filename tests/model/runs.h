// Random runs against a model, whatever it is a model of. Each run has a process of its own, so that one that crashes
// or hangs is a difference too. The first difference is shrunk to the fewest steps that show one.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "test_system.h"

struct RunDifference {
    std::size_t step; ///< Where it was seen.
    std::string text;
};

/// The number behind an option of the command line, or what it is without one.
inline std::uint64_t numberOption(int argc, char** argv, std::string_view name, std::uint64_t otherwise)
{
    for (int index = 1; index + 1 < argc; ++index) {
        if (argv[index] == name)
            return std::strtoull(argv[index + 1], nullptr, 10);
    }
    return otherwise;
}

/// `World` is made from a folder of its own, in a process that has done nothing else; its `step` does a step and says
/// what differs, or nothing. `Step` can be told by `described`, and be made simpler by `simplified` (false: it cannot).
template <typename World, typename Step>
class ModelRuns
{
public:
    using Steps = std::vector<Step>;

    /// Runs that `make` makes, until `wanted` steps are done. The exit code of the program: 0 without a difference.
    template <typename Make>
    int check(std::uint64_t wanted, std::uint64_t seed, const Make& make) const
    {
        std::uint64_t done = 0;
        while (done < wanted) {
            Steps steps = make();
            if (const std::optional<RunDifference> seen = run(steps)) {
                std::cout << "Seed " << seed << ", after " << done << " steps: a difference in a run of "
                          << steps.size() << " steps, shrunk to ";
                tell(steps, shrink(steps, *seen));
                std::filesystem::remove_all(folder_);
                return 1;
            }
            done += steps.size();
        }
        std::filesystem::remove_all(folder_);
        std::cout << done << " steps, seed " << seed << ": no difference\n";
        return 0;
    }

private:
    static constexpr unsigned LONGEST_RUN_SECONDS = 60;

    static void tell(const Steps& steps, const RunDifference& difference)
    {
        std::cout << steps.size() << ":\n";
        for (const Step& step : steps)
            std::cout << "  " << described(step) << "\n";
        std::cout << "The last one differs:\n" << difference.text;
    }

    /// In a process of its own: writes the number of the step that differs, and how; nothing when none does.
    [[noreturn]] void runInChild(const Steps& steps, int out) const
    {
        alarm(LONGEST_RUN_SECONDS);
        World& world = *new World(folder_);
        for (std::size_t index = 0; index < steps.size(); ++index) {
            dprintf(out, "%zu\n", index); // Told before: a step that ends the process is the one that differs.
            const std::string text = world.step(steps[index]);
            if (text.empty())
                continue;
            dprintf(out, "%s", text.c_str());
            _exit(1);
        }
        _exit(0);
    }

    static std::string readAll(int in)
    {
        std::string all;
        char buffer[4096];
        for (ssize_t count = read(in, buffer, sizeof buffer); count > 0; count = read(in, buffer, sizeof buffer))
            all.append(buffer, static_cast<std::size_t>(count));
        return all;
    }

    [[noreturn]] static void giveUp(const char* what)
    {
        std::perror(what);
        std::exit(2);
    }

    std::optional<RunDifference> run(const Steps& steps) const
    {
        int ends[2];
        if (pipe(ends) != 0)
            giveUp("pipe");
        std::cout.flush();
        const pid_t child = fork();
        if (child < 0)
            giveUp("fork");
        if (child == 0) {
            close(ends[0]);
            runInChild(steps, ends[1]);
        }
        close(ends[1]);
        const std::string told = readAll(ends[0]);
        close(ends[0]);
        int status = 0;
        if (waitpid(child, &status, 0) != child)
            giveUp("waitpid");
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
            return std::nullopt;
        return differenceIn(told, status);
    }

    /// The last number in front is the step's; what follows is how it differs.
    static RunDifference differenceIn(std::string told, int status)
    {
        RunDifference difference{0, {}};
        while (!told.empty() && told[0] >= '0' && told[0] <= '9') {
            difference.step = std::strtoul(told.c_str(), nullptr, 10);
            told.erase(0, std::min(told.find('\n'), told.size() - 1) + 1);
        }
        if (WIFSIGNALED(status))
            told += std::string("  the process died: ") + strsignal(WTERMSIG(status)) + "\n";
        else if (told.empty())
            told = "  the process ended with exit code " + std::to_string(WEXITSTATUS(status)) + "\n";
        difference.text = told;
        return difference;
    }

    /// Fewer and simpler steps, as long as some difference stays.
    RunDifference shrink(Steps& steps, RunDifference difference) const
    {
        const auto stillDiffers = [&](Steps fewer) {
            const std::optional<RunDifference> seen = run(fewer);
            if (!seen)
                return false;
            fewer.resize(seen->step + 1);
            steps = std::move(fewer);
            difference = *seen;
            return true;
        };
        steps.resize(difference.step + 1);
        for (std::size_t part = steps.size() / 2; part > 0; part /= 2) {
            for (std::size_t at = 0; at + part <= steps.size();) {
                Steps fewer = steps;
                const auto first = fewer.begin() + static_cast<std::ptrdiff_t>(at);
                fewer.erase(first, first + static_cast<std::ptrdiff_t>(part));
                if (fewer.empty() || !stillDiffers(std::move(fewer)))
                    at += part;
            }
        }
        for (std::size_t at = 0; at < steps.size(); ++at) {
            Steps simpler = steps;
            if (simplified(simpler[at]))
                stillDiffers(std::move(simpler));
        }
        return difference;
    }

    const std::filesystem::path folder_ =
        test_system::scratchFolder(test_system::program().filename().string() + "." + std::to_string(getpid()));
};
