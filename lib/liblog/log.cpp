#include "liblog/log.h"

namespace brenholt::monitoring_modules::liblog {

std::shared_ptr<log_interface> null_logger::instance() {
    static const std::shared_ptr<log_interface> shared = std::make_shared<null_logger>();
    return shared;
}

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
    children_[logger] = limit;
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
        auto child = it->first.lock();
        if (!child) {
            it = children_.erase(it);
            continue;
        }
        if (static_cast<int>(it->second) >= static_cast<int>(level)) child->write(level, text);
        ++it;
    }
}

bool multiplex_logger::keeps(severity level) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [weak, limit] : children_) {
        if (static_cast<int>(limit) < static_cast<int>(level)) continue;
        auto child = weak.lock();
        if (child && child->keeps(level)) return true;
    }
    return false;
}

}  // namespace brenholt::monitoring_modules::liblog
