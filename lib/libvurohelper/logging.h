#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "liblog/log.h"
#include "libvurohelper/api.h"

namespace brenholt::monitoring_modules::libvurohelper {

namespace module {
class service_container;
}

namespace logging {

// Name of the environment variable with the directory of the log files. Unset or
// empty: logs are discarded.
inline constexpr const char* log_dir_variable = "VURO_LOG_DIR";

// One log file; each line gets a time stamp and the severity name. The file is opened
// at the first line and stays open; several log objects may append to one file.
// Lines of severity warning and worse go to the file at once, each with every line
// before it; the others wait in the log until flush_file_logs(), which the module calls
// as each of its exported functions returns.
class VURO_API file_log : public liblog::log_interface {
public:
    explicit file_log(std::string file_name);
    ~file_log() override;
    file_log(const file_log&) = delete;
    file_log& operator=(const file_log&) = delete;
    void write(liblog::severity level, const std::string& text) override;
    // Every line or none: whether logging to files is on.
    bool keeps(liblog::severity) const override { return !path_.empty(); }
    // Where the lines go, empty when logging to files is off.
    const std::string& path() const { return path_; }

    // Writes out the lines that wait.
    void flush();

private:
    friend VURO_API void flush_file_logs();
    int descriptor();
    // Caller holds buffer_mutex_.
    void write_pending();

    std::string path_;
    std::atomic<int> fd_{-1};
    std::mutex open_mutex_;
    std::mutex buffer_mutex_;
    std::string pending_;
    // Set while the log stands in the list of logs with lines waiting.
    std::atomic<bool> queued_{false};
};

// Writes out the waiting lines of every file log of the process.
VURO_API void flush_file_logs();

// The log of one sensor: "sensor_<id>.log". The file appears with the first line.
class VURO_API sensor_log : public file_log {
public:
    explicit sensor_log(int sensor_id);
    ~sensor_log() override;
};

VURO_API std::string severity_name(liblog::severity level);

}  // namespace logging

namespace module {
// The runtime log: "runtime.log".
VURO_API void register_runtime_log(const std::shared_ptr<service_container>& services);
// Factory of sensor logs, keyed by the sensor id.
VURO_API void register_sensor_log(const std::shared_ptr<service_container>& services);
}  // namespace module

}  // namespace brenholt::monitoring_modules::libvurohelper
