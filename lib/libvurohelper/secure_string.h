#pragma once

#include <string>

#include "libvurohelper/api.h"

namespace brenholt::monitoring_modules::libvurohelper::settings {

// A string whose whole buffer is zeroed before it is released or overwritten.
class VURO_API secure_string {
public:
    secure_string() = default;
    explicit secure_string(std::string value) : value_(std::move(value)) {}
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

    // Zeroes every byte of the capacity, then empties the string.
    void wipe() noexcept;

private:
    std::string value_;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::settings
