// The command-line tool, run as its users run it.
#pragma once

#include "world.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <set>
#include <sstream>

namespace softkey::test
{

using nlohmann::json;

/// Of keys that the tool makes: long enough for it not to warn.
inline constexpr const char* CHOSEN_PIN = "chosen-pin";

class ToolTest : public SoftkeyTest
{
protected:
    ToolTest()
    {
        test_system::setEnvironment("USER_PIN", PIN);
        test_system::setEnvironment("CHOSEN_PIN", CHOSEN_PIN);
        test_system::setEnvironment("OFFICER_PIN", SO_PIN);
        test_system::setEnvironment("WRONG", WRONG_PIN);
    }

    /// The tool reads a file's times just before it refuses.
    void SetUp() override { REQUIRE_PATHS_IN_EXCEPTIONS(); }

    static Outcome tool(const std::string& arguments, const std::string& input = {})
    {
        return run(softkeyTool() + " " + arguments, input);
    }
    /// The result of a command that must succeed.
    static json result(const std::string& arguments)
    {
        const Outcome outcome = tool("--json " + arguments);
        EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
        EXPECT_EQ(outcome.error, "");
        return json::parse(outcome.out);
    }
    /// A command that must fail with that code and one line of reason, in which `reason` stands.
    static void expectFailure(const std::string& arguments, int exitCode, const std::string& input = {},
                              const std::string& reason = {})
    {
        const Outcome outcome = tool(arguments, input);
        EXPECT_EQ(outcome.exitCode, exitCode) << arguments;
        EXPECT_EQ(outcome.out, "");
        EXPECT_TRUE(outcome.error.starts_with("velkor-softkey: ")) << outcome.error;
        EXPECT_EQ(std::count(outcome.error.begin(), outcome.error.end(), '\n'), 1) << outcome.error;
        EXPECT_EQ(outcome.error.find(PIN), std::string::npos);
        EXPECT_NE(outcome.error.find(reason), std::string::npos) << outcome.error;
    }

    /// The names of all commands, as the help lists them.
    static std::vector<std::string> commands()
    {
        const std::string help = tool("--help").out;
        const std::size_t start = help.find("\nSubcommands:\n");
        EXPECT_NE(start, std::string::npos) << help;
        std::vector<std::string> names;
        std::istringstream lines(help.substr(start));
        for (std::string line; std::getline(lines, line);) {
            const std::size_t name = line.find_first_not_of(' ');
            if (name == 2) // What is further in goes on with a description.
                names.push_back(line.substr(name, line.find(' ', name) - name));
        }
        return names;
    }

    std::string path(const std::string& name) const { return (scratch.path() / name).string(); }

    void makeKeyAndCertificate() const
    {
        const EvpKey key(EVP_RSA_gen(2048));
        const Data certificate = certificateNamed("Tool", key.get());
        scratch.file("k.pem", privateKeyPem(key.get()));
        scratch.file("c.pem", certificatePem(certificate));
        scratch.file("c.der", certificate);
    }
};

inline std::string textOf(const Data& bytes)
{
    return {bytes.begin(), bytes.end()};
}

/// All that a text has of the form --option.
inline std::set<std::string> longOptionsIn(const std::string& text)
{
    std::set<std::string> options;
    for (std::size_t start = text.find("--"); start != std::string::npos; start = text.find("--", start + 2)) {
        const std::size_t end = text.find_first_not_of("abcdefghijklmnopqrstuvwxyz-", start);
        if (end != start + 2)
            options.insert(text.substr(start, end - start));
    }
    return options;
}

/// The names of the fields of a JSON document.
using Fields = std::set<std::string>;

inline Fields fieldsOf(const json& object)
{
    Fields names;
    for (const auto& [name, value] : object.items())
        names.insert(name);
    return names;
}

/// Every field is in the section of the manual page about JSON.
inline void expectDocumented(const Fields& names)
{
    std::string section = textOf(readFile(softkeyManual()));
    section = section.substr(section.find(".SH JSON OUTPUT"));
    section.resize(section.find(".SH EXIT STATUS"));
    for (const std::string& name : names) {
        const bool found = section.find(".I " + name + "\n") != std::string::npos ||
                           section.find(".IR " + name + " ") != std::string::npos;
        EXPECT_TRUE(found) << name << " is not in the manual page";
    }
}

/// A document has these fields and no others, and the manual page knows them.
inline void expectFields(const json& document, const Fields& names)
{
    EXPECT_EQ(fieldsOf(document), names) << document;
    expectDocumented(names);
}

/// What openssl prints of a file; the command must succeed.
inline std::string shown(const std::string& command)
{
    const Outcome outcome = run("openssl " + command);
    EXPECT_EQ(outcome.exitCode, 0) << command << ": " << outcome.error;
    return outcome.out;
}

inline const std::string WITH_PIN = " --pin-env USER_PIN";
inline const std::string WITH_CHOSEN_PIN = " --pin-env CHOSEN_PIN";
inline const std::string WITH_PINS = WITH_CHOSEN_PIN + " --so-pin-env OFFICER_PIN --scrypt-cost 4";

} // namespace softkey::test
