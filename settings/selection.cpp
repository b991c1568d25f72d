#include "settings/selection.h"

#include "libvurohelper/exceptions.h"

namespace brenholt::monitoring_modules::opcua::settings {

namespace ex = ::brenholt::monitoring_modules::libvurohelper::utils::exceptions;

std::size_t match_selection(const std::string& value, std::string_view type_name, const std::string_view* texts,
                            std::size_t count) {
    if (!value.empty()) {
        for (std::size_t i = 0; i < count; ++i)
            if (texts[i] == value) return i;
    }
    throw ex::setting_selection_parse_error(value, std::string(type_name));
}

template <>
ipversion parse_selection<ipversion>(const std::string& value) {
    if (!value.empty()) {
        if (value == "IPv4" || value == "0") return ipversion::ipv4;
        if (value == "IPv6" || value == "1") return ipversion::ipv6;
    }
    throw ex::setting_selection_parse_error(value, std::string("ipversion"));
}

}  // namespace brenholt::monitoring_modules::opcua::settings
