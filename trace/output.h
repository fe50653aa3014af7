// Calls as a table, and as JSON.
#pragma once

#include <cstdio>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "calls.h"

namespace velkor::trace
{

struct TableStyle {
    int width = 0; ///< Columns; 0: lines are as long as they are.
    bool colours = false;
    bool programs = false; ///< A column for the program.
};

std::string tableHeader(const TableStyle& style);
/// A call as a line of the table, or several where the explanation is longer than its column.
std::string tableRow(const Call& call, const TableStyle& style);

/// A call with its lines and all that is known of them as JSON in one line; bytes that are no UTF-8 are replaced. It is
/// put together from parts that are kept: an object for each call would take many times as long.
std::string jsonLine(const Call& call);

/// A document in the same way.
std::string jsonLine(const nlohmann::json& document);

} // namespace velkor::trace
