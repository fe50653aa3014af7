// Counts the looks at files that a call takes: at the log level's file, and at a key's change counter. The program has
// the system's functions for them under its own name, so that the libraries under test find these.
#pragma once

namespace bench
{

struct Looks {
    unsigned atLevel = 0;
    unsigned atCounter = 0; ///< Four bytes at the place where SQLite keeps it.
};

/// Counts what this thread looks at as long as it lives. One at a time for each thread.
class CountedLooks
{
public:
    CountedLooks();
    ~CountedLooks();
    CountedLooks(const CountedLooks&) = delete;
    CountedLooks& operator=(const CountedLooks&) = delete;

    const Looks& looks() const { return looks_; }

private:
    Looks looks_;
};

/// The file that says what is logged.
const char* levelFile();

} // namespace bench
