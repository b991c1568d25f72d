#include "libstringutils/format.h"

namespace brenholt::monitoring_modules::libstringutils {

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

// One pass over the text, no shared state and no recursion. At each "%" the longest
// construct wins: "%" digits ":s" before "%%", and a "%" that begins neither is malformed.
// Text between the constructs, and the arguments placed, are copied as they stand, so a
// "%" inside an argument is never read as syntax.
std::string format_args(const std::string& text, const std::vector<std::string>& args) {
    std::string result;
    std::size_t rest = 0;
    const std::size_t end = text.size();
    for (std::size_t percent = text.find('%'); percent != std::string::npos; percent = text.find('%', rest)) {
        result.append(text, rest, percent - rest);
        std::size_t after_digits = percent + 1;
        while (after_digits < end && is_digit(text[after_digits])) {
            ++after_digits;
        }
        if (after_digits > percent + 1 && after_digits + 1 < end && text[after_digits] == ':' &&
            text[after_digits + 1] == 's') {
            const std::string digits = text.substr(percent + 1, after_digits - percent - 1);
            // Overflow raises std::out_of_range("stol") before the count is looked at.
            const long index = std::stol(digits);
            if (index < 0 || static_cast<unsigned long>(index) >= args.size()) {
                throw exceptions::placeholder_index_not_in_arguments(digits);
            }
            result += args[static_cast<std::size_t>(index)];
            rest = after_digits + 2;
        } else if (percent + 1 < end && text[percent + 1] == '%') {
            result += '%';
            rest = percent + 2;
        } else {
            throw exceptions::format_string_error();
        }
    }
    result.append(text, rest, std::string::npos);
    return result;
}

}  // namespace brenholt::monitoring_modules::libstringutils
