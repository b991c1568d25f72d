#include "libstringutils/format.h"

#include <regex>

namespace brenholt::monitoring_modules::libstringutils {

std::string format_args(const std::string& text, const std::vector<std::string>& args) {
    // Compiled per call on purpose: no shared state, safe from any thread.
    const std::regex placeholder("%([0-9]+):s|%%|%", std::regex::ECMAScript);
    std::string result;
    auto rest_begin = text.cbegin();
    const auto end = text.cend();
    std::smatch match;
    while (std::regex_search(rest_begin, end, match, placeholder)) {
        std::string replacement;
        if (match[1].matched) {
            const std::string digits = match[1].str();
            const long index = std::stol(digits);
            if (index < 0 || static_cast<unsigned long>(index) >= args.size()) {
                throw exceptions::placeholder_index_not_in_arguments(digits);
            }
            replacement = args[static_cast<std::size_t>(index)];
        } else if (match.length(0) == 2) {
            replacement = "%";
        } else {
            throw exceptions::format_string_error();
        }
        result.append(rest_begin, match[0].first);
        result += replacement;
        rest_begin = match[0].second;
    }
    result.append(rest_begin, end);
    return result;
}

}  // namespace brenholt::monitoring_modules::libstringutils
