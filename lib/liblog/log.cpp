#include "liblog/log.h"

#include <algorithm>

namespace brenholt::monitoring_modules::liblog {

namespace {
const std::shared_ptr<log_interface>& shared_null_logger() {
    static const std::shared_ptr<log_interface> shared = std::make_shared<null_logger>();
    return shared;
}
}  // namespace

std::shared_ptr<log_interface> null_logger::instance() { return shared_null_logger(); }

const log_interface* null_logger::instance_pointer() { return shared_null_logger().get(); }

void memory_logger::write(severity level, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.emplace_back(level, text);
}

log_entries memory_logger::entries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
}

void memory_logger::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
}

void multiplex_logger::add(const std::shared_ptr<log_interface>& logger, severity limit) {
    if (!logger) return;
    std::lock_guard<std::mutex> lock(mutex_);
    children_[logger] = child{limit, null_logger::is_instance(logger.get())};
}

void multiplex_logger::remove(const std::shared_ptr<log_interface>& logger) {
    std::lock_guard<std::mutex> lock(mutex_);
    children_.erase(logger);
}

std::size_t multiplex_logger::size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return children_.size();
}

void multiplex_logger::write(severity level, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = children_.begin(); it != children_.end();) {
        if (it->second.discards) {
            ++it;
            continue;
        }
        auto sink = it->first.lock();
        if (!sink) {
            it = children_.erase(it);
            continue;
        }
        if (static_cast<int>(it->second.limit) >= static_cast<int>(level)) sink->write(level, text);
        ++it;
    }
}

}  // namespace brenholt::monitoring_modules::liblog
