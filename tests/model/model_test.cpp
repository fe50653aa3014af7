// Random runs of calls, good and bad, made with the module and with its model, which has to answer the same in all that
// can be seen. Each run has a process of its own. The first difference is shrunk to the fewest steps that show one.
//     model_test [--steps 20000] [--seed 1] [--run 150]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <string_view>

#include <sys/wait.h>
#include <unistd.h>

#include "steps.h"
#include "world.h"

namespace
{

constexpr unsigned LONGEST_RUN_SECONDS = 60;

struct RunDifference {
    std::size_t step; ///< Where it was seen.
    std::string text;
};

/// In a process of its own: writes the number of the step that differs, and how; nothing when none does.
[[noreturn]] void runInChild(const std::vector<ModelStep>& steps, const std::filesystem::path& folder, int out)
{
    alarm(LONGEST_RUN_SECONDS);
    ModelWorld& world = *new ModelWorld(folder);
    for (std::size_t index = 0; index < steps.size(); ++index) {
        // Told before: a step that ends the process is the one that differs.
        dprintf(out, "%zu\n", index);
        const std::string text = world.step(steps[index]);
        if (text.empty())
            continue;
        dprintf(out, "%s", text.c_str());
        _exit(1);
    }
    _exit(0);
}

std::string readAll(int in)
{
    std::string all;
    char buffer[4096];
    for (ssize_t count = read(in, buffer, sizeof buffer); count > 0; count = read(in, buffer, sizeof buffer))
        all.append(buffer, static_cast<std::size_t>(count));
    return all;
}

std::string howItEnded(int status)
{
    if (WIFSIGNALED(status))
        return std::string("  the process died: ") + strsignal(WTERMSIG(status)) + "\n";
    return "  the process ended with exit code " + std::to_string(WEXITSTATUS(status)) + "\n";
}

std::optional<RunDifference> runSteps(const std::vector<ModelStep>& steps, const std::filesystem::path& folder)
{
    int ends[2];
    if (pipe(ends) != 0) {
        std::perror("pipe");
        std::exit(2);
    }
    std::cout.flush();
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        runInChild(steps, folder, ends[1]);
    }
    close(ends[1]);
    const std::string told = readAll(ends[0]);
    close(ends[0]);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        std::perror("fork");
        std::exit(2);
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return std::nullopt;
    // The last line that is a number is the step; what follows is the difference.
    std::size_t step = 0;
    std::string text = told;
    for (char* end = nullptr; !text.empty() && text[0] >= '0' && text[0] <= '9';) {
        step = std::strtoul(text.c_str(), &end, 10);
        text.erase(0, static_cast<std::size_t>(end - text.c_str()) + 1);
    }
    return RunDifference{step, text.empty() ? howItEnded(status) : text};
}

/// Fewer and fewer steps, as long as some difference stays.
RunDifference shrink(std::vector<ModelStep>& steps, RunDifference difference, const std::filesystem::path& folder)
{
    const auto stillDiffers = [&](std::vector<ModelStep> fewer) {
        const std::optional<RunDifference> seen = runSteps(fewer, folder);
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
            std::vector<ModelStep> fewer = steps;
            const auto first = fewer.begin() + static_cast<std::ptrdiff_t>(at);
            fewer.erase(first, first + static_cast<std::ptrdiff_t>(part));
            if (!stillDiffers(fewer))
                at += part;
        }
    }
    for (std::size_t at = 0; at < steps.size(); ++at) {
        std::vector<ModelStep> simpler = steps;
        simpler[at].fault = {};
        if (steps[at].fault.call != 0)
            stillDiffers(simpler);
    }
    return difference;
}

/// The number behind an option, or what it is without one.
std::uint64_t option(int argc, char** argv, std::string_view name, std::uint64_t otherwise)
{
    for (int index = 1; index + 1 < argc; ++index) {
        if (argv[index] == name)
            return std::strtoull(argv[index + 1], nullptr, 10);
    }
    return otherwise;
}

} // namespace

int main(int argc, char** argv)
{
    const std::uint64_t wanted = option(argc, argv, "--steps", 20000);
    const std::uint64_t seed = option(argc, argv, "--seed", 1);
    const std::uint64_t length = option(argc, argv, "--run", 150);
    const std::string name = test_system::program().filename().string() + "." + std::to_string(getpid());
    const std::filesystem::path folder = test_system::scratchFolder(name);
    StepMaker maker(seed);
    std::uint64_t done = 0;
    while (done < wanted) {
        std::vector<ModelStep> steps = maker.run(length);
        if (const std::optional<RunDifference> seen = runSteps(steps, folder)) {
            const std::size_t made = steps.size();
            const RunDifference difference = shrink(steps, *seen, folder);
            std::cout << "Seed " << seed << ", after " << done << " steps: a difference in a run of " << made
                      << " steps, shrunk to " << steps.size() << ":\n";
            for (const ModelStep& step : steps)
                std::cout << "  " << described(step) << "\n";
            std::cout << "The last one differs:\n" << difference.text;
            std::filesystem::remove_all(folder);
            return 1;
        }
        done += steps.size();
    }
    std::filesystem::remove_all(folder);
    std::cout << done << " steps, seed " << seed << ": no difference\n";
    return 0;
}
