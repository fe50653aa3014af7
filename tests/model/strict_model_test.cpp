// Random runs of calls of the strict front, held against a model of the standard.
//     strict_model_test [--steps 20000] [--seed 1] [--run 120]
#include "runs.h"
#include "strict_model.h"

int main(int argc, char** argv)
{
    const std::uint64_t seed = numberOption(argc, argv, "--seed", 1);
    const std::uint64_t length = numberOption(argc, argv, "--run", 120);
    StrictStepMaker maker(seed);
    return ModelRuns<StrictWorld, StrictStep>().check(numberOption(argc, argv, "--steps", 20000), seed,
                                                      [&] { return maker.run(length); });
}
