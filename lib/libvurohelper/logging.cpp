#include "libvurohelper/logging.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cstdlib>
#include <ctime>
#include <vector>

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

// The logs with lines waiting. Never destroyed: a log may go after static destruction
// has begun.
struct waiting_logs {
    std::mutex mutex;
    std::vector<file_log*> logs;
};
waiting_logs& waiting() {
    static auto* list = new waiting_logs;
    return *list;
}

// Past this size the lines go out without waiting for the end of the call.
constexpr std::size_t max_pending = 64 * 1024;

}  // namespace

file_log::~file_log() {
    {
        std::lock_guard<std::mutex> lock(waiting().mutex);
        auto& logs = waiting().logs;
        logs.erase(std::remove(logs.begin(), logs.end(), this), logs.end());
    }
    flush();
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

void file_log::write_pending() {
    if (pending_.empty()) return;
    int fd = descriptor();
    const bool own = fd < 0;
    if (own) fd = open_for_append(path_);
    if (fd >= 0) {
        iovec part{pending_.data(), pending_.size()};
        write_all(fd, &part, 1);
        if (own) ::close(fd);
    }
    pending_.clear();
}

void file_log::flush() {
    std::lock_guard<std::mutex> lock(buffer_mutex_);
    write_pending();
}

// A system call per line costs more than the scan that writes the lines (26 of them a
// logged scan), so lines wait in the process until the exported call that wrote them
// returns, and go out then in one write. What a crash would take with it is the trace
// of the call that crashed: warnings and failures go out at once, together with all
// that came before them. Append mode puts each write at the end of the file in one
// piece, so several log objects on one file never tear or overwrite a line. Nothing is
// synced to the disk, which only a failure of the whole machine could lose.
void file_log::write(liblog::severity level, const std::string& text) {
    if (path_.empty()) return;
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
    {
        std::lock_guard<std::mutex> lock(buffer_mutex_);
        pending_.append(prefix, length).append(text).push_back('\n');
        if (level <= liblog::warning || pending_.size() >= max_pending) {
            write_pending();
            return;
        }
    }
    if (!queued_.exchange(true)) {
        std::lock_guard<std::mutex> lock(waiting().mutex);
        waiting().logs.push_back(this);
    }
}

void flush_file_logs() {
    std::lock_guard<std::mutex> lock(waiting().mutex);
    // Under the list's lock, so that no log is destroyed while it is written out.
    for (file_log* log : waiting().logs) {
        log->queued_ = false;
        log->flush();
    }
    waiting().logs.clear();
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
