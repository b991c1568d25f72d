#pragma once

#include <exception>
#include <string>
#include <utility>

namespace brenholt::monitoring_modules::libexception {

// Root of every exception of the in-house libraries: carries one finished text.
class exception : public std::exception {
public:
    explicit exception(std::string text) : text_(std::move(text)) {}
    ~exception() override = default;
    const char* what() const noexcept override { return text_.c_str(); }

private:
    std::string text_;
};

// Inserts a class below T in the hierarchy and inherits T's constructors.
template <typename T>
class _exception : public T {
public:
    using T::T;
};

}  // namespace brenholt::monitoring_modules::libexception
