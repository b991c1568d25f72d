// The positional formatter: the first byte picks the number of arguments, the rest is
// the format text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "libstringutils/format.h"

namespace su = ::brenholt::monitoring_modules::libstringutils;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    // Arguments that look like syntax: they must be placed, never read.
    static const std::vector<std::string> all{"%0:s", "%", "%%"};
    const std::vector<std::string> args(all.begin(), all.begin() + data[0] % (all.size() + 1));
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    try {
        const std::string out = su::format_args(text, args);
        // Without a "%" the text comes back as it is.
        if (text.find('%') == std::string::npos && out != text) std::abort();
    } catch (const su::exceptions::format_string_error&) {
    } catch (const su::exceptions::placeholder_index_not_in_arguments&) {
    } catch (const std::out_of_range&) {
        // Digits beyond a signed long.
    }
    return 0;
}
