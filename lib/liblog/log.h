#pragma once

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace brenholt::monitoring_modules::liblog {

// Syslog priorities: the smaller, the more severe.
enum severity : int {
    emergency = 0,
    alert = 1,
    critical = 2,
    error = 3,
    warning = 4,
    notice = 5,
    info = 6,
    debug = 7,
};

// The framework's logs implement this too, so it never grows: a destructor and write.
class log_interface {
public:
    virtual ~log_interface() = default;
    virtual void write(severity level, const std::string& text) = 0;
};

class null_logger : public log_interface {
public:
    void write(severity, const std::string&) override {}
    // The one process-wide instance, built on first use.
    static std::shared_ptr<log_interface> instance();
    // Whether `log` is that instance: lines written to it are lost, so a writer need not
    // build them. Every other log may keep what it gets.
    static bool is_instance(const log_interface* log) { return log == instance_pointer(); }

private:
    static const log_interface* instance_pointer();
};

using log_entries = std::deque<std::pair<severity, std::string>>;

class memory_logger : public log_interface {
public:
    void write(severity level, const std::string& text) override;
    log_entries entries() const;
    void clear();

private:
    mutable std::mutex mutex_;
    log_entries entries_;
};

class multiplex_logger : public log_interface {
public:
    void add(const std::shared_ptr<log_interface>& logger, severity limit);
    void remove(const std::shared_ptr<log_interface>& logger);
    std::size_t size() const;
    // Children whose limit is at least `level` get the line; dead children are pruned here.
    void write(severity level, const std::string& text) override;

private:
    struct child {
        severity limit;
        // The process-wide null logger: it keeps nothing and lives as long as the module,
        // so a line need not reach it.
        bool discards;
    };
    mutable std::mutex mutex_;
    std::map<std::weak_ptr<log_interface>, child, std::owner_less<std::weak_ptr<log_interface>>> children_;
};

}  // namespace brenholt::monitoring_modules::liblog
