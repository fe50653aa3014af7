// The state of the library in this process: its instances and its keys folder.
#pragma once

#include "store/keys_folder.h"

namespace softkey
{

/// Null when OpenSSL cannot be started or too many instances are alive. The first instance opens the keys folder.
void* createInstance();
/// The last instance closes the folder and wipes what was unlocked.
void releaseInstance(void* instance);
/// Throws BadInstance.
void requireInstance(const void* instance);

KeysFolder& keysFolder();

/// Ends all hash contexts.
void dropHashContexts();

} // namespace softkey
