#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace brenholt::monitoring_modules::opcua::settings {

// The value of each selection is its place in the definition's list of texts;
// other parts of the module (client_settings, the frame) test these numbers.
enum class security_mode : std::int32_t { none = 0, sign = 1, sign_encrypt = 2 };
enum class security_policy : std::int32_t { none = 0, basic256sha256 = 1 };
enum class user_auth_mode : std::int32_t { anonymous = 0, username_password = 1 };
enum class type : std::int32_t { boolean = 0, string = 1, integer64 = 2, floatingpoint = 3 };
enum class channel_settings : std::int32_t { automatic = 0, manual = 1 };
enum class channel : std::int32_t { disable = 0, enable = 1 };
enum class logging : std::int32_t { disabled = 0, enabled = 1 };
enum class ipversion : std::int32_t { ipv4 = 0, ipv6 = 1 };

// Texts of a selection in the order of their values, and the type name that the
// parse error reports.
template <typename E>
struct selection_texts;

template <>
struct selection_texts<security_mode> {
    static constexpr std::string_view name = "security_mode";
    static constexpr std::array<std::string_view, 3> texts{"none", "sign", "sign_encrypt"};
};
template <>
struct selection_texts<security_policy> {
    static constexpr std::string_view name = "security_policy";
    static constexpr std::array<std::string_view, 2> texts{"none", "Basic256Sha256"};
};
template <>
struct selection_texts<user_auth_mode> {
    static constexpr std::string_view name = "user_auth_mode";
    static constexpr std::array<std::string_view, 2> texts{"anonymous", "username_password"};
};
template <>
struct selection_texts<type> {
    static constexpr std::string_view name = "type";
    static constexpr std::array<std::string_view, 4> texts{"Boolean", "String", "Integer64", "FloatingPoint"};
};
template <>
struct selection_texts<channel_settings> {
    static constexpr std::string_view name = "channel_settings";
    static constexpr std::array<std::string_view, 2> texts{"automatic", "manual"};
};
template <>
struct selection_texts<channel> {
    static constexpr std::string_view name = "channel";
    static constexpr std::array<std::string_view, 2> texts{"disable", "enable"};
};
template <>
struct selection_texts<logging> {
    static constexpr std::string_view name = "logging";
    static constexpr std::array<std::string_view, 2> texts{"disabled", "enabled"};
};

// Place of `value` among `texts`; exact match by length and bytes, no default.
// An empty or unknown value raises setting_selection_parse_error(value, type_name).
std::size_t match_selection(const std::string& value, std::string_view type_name, const std::string_view* texts,
                            std::size_t count);

template <typename E>
E parse_selection(const std::string& value) {
    using t = selection_texts<E>;
    return static_cast<E>(match_selection(value, t::name, t::texts.data(), t::texts.size()));
}

// ipversion alone also takes the digits "0" and "1" beside "IPv4" and "IPv6",
// because the probe sends either form.
template <>
ipversion parse_selection<ipversion>(const std::string& value);

}  // namespace brenholt::monitoring_modules::opcua::settings
