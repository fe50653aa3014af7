// Random runs of calls, good and bad, made with the module and with its model, which has to answer the same in all that
// can be seen.
//     model_test [--steps 20000] [--seed 1] [--run 150]
#include "runs.h"
#include "steps.h"
#include "world.h"

int main(int argc, char** argv)
{
    const std::uint64_t seed = numberOption(argc, argv, "--seed", 1);
    const std::uint64_t length = numberOption(argc, argv, "--run", 150);
    StepMaker maker(seed);
    return ModelRuns<ModelWorld, ModelStep>().check(numberOption(argc, argv, "--steps", 20000), seed,
                                                    [&] { return maker.run(length); });
}
