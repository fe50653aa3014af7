// Calls in words.
#pragma once

#include <string>
#include <string_view>

#include "calls.h"

namespace velkor::trace
{

/// "refused CKR_PIN_LOCKED", "no refusal seen".
std::string outcomeText(const Call& call);

/// What happened and what it means, in one or two sentences.
std::string explanationOf(const Call& call);

/// What the caller does about a refusal; empty where there is nothing to do.
std::string_view remedyOf(const Call& call);

/// The values of a line in words: "private key 5, CKM_SHA256 (592)"; empty when it has none.
std::string valuesInWords(const CallLine& line);

/// "1.234 s", "12 ms"; empty for what is not known.
std::string durationText(std::optional<Milliseconds> duration);

/// The text with all that a terminal could take for a command shown as "?".
std::string printable(std::string_view text);

/// A page about what was asked for: a line or a text of the log, a return code or another constant, a number, a handle,
/// "status 313", or a function. Empty when nothing is known of it.
std::string explain(std::string_view question);

} // namespace velkor::trace
