#pragma once

#include <atomic>
#include <cstdint>
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

class log_interface {
public:
    virtual ~log_interface() = default;
    virtual void write(severity level, const std::string& text) = 0;
    // Whether a line of this severity would end up anywhere. A writer asks before it
    // builds a text that costs something; a line written anyway is handled as ever.
    virtual bool keeps(severity) const { return true; }
};

class null_logger : public log_interface {
public:
    void write(severity, const std::string&) override {}
    bool keeps(severity) const override { return false; }
    // The one process-wide instance, built on first use.
    static std::shared_ptr<log_interface> instance();
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
    // True when a live child's limit admits `level` and that child keeps it. A sink's
    // answer is taken to hold for its life; a multiplexer's changes only by add and
    // remove, which every multiplexer hears of, so the answer is kept between them.
    bool keeps(severity level) const override;

private:
    std::uint64_t refresh(std::uint64_t generation) const;

    mutable std::mutex mutex_;
    std::map<std::weak_ptr<log_interface>, severity, std::owner_less<std::weak_ptr<log_interface>>> children_;
    // The generation of children it was worked out for (high bits) and one bit for each
    // severity 0 to 7 that some child keeps. Generation 0 is never current.
    mutable std::atomic<std::uint64_t> kept_{0};
};

}  // namespace brenholt::monitoring_modules::liblog
