// Firmware versions as tokens tell them, for the tests of what depends on the version.
#pragma once

/// A firmware version, and whether it counts as 2.0.0 or later.
struct Firmware {
    const char* version;
    bool recent;
};

inline constexpr Firmware FIRMWARES[] = {{"", false},       {"1.5.0", false},  {"1.9", false},    {"1.9.9", false},
                                         {"1.9.12", false}, {"2", true},       {"2.0", true},     {"2.0.0", true},
                                         {"2.0.0.0", true}, {"2.0.0.1", true}, {"2.0.-1", false}, {"2.1.0", true},
                                         {"10.0.0", true},  {"-1", false},     {"-3.0.0", false}, {" 2.0", true},
                                         {" 2.0.0", true},  {"x", false},      {"x.9.9", false},  {"2.0.0-beta", true}};
