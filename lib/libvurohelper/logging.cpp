#include "libvurohelper/logging.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <thread>
#include <unordered_map>
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

bool is_control(unsigned char c) { return c < 0x20 || c == 0x7f; }

// Appends `text` as text: zero bytes at its end (a C string's terminator carried
// along) are left out, tabs and line feeds stay, and every other control character
// becomes "\xNN", so that the file stays one a text tool reads as text.
void append_text(std::string& out, const std::string& text) {
    std::size_t end = text.size();
    while (end > 0 && text[end - 1] == '\0') --end;
    const char* data = text.data();
    std::size_t clean = 0;
    for (std::size_t i = 0; i < end; ++i) {
        const auto c = static_cast<unsigned char>(data[i]);
        if (!is_control(c) || c == '\t' || c == '\n') continue;
        out.append(data + clean, i - clean);
        static const char hex[] = "0123456789abcdef";
        const char escaped[4] = {'\\', 'x', hex[c >> 4], hex[c & 15]};
        out.append(escaped, sizeof escaped);
        clean = i + 1;
    }
    out.append(data + clean, end - clean);
}

// Writes all of `data`, going on after a short write.
void write_all(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

// Descriptors kept open by all log files of the process together. A probe may run
// thousands of sensors with their own log; past this many, a file is opened for each
// write and closed again, so that logs never take the descriptors that connections need.
constexpr int max_kept_open = 64;
std::atomic<int> kept_open{0};

int open_for_append(const std::string& path) {
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

// Past this many bytes waiting, a file's lines go out at once.
constexpr std::size_t max_pending = 64 * 1024;
// How long a trace line may wait for the lines after it before it goes out.
constexpr auto flush_delay = std::chrono::milliseconds(100);

}  // namespace

namespace detail {

// The lines of one file, whoever writes them. Lines wait here and go out in one write
// a batch; a system call for each line would cost more than the scan that writes them.
class file_sink {
public:
    explicit file_sink(std::string path) : path_(std::move(path)) {}
    ~file_sink() {
        write_out();
        if (fd_ >= 0) {
            ::close(fd_);
            kept_open.fetch_sub(1);
        }
    }
    file_sink(const file_sink&) = delete;
    file_sink& operator=(const file_sink&) = delete;

    const std::string& path() const { return path_; }

    // Adds a line; true when it waits and the sink is not yet in the flusher's queue.
    bool append(liblog::severity level, const std::string& text) {
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

        std::lock_guard<std::mutex> lock(mutex_);
        pending_.append(prefix, length);
        append_text(pending_, text);
        pending_.push_back('\n');
        // What a crash must not take along: a warning or failure goes out at once, with
        // all that came before it.
        if (level <= liblog::warning || pending_.size() >= max_pending) {
            write_out();
            return false;
        }
        if (queued_) return false;
        queued_ = true;
        return true;
    }

    void flush() {
        std::lock_guard<std::mutex> lock(mutex_);
        queued_ = false;
        write_out();
    }

private:
    // Opened at the first write, so that a log nobody writes to leaves no file, and kept
    // open while the process-wide count allows; -1 when the write must open it itself.
    // A failed open is tried again at the next write: the directory may appear later.
    int descriptor() {
        if (fd_ >= 0) return fd_;
        if (kept_open.fetch_add(1) >= max_kept_open) {
            kept_open.fetch_sub(1);
            return -1;
        }
        fd_ = open_for_append(path_);
        if (fd_ < 0) kept_open.fetch_sub(1);
        return fd_;
    }

    // Caller holds mutex_. Append mode puts each write at the end of the file in one
    // piece. What cannot be written is dropped: the buffer never grows without bound.
    void write_out() {
        if (pending_.empty()) return;
        int fd = descriptor();
        const bool own = fd < 0;
        if (own) fd = open_for_append(path_);
        if (fd >= 0) {
            write_all(fd, pending_.data(), pending_.size());
            if (own) ::close(fd);
        }
        pending_.clear();
        // A burst leaves no large buffer behind on a file that is rarely written.
        if (pending_.capacity() > 2 * max_pending) pending_.shrink_to_fit();
    }

    const std::string path_;
    std::mutex mutex_;
    std::string pending_;
    int fd_ = -1;
    // Set while the sink stands in the flusher's queue.
    bool queued_ = false;
};

}  // namespace detail

namespace {

using detail::file_sink;

// One sink per file, shared by every log object on that file.
class sink_registry {
public:
    std::shared_ptr<file_sink> sink_for(const std::string& path) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::weak_ptr<file_sink>& entry = sinks_[path];
        if (auto live = entry.lock()) return live;
        auto fresh = std::make_shared<file_sink>(path);
        entry = fresh;
        // Sensors come and go by the thousand; forget the files nobody writes any more.
        if (sinks_.size() > 2 * live_after_sweep_ + 64) {
            for (auto it = sinks_.begin(); it != sinks_.end();)
                it = it->second.expired() ? sinks_.erase(it) : std::next(it);
            live_after_sweep_ = sinks_.size();
        }
        return fresh;
    }

private:
    std::mutex mutex_;
    std::unordered_map<std::string, std::weak_ptr<file_sink>> sinks_;
    std::size_t live_after_sweep_ = 0;
};

// Never destroyed: a log may still write while static objects are being destroyed.
sink_registry& registry() {
    static auto* instance = new sink_registry;
    return *instance;
}

// Writes out the waiting lines of every file a short while after the first of them,
// on a thread of its own, so that a batch of lines costs one write.
class flusher {
public:
    // False once the flusher has stopped: the caller writes out itself.
    bool schedule(std::shared_ptr<file_sink> sink) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) return false;
        queue_.push_back(std::move(sink));
        if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
        if (queue_.size() == 1) wake_.notify_one();
        return true;
    }

    // Writes out, on the caller's thread, whatever waits, and waits for a batch that
    // the flusher's thread is writing.
    void flush_now() {
        std::vector<std::shared_ptr<file_sink>> batch;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            batch.swap(queue_);
            idle_.wait(lock, [this] { return writing_ == 0; });
        }
        for (const auto& sink : batch) sink->flush();
    }

    void stop() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            wake_.notify_all();
        }
        if (thread_.joinable()) thread_.join();
        flush_now();
    }

private:
    void run() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
            if (queue_.empty()) return;
            // The lines after the first have a moment to join it.
            wake_.wait_for(lock, flush_delay, [this] { return stopping_; });
            std::vector<std::shared_ptr<file_sink>> batch;
            batch.swap(queue_);
            ++writing_;
            lock.unlock();
            for (const auto& sink : batch) sink->flush();
            batch.clear();
            lock.lock();
            --writing_;
            idle_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    std::vector<std::shared_ptr<file_sink>> queue_;
    int writing_ = 0;
    bool stopping_ = false;
    std::thread thread_;
};

flusher& the_flusher() {
    static auto* instance = new flusher;
    return *instance;
}

// Ends the flusher's thread when the library is unloaded or the process exits; lines
// written after that go out at once.
struct flusher_stop {
    ~flusher_stop() { the_flusher().stop(); }
} stop_at_unload;

struct observation {
    line_observer observer;
    liblog::severity limit;
};
std::atomic<bool> observing{false};
struct observation_state {
    std::mutex mutex;
    std::shared_ptr<const observation> current;
};
// Never destroyed, like the registry.
observation_state& observed() {
    static auto* state = new observation_state;
    return *state;
}

void tell_observer(const std::string& file_name, liblog::severity level, const std::string& text) {
    std::shared_ptr<const observation> seen;
    {
        std::lock_guard<std::mutex> lock(observed().mutex);
        seen = observed().current;
    }
    if (seen && level <= seen->limit) seen->observer(file_name, level, text);
}

}  // namespace

std::string severity_name(liblog::severity level) {
    const char* name = severity_text(level);
    return name != nullptr ? name : std::to_string(static_cast<int>(level));
}

file_log::file_log(const std::string& file_name) : name_(file_name) {
    const std::string path = log_path(file_name);
    if (!path.empty()) sink_ = registry().sink_for(path);
}

// What this object wrote goes out with it: a new sink for the same file, made after
// the last log object on it has gone, then cannot write before these lines.
file_log::~file_log() {
    if (sink_) sink_->flush();
}

const std::string& file_log::path() const {
    static const std::string none;
    return sink_ ? sink_->path() : none;
}

void file_log::write(liblog::severity level, const std::string& text) {
    if (observing.load(std::memory_order_acquire)) tell_observer(name_, level, text);
    if (!sink_) return;
    if (sink_->append(level, text) && !the_flusher().schedule(sink_)) sink_->flush();
}

sensor_log::sensor_log(int sensor_id) : file_log("sensor_" + std::to_string(sensor_id) + ".log") {}
sensor_log::~sensor_log() = default;

void flush_file_logs() { the_flusher().flush_now(); }

void observe_lines(line_observer observer, liblog::severity limit) {
    std::shared_ptr<const observation> next;
    if (observer) next = std::make_shared<const observation>(observation{std::move(observer), limit});
    std::lock_guard<std::mutex> lock(observed().mutex);
    observed().current = std::move(next);
    observing.store(observed().current != nullptr, std::memory_order_release);
}

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
