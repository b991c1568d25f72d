#include "libvurohelper/logging.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>

#include "module/framework/service_container.h"

namespace brenholt::monitoring_modules::libvurohelper {

namespace logging {

namespace {
std::string log_path(const std::string& file_name) {
    const char* dir = std::getenv(log_dir_variable);
    if (dir == nullptr || *dir == '\0') return {};
    std::string path(dir);
    if (path.back() != '/') path += '/';
    return path + file_name;
}

std::string time_stamp() {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto ms = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local);
    char out[40];
    std::snprintf(out, sizeof out, "%s.%03d", buf, static_cast<int>(ms));
    return out;
}
}  // namespace

std::string severity_name(liblog::severity level) {
    switch (level) {
        case liblog::emergency: return "EMERGENCY";
        case liblog::alert: return "ALERT";
        case liblog::critical: return "CRITICAL";
        case liblog::error: return "ERROR";
        case liblog::warning: return "WARNING";
        case liblog::notice: return "NOTICE";
        case liblog::info: return "INFO";
        case liblog::debug: return "DEBUG";
    }
    return std::to_string(static_cast<int>(level));
}

file_log::file_log(std::string file_name) : path_(log_path(file_name)) {}
file_log::~file_log() = default;

void file_log::write(liblog::severity level, const std::string& text) {
    if (path_.empty()) return;
    const std::string line = time_stamp() + " " + severity_name(level) + " " + text + "\n";
    // One append-mode write per line: several log objects on one file never tear a line.
    const int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    std::size_t done = 0;
    while (done < line.size()) {
        const ssize_t n = ::write(fd, line.data() + done, line.size() - done);
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    ::close(fd);
}

sensor_log::sensor_log(int sensor_id) : file_log("sensor_" + std::to_string(sensor_id) + ".log") {}
sensor_log::~sensor_log() = default;

}  // namespace logging

namespace module {

void register_runtime_log(const std::shared_ptr<service_container>& services) {
    services->add_factory(std::function<std::unique_ptr<liblog::log_interface>()>(
        []() -> std::unique_ptr<liblog::log_interface> { return std::make_unique<logging::file_log>("runtime.log"); }));
}

void register_sensor_log(const std::shared_ptr<service_container>& services) {
    services->add_factory(std::function<std::unique_ptr<logging::sensor_log>(int)>(
        [](int id) { return std::make_unique<logging::sensor_log>(id); }));
}

}  // namespace module

}  // namespace brenholt::monitoring_modules::libvurohelper
