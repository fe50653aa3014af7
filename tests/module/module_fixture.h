// The world of a behaviour test: the module, the double, and a temporary folder with a log in it that is read back.
#pragma once

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cryptoki.h"
#include "device_double.h"
#include "eventually.h"
#include "mock_device.h"
#include "monitor_sleep.h"
#include "test_system.h"
#include "velkor_extensions.h"

/// What a call answered: its code, and the lines it wrote, as "DEBUG text" or "ERROR text".
struct Answer {
    CK_RV code;
    std::vector<std::string> lines;

    bool operator==(const Answer&) const = default;

    friend std::ostream& operator<<(std::ostream& out, const Answer& answer)
    {
        out << "code 0x" << std::hex << answer.code << std::dec;
        for (const std::string& line : answer.lines)
            out << "\n    " << line;
        return out;
    }
};

/// A refusal: the entry line of the function, then one error line.
inline Answer refusal(CK_RV code, const std::string& function, const std::string& text)
{
    return {code, {"DEBUG " + function, "ERROR " + text}};
}

/// Takes the slot event that a test leaves behind, which would otherwise be the first one of the next test.
class LastDevice : public DefaultDevice
{
public:
    void velkor_releaseInstance(void* /*libraryInstance*/) override
    {
        CK_SLOT_ID slot = 0;
        C_WaitForSlotEvent(CKF_DONT_BLOCK, &slot, nullptr); // The monitor has ended and the module has not.
    }
};

class ModuleTest : public testing::Test
{
protected:
    /// Fresh folder, debug log, fresh double; the module is not initialised.
    void SetUp() override
    {
        const auto* info = testing::UnitTest::GetInstance()->current_test_info();
        const std::string program = test_system::program().filename().string();
        folder_ = test_system::scratchFolder(program + "." + info->test_suite_name() + "." +
                                             std::string(info->name()).substr(0, 80));
        std::filesystem::remove_all(folder_);
        logFolder_ = folder_ / "Brenmoor" / test_system::loggedProgramName();
        std::filesystem::create_directories(logFolder_);
        logLevel_ = std::make_unique<test_system::LogLevel>(folder_);
        setLogLevel("3");
        test_system::setTemporaryFolder(folder_);
        setDeviceOperations(device_);
    }

    /// A process with a single test leaves the module to the process's end.
    void TearDown() override
    {
        setLogLevel("0");
        setDeviceOperations(std::make_shared<LastDevice>());
        waitForMonitorToLeaveTheDevice(); // Else it may be in the midst of an expectation.
        testing::Mock::VerifyAndClearExpectations(device_.get());
        if (testing::UnitTest::GetInstance()->test_to_run_count() > 1 && finalize() != CKR_OK)
            stopLeftMonitor();
    }

    /// The monitor keeps the mock while it is in a call of it, and a mock that is left at the process's end is an
    /// error.
    void waitForMonitorToLeaveTheDevice() const
    {
        while (device_.use_count() > 1)
            std::this_thread::yield();
    }

    /// A failed start leaves a monitor behind, which a good one ends once it has begun to run.
    void stopLeftMonitor()
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // Nothing tells of its beginning, or whether it is.
        C_Initialize(nullptr);
        finalize();
    }

    /// Does not wait for the monitor's sleep to pass.
    CK_RV finalize()
    {
        monitorSleep_.skip();
        const CK_RV code = C_Finalize(nullptr);
        monitorSleep_.release();
        return code;
    }

    void setLogLevel(const std::string& value) const { logLevel_->set(value); }

    /// Every line of the log so far, without its time.
    std::vector<std::string> wholeLog() const
    {
        std::vector<std::string> lines;
        for (const auto& file : std::filesystem::directory_iterator(logFolder_)) {
            std::ifstream stream(file.path(), std::ios::binary);
            for (std::string line; std::getline(stream, line);)
                lines.push_back(line.substr(24, 6) + line.substr(34));
        }
        return lines;
    }

    /// The log without the lines of the monitor, which come at any time.
    std::vector<std::string> callLog() const
    {
        std::vector<std::string> lines = wholeLog();
        std::erase_if(lines, [](const std::string& line) {
            return line.starts_with("DEBUG Session monitor thread ") || line.starts_with("DEBUG Slot event: ") ||
                   line == "DEBUG Device disconnected, clearing userPassword";
        });
        return lines;
    }

    std::ptrdiff_t timesLogged(const std::string& line) const
    {
        const std::vector<std::string> lines = wholeLog();
        return std::count(lines.begin(), lines.end(), line);
    }

    /// Waits until threads have written a line that often; false when it does not come.
    bool waitForLine(const std::string& line, long times = 1) const
    {
        return test_system::eventually([&] { return timesLogged(line) >= times; });
    }

    /// Calls an entry point and reads what it wrote.
    template <typename... Parameters, typename... Arguments>
    Answer answer(CK_RV (*function)(Parameters...), Arguments... arguments) const
    {
        const std::size_t before = callLog().size();
        const CK_RV code = function(static_cast<Parameters>(arguments)...);
        std::vector<std::string> lines = callLog();
        lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
        return {code, std::move(lines)};
    }

    /// What the module passes to the library from C_Initialize on.
    void* instance() const
    {
        void* libraryInstance = nullptr;
        device_->defaults.velkor_createInstance(&libraryInstance);
        return libraryInstance;
    }

    MonitorSleep monitorSleep_;
    std::filesystem::path folder_;
    std::filesystem::path logFolder_;
    std::unique_ptr<test_system::LogLevel> logLevel_;
    std::shared_ptr<testing::NiceMock<MockDevice>> device_ = std::make_shared<testing::NiceMock<MockDevice>>();
};

class InitializedModuleTest : public ModuleTest
{
protected:
    void SetUp() override
    {
        ModuleTest::SetUp();
        ASSERT_EQ(C_Initialize(nullptr), CKR_OK);
    }
};
