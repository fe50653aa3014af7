// Tells a test what is released.
#pragma once

/// From now on `seen` is told of everything that is given to `free`, just before it is.
void watchFree(void (*seen)(void* memory));
