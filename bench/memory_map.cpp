#include "memory_map.h"

#include <fstream>
#include <sstream>

namespace bench
{
namespace
{

constexpr double LARGE = 2; ///< Mebibytes: a table of records, among the rest.

struct Mapping {
    std::string path; ///< Empty when it has none.
    double resident = 0;
    bool isLocked = false;
};

std::string kindOf(const Mapping& mapping)
{
    if (mapping.path.starts_with('['))
        return mapping.path;
    if (!mapping.path.empty())
        return mapping.path.substr(mapping.path.rfind('/') + 1);
    if (mapping.isLocked)
        return "locked";
    return mapping.resident >= LARGE ? "blocks from 2 MiB" : "smaller blocks";
}

/// The first line of a mapping: addresses, rights, offset, device, file, path.
Mapping begunBy(std::istringstream& line)
{
    Mapping mapping;
    std::string skipped;
    for (int field = 0; field < 4; ++field)
        line >> skipped;
    line >> mapping.path;
    return mapping;
}

} // namespace

std::map<std::string, double> memoryByMapping()
{
    std::map<std::string, double> memory;
    std::ifstream maps("/proc/self/smaps");
    Mapping mapping;
    for (std::string text; std::getline(maps, text);) {
        std::istringstream line(text);
        std::string name;
        line >> name;
        if (name == "Rss:") {
            line >> mapping.resident;
            mapping.resident /= 1024;
        } else if (name == "VmFlags:") { // The last line of a mapping.
            mapping.isLocked = text.find(" lo") != std::string::npos;
            memory[kindOf(mapping)] += mapping.resident;
        } else if (!name.ends_with(':')) {
            mapping = begunBy(line);
        }
    }
    return memory;
}

} // namespace bench
