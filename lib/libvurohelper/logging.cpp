#include "libvurohelper/logging.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
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

const char* severity_text(liblog::severity level) {
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
    return nullptr;
}

// "YYYY-MM-DD HH:MM:SS.mmm" in local time. The calendar part is worked out once per
// second and thread; lines come many to the second.
void append_time_stamp(std::string& out) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    thread_local std::time_t cached_second = -1;
    thread_local char cached_text[32] = {};
    if (now.tv_sec != cached_second) {
        std::tm local{};
        localtime_r(&now.tv_sec, &local);
        if (std::strftime(cached_text, sizeof cached_text, "%Y-%m-%d %H:%M:%S", &local) == 0) cached_text[0] = '\0';
        cached_second = now.tv_sec;
    }
    out += cached_text;
    const long ms = now.tv_nsec / 1000000;
    const char fraction[] = {'.', static_cast<char>('0' + ms / 100), static_cast<char>('0' + ms / 10 % 10),
                             static_cast<char>('0' + ms % 10)};
    out.append(fraction, sizeof fraction);
}
}  // namespace

std::string severity_name(liblog::severity level) {
    const char* name = severity_text(level);
    return name != nullptr ? name : std::to_string(static_cast<int>(level));
}

file_log::file_log(std::string file_name) : path_(log_path(file_name)) {}

file_log::~file_log() {
    const int fd = fd_.load();
    if (fd >= 0) ::close(fd);
}

// Opened at the first line, so that a log nobody writes to leaves no file. A failed
// open is tried again at the next line: the directory may appear later.
int file_log::descriptor() {
    int fd = fd_.load(std::memory_order_acquire);
    if (fd >= 0) return fd;
    std::lock_guard<std::mutex> lock(open_mutex_);
    fd = fd_.load(std::memory_order_relaxed);
    if (fd >= 0) return fd;
    fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd >= 0) fd_.store(fd, std::memory_order_release);
    return fd;
}

// Each line goes to the kernel with one write(2) of its own, with no buffer in this
// process: a crash of the process leaves every line written before it in the file,
// and the cost is one system call per line. Lines are not synced to the disk, which
// only a failure of the whole machine could lose. Append mode makes each write land at
// the end as one piece, so several log objects on one file, and several threads, never
// tear or overwrite a line.
void file_log::write(liblog::severity level, const std::string& text) {
    if (path_.empty()) return;
    const int fd = descriptor();
    if (fd < 0) return;
    thread_local std::string line;
    line.clear();
    append_time_stamp(line);
    line += ' ';
    if (const char* name = severity_text(level))
        line += name;
    else
        line += std::to_string(static_cast<int>(level));
    line += ' ';
    line += text;
    line += '\n';
    std::size_t done = 0;
    while (done < line.size()) {
        const ssize_t n = ::write(fd, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    // A very long line (sensor data as JSON) must not keep its memory for the thread's life.
    if (line.capacity() > 16384) std::string().swap(line);
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
