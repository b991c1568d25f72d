#pragma once

#include <functional>
#include <memory>
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

namespace detail {
class file_sink;
}

// One log file; each line gets a time stamp and the severity name, and holds text only.
// Every log object on one file writes through the same buffer, so the lines of a file
// come out in the order they were written, whoever wrote them. A line of severity
// warning or worse is in the file, with everything written before it, when write()
// returns; the others go out within a fraction of a second, or at once when much is
// waiting.
class VURO_API file_log : public liblog::log_interface {
public:
    explicit file_log(const std::string& file_name);
    ~file_log() override;
    file_log(const file_log&) = delete;
    file_log& operator=(const file_log&) = delete;
    void write(liblog::severity level, const std::string& text) override;
    // Where the lines go, empty when logging to files is off.
    const std::string& path() const;

private:
    std::string name_;
    std::shared_ptr<detail::file_sink> sink_;
};

// The log of one sensor: "sensor_<id>.log". The file appears with the first line.
class VURO_API sensor_log : public file_log {
public:
    explicit sensor_log(int sensor_id);
    ~sensor_log() override;
};

// For a host of modules, not for a module: writes out now what waits in the file logs
// of the process, so that the files can be read.
VURO_API void flush_file_logs();

// For a host of modules, not for a module: `observer` sees every line of severity
// `limit` or worse that a file log of the process writes, with the log's file name
// ("runtime.log", "sensor_<id>.log"), whether or not logging to files is on. It is
// called on the writer's thread and must not write to a file log. An empty function
// ends the observation.
using line_observer = std::function<void(const std::string& file_name, liblog::severity, const std::string& text)>;
VURO_API void observe_lines(line_observer observer, liblog::severity limit);

VURO_API std::string severity_name(liblog::severity level);

}  // namespace logging

namespace module {
// The runtime log: "runtime.log".
VURO_API void register_runtime_log(const std::shared_ptr<service_container>& services);
// Factory of sensor logs, keyed by the sensor id.
VURO_API void register_sensor_log(const std::shared_ptr<service_container>& services);
}  // namespace module

}  // namespace brenholt::monitoring_modules::libvurohelper
