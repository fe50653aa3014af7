// The slot of thread-local storage that holds a thread's lists. Who begins and ends it is told by the loader.
#pragma once

namespace softkey
{

/// False when the process has no slot left.
bool takeThreadSlot();
/// Releases the lists of the thread that ends.
void emptyThreadSlot();

} // namespace softkey
