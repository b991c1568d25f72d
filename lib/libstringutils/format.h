#pragma once

#include <string>
#include <utility>
#include <vector>

#include "libexception/exception.h"

namespace brenholt::monitoring_modules::libstringutils {

namespace exceptions {
class exception : public libexception::_exception<libexception::exception> {
public:
    using _exception::_exception;
};

class format_string_error : public libexception::_exception<exception> {
public:
    format_string_error() : _exception("Malformed placeholder in format string.") {}
};

class placeholder_index_not_in_arguments : public libexception::_exception<exception> {
public:
    explicit placeholder_index_not_in_arguments(const std::string& digits)
        : _exception("Index " + digits + " is too high for argument list.") {}
};
}  // namespace exceptions

// Formats with the arguments already turned into strings.
std::string format_args(const std::string& text, const std::vector<std::string>& args);

// Positional formatter: "%N:s" is replaced by argument N, "%%" by "%"; any other
// "%" is malformed. Arguments are strings or C strings; a null C string throws
// std::logic_error before any scanning.
template <typename... Args>
std::string format(std::string text, const Args&... args) {
    std::vector<std::string> owned{std::string(args)...};
    return format_args(text, owned);
}

}  // namespace brenholt::monitoring_modules::libstringutils
