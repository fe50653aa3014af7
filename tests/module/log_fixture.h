// The world of a test of the log. C_GetFunctionList writes one debug line, and one error line when it is given a null
// pointer.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "module_fixture.h"

inline const std::string DEBUG_LINE = "DEBUG C_GetFunctionList";
inline const std::string ERROR_LINE = "ERROR C_GetFunctionList: ppFunctionList is NULL";

class LogLinesTest : public ModuleTest
{
protected:
    /// The value is the machine's own, as it is for a host.
    void SetUp() override
    {
        ModuleTest::SetUp();
        test_system::useMachineWideRegistry();
        setLogLevel("3");
    }

    void TearDown() override
    {
        ModuleTest::TearDown();
        logLevel_->remove();
    }

    static void writeBothKinds() { C_GetFunctionList(nullptr); }

    std::vector<std::string> linesAt(const std::string& level) const
    {
        setLogLevel(level);
        writeBothKinds();
        return wholeLog();
    }

    std::vector<std::filesystem::path> logFiles() const
    {
        return {std::filesystem::directory_iterator(logFolder_), std::filesystem::directory_iterator()};
    }
};
