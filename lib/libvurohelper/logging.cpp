#include "libvurohelper/logging.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
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

// Writes "YYYY-MM-DD HH:MM:SS.mmm" in local time to `out`, which has room for 24
// characters, and returns the length. The calendar part is worked out once per second
// and thread; lines come many to the second.
std::size_t time_stamp(char* out) {
    struct second_text {
        std::time_t second = -1;
        char text[24] = {};
        std::size_t length = 0;
    };
    thread_local second_text cached;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != cached.second) {
        std::tm local{};
        localtime_r(&now.tv_sec, &local);
        cached.length = std::strftime(cached.text, sizeof cached.text, "%Y-%m-%d %H:%M:%S", &local);
        cached.second = now.tv_sec;
    }
    std::memcpy(out, cached.text, cached.length);
    const long ms = now.tv_nsec / 1000000;
    char* fraction = out + cached.length;
    fraction[0] = '.';
    fraction[1] = static_cast<char>('0' + ms / 100);
    fraction[2] = static_cast<char>('0' + ms / 10 % 10);
    fraction[3] = static_cast<char>('0' + ms % 10);
    return cached.length + 4;
}

// Writes all of `parts`, going on after a short write.
void write_all(int fd, iovec* parts, int count) {
    while (count > 0) {
        const ssize_t n = ::writev(fd, parts, count);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        auto done = static_cast<std::size_t>(n);
        while (count > 0 && done >= parts->iov_len) {
            done -= parts->iov_len;
            ++parts;
            --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<char*>(parts->iov_base) + done;
            parts->iov_len -= done;
        }
    }
}
}  // namespace

std::string severity_name(liblog::severity level) {
    const char* name = severity_text(level);
    return name != nullptr ? name : std::to_string(static_cast<int>(level));
}

file_log::file_log(std::string file_name) : path_(log_path(file_name)) {}

namespace {
// Descriptors kept open by all file logs of the process together. A probe may run
// thousands of sensors with their own log; past this many, a log opens its file for each
// line and closes it again, so that logs never take the descriptors that connections need.
constexpr int max_kept_open = 64;
std::atomic<int> kept_open{0};

int open_for_append(const std::string& path) {
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}
}  // namespace

file_log::~file_log() {
    const int fd = fd_.load();
    if (fd >= 0) {
        ::close(fd);
        kept_open.fetch_sub(1);
    }
}

// Opened at the first line, so that a log nobody writes to leaves no file, and kept
// open while the process-wide count allows. -1 when this line must open the file itself.
// A failed open is tried again at the next line: the directory may appear later.
int file_log::descriptor() {
    int fd = fd_.load(std::memory_order_acquire);
    if (fd >= 0) return fd;
    std::lock_guard<std::mutex> lock(open_mutex_);
    fd = fd_.load(std::memory_order_relaxed);
    if (fd >= 0) return fd;
    if (kept_open.fetch_add(1) >= max_kept_open) {
        kept_open.fetch_sub(1);
        return -1;
    }
    fd = open_for_append(path_);
    if (fd < 0) {
        kept_open.fetch_sub(1);
        return -1;
    }
    fd_.store(fd, std::memory_order_release);
    return fd;
}

// Each line goes to the kernel with one system call of its own, with no buffer in this
// process: a crash of the process leaves every line written before it in the file, and
// the cost is one call per line. Lines are not synced to the disk, which only a failure
// of the whole machine could lose. Append mode puts each call's bytes at the end in one
// piece, so several log objects on one file, and several threads, never tear or
// overwrite a line.
void file_log::write(liblog::severity level, const std::string& text) {
    if (path_.empty()) return;
    int fd = descriptor();
    const bool own = fd < 0;
    if (own) {
        fd = open_for_append(path_);
        if (fd < 0) return;
    }
    // Time stamp, severity and a blank each way: at most 24 + 1 + 11 + 1 characters.
    char prefix[48];
    std::size_t length = time_stamp(prefix);
    prefix[length++] = ' ';
    const char* name = severity_text(level);
    std::string number;
    if (name == nullptr) {
        number = std::to_string(static_cast<int>(level));
        name = number.c_str();
    }
    const std::size_t name_length = std::strlen(name);
    std::memcpy(prefix + length, name, name_length);
    length += name_length;
    prefix[length++] = ' ';
    char line_feed = '\n';
    iovec parts[3] = {{prefix, length}, {const_cast<char*>(text.data()), text.size()}, {&line_feed, 1}};
    write_all(fd, parts, 3);
    if (own) ::close(fd);
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
