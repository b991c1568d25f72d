#pragma once

#include <string.h>

#include <string>

namespace brenholt::monitoring_modules::libvurohelper::settings {

// A string whose whole buffer is zeroed before it is released or overwritten. Header
// code through and through: a module needs nothing of the library for it.
class secure_string {
public:
    secure_string() = default;
    explicit secure_string(std::string value) : value_(std::move(value)) {}
    // A copy made in place, which leaves no moved-from buffer behind.
    secure_string(const char* data, std::size_t size) : value_(data, size) {}
    secure_string(const secure_string& other) : value_(other.value_) {}
    secure_string(secure_string&& other) noexcept : value_(std::move(other.value_)) { other.wipe(); }
    secure_string& operator=(const secure_string& other) {
        if (this != &other) { wipe(); value_ = other.value_; }
        return *this;
    }
    secure_string& operator=(secure_string&& other) noexcept {
        if (this != &other) { wipe(); value_ = std::move(other.value_); other.wipe(); }
        return *this;
    }
    ~secure_string() { wipe(); }

    const std::string& str() const { return value_; }
    const char* c_str() const { return value_.c_str(); }
    std::size_t size() const { return value_.size(); }
    bool empty() const { return value_.empty(); }
    bool operator==(const secure_string& o) const { return value_ == o.value_; }
    bool operator!=(const secure_string& o) const { return value_ != o.value_; }

    // Zeroes every byte of the capacity, the in-place buffer of a short string
    // included, then empties the string. explicit_bzero is not removed as a dead store.
    void wipe() noexcept {
        explicit_bzero(value_.data(), value_.capacity());
        value_.clear();
    }

private:
    std::string value_;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::settings
