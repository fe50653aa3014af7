// The module and the model side by side, each with a device of its own: does steps with both and compares.
#pragma once

#include <filesystem>
#include <ios>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model.h"
#include "monitor_sleep.h"
#include "recording_device.h"
#include "steps.h"
#include "test_system.h"

class ModelWorld
{
public:
    /// `folder` is for the log and gets lost. The process has not used the module yet.
    explicit ModelWorld(const std::filesystem::path& folder);

    /// Does a step with both. What differs, in words; empty when nothing does.
    std::string step(const ModelStep& step);

private:
    struct Seen {
        CK_RV code = CKR_OK;
        DeviceBytes outputs;
        std::vector<std::string> lines;
        std::vector<std::string> monitorLines;
        std::vector<std::string> deviceCalls;
    };

    void prepareDevice(RecordingDevice& device) const;
    void change(RecordingDevice& device, const ModelStep& step) const;
    void changeBoth(const ModelStep& step);
    void runMonitor();
    Seen callModule(const ModelStep& step);
    Seen callModel(const ModelStep& step);
    void readLog(Seen& seen);
    static std::string difference(const Seen& module, const Seen& model);

    MonitorSleep sleep_;
    std::filesystem::path logFolder_;
    std::map<std::filesystem::path, std::streamoff> readTo_; ///< Where what is new begins, of each file of the log.
    test_system::LogLevel logLevel_;
    std::shared_ptr<RecordingDevice> moduleDevice_ = std::make_shared<RecordingDevice>();
    RecordingDevice modelDevice_;
    Model model_{modelDevice_};
    const CK_FUNCTION_LIST* module_ = nullptr;
};
