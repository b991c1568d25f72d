#pragma once

#include <string>
#include <utility>
#include <vector>

#include "libexception/exception.h"
#include "libstringutils/format.h"

namespace brenholt::monitoring_modules::libi18n {

// One entry of the message catalogue: dotted key and English text with "%N:s" placeholders.
struct i18n_template {
    std::string key;
    std::string text;
};

// A finished message: the encoded key ("#:" key "[" args "]") and the English text.
struct i18n_msg {
    std::string key;
    std::string text;

    i18n_msg() = default;
    // A plain text, neither encoded nor formatted: nothing to translate.
    explicit i18n_msg(std::string plain) : key(plain), text(std::move(plain)) {}
    i18n_msg(std::string encoded_key, std::string english)
        : key(std::move(encoded_key)), text(std::move(english)) {}

    bool operator==(const i18n_msg& other) const { return key == other.key && text == other.text; }
    bool operator!=(const i18n_msg& other) const { return !(*this == other); }
};

// Backslash before '#', ',', ':', '[', '\\' and ']', so the receiver can split the key.
std::string escape_argument(const std::string& argument);

std::string encode_key(const std::string& key, const std::vector<std::string>& args);

// Builds the finished message of a catalogue entry; arguments are strings or C strings.
template <typename... Args>
i18n_msg make_msg(const i18n_template& tmpl, const Args&... args) {
    const std::vector<std::string> owned{std::string(args)...};
    std::string text = libstringutils::format_args(tmpl.text, owned);
    return i18n_msg(encode_key(tmpl.key, owned), std::move(text));
}

class i18n_exception : public libexception::exception {
public:
    explicit i18n_exception(i18n_msg msg) : exception(msg.text), msg_(std::move(msg)) {}
    ~i18n_exception() override = default;
    const char* what() const noexcept override { return exception::what(); }
    virtual i18n_msg get_i18n_msg() const noexcept { return msg_; }

private:
    i18n_msg msg_;
};

// Inserts a translatable class below T and hands the message on.
template <typename T>
class _i18n_exception : public T {
public:
    explicit _i18n_exception(i18n_msg msg) : T(std::move(msg)) {}
};

}  // namespace brenholt::monitoring_modules::libi18n
