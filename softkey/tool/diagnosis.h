// What a look at the system has found: what is well, what is worth knowing, and what is to be mended, and how.
#pragma once

#include "tool/session.h"

#include <string>
#include <vector>

namespace softkey
{

class Diagnosis
{
public:
    void good(const std::string& part, const std::string& text) { add("good", part, text, {}); }
    void note(const std::string& part, const std::string& text) { add("note", part, text, {}); }
    void problem(const std::string& part, const std::string& text, const std::string& fix)
    {
        add("problem", part, text, fix);
    }

    /// Throws a Failure when there is a problem.
    void print(const Session& session) const;

private:
    struct Finding {
        const char* state;
        std::string part;
        std::string text;
        std::string fix; ///< Of a problem.
    };

    void add(const char* state, const std::string& part, const std::string& text, const std::string& fix);
    std::size_t problems() const;

    std::vector<Finding> findings_;
};

} // namespace softkey
