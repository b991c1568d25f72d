#include "liblog/log.h"

#include <algorithm>

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

namespace {
// Counts every add and remove of any multiplexer in the process. A multiplexer's
// answer to keeps() may hang on children that are multiplexers themselves, so a change
// anywhere makes every kept answer stale.
std::atomic<std::uint64_t> children_generation{1};
}  // namespace

void multiplex_logger::add(const std::shared_ptr<log_interface>& logger, severity limit) {
    if (!logger) return;
    std::lock_guard<std::mutex> lock(mutex_);
    children_[logger] = limit;
    children_generation.fetch_add(1, std::memory_order_acq_rel);
}

void multiplex_logger::remove(const std::shared_ptr<log_interface>& logger) {
    std::lock_guard<std::mutex> lock(mutex_);
    children_.erase(logger);
    children_generation.fetch_add(1, std::memory_order_acq_rel);
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

std::uint64_t multiplex_logger::refresh(std::uint64_t generation) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::uint64_t kept = 0;
    for (const auto& [weak, limit] : children_) {
        auto child = weak.lock();
        if (!child) continue;
        for (int level = 0; level <= std::min(static_cast<int>(limit), 7); ++level)
            if (child->keeps(static_cast<severity>(level))) kept |= 1u << level;
    }
    // A child that dies from here on leaves a "yes" that is no longer true: the line is
    // then made for nobody, which costs time and nothing else.
    kept |= generation << 8;
    kept_.store(kept, std::memory_order_release);
    return kept;
}

bool multiplex_logger::keeps(severity level) const {
    const int bit = static_cast<int>(level);
    if (bit < 0 || bit > 7) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [weak, limit] : children_) {
            if (static_cast<int>(limit) < bit) continue;
            auto child = weak.lock();
            if (child && child->keeps(level)) return true;
        }
        return false;
    }
    // Read before the children are looked at: an add that comes in between leaves the
    // answer marked stale.
    const std::uint64_t generation = children_generation.load(std::memory_order_acquire);
    std::uint64_t kept = kept_.load(std::memory_order_acquire);
    if ((kept >> 8) != generation) kept = refresh(generation);
    return (kept >> bit) & 1u;
}

}  // namespace brenholt::monitoring_modules::liblog
