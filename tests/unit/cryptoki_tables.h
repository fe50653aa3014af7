// Owns the form in which a Cryptoki header is laid open for comparison. Two such headers cannot share a translation
// unit, so each one fills its own tables.

#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

namespace cryptoki_tables
{

struct Function {
    std::string name;
    std::size_t offset;
    std::string type;
};

struct Tables {
    std::map<std::string, unsigned long> constants;
    std::map<std::string, std::string> types;
    std::vector<Function> functions;
};

Tables ownTables();
Tables p11kitTables();

} // namespace cryptoki_tables
