#include "frame/module_state.h"

ModuleState& moduleState()
{
    static ModuleState& state = *new ModuleState;
    return state;
}
