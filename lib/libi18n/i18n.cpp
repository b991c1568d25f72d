#include "libi18n/i18n.h"

namespace brenholt::monitoring_modules::libi18n {

std::string escape_argument(const std::string& argument) {
    std::string out;
    out.reserve(argument.size());
    for (char c : argument) {
        switch (c) {
            case '#': case ',': case ':': case '[': case '\\': case ']':
                out += '\\';
                break;
            default:
                break;
        }
        out += c;
    }
    return out;
}

std::string encode_key(const std::string& key, const std::vector<std::string>& args) {
    std::string out = "#:" + key + "[";
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (i != 0) out += ',';
        out += escape_argument(args[i]);
    }
    out += ']';
    return out;
}

}  // namespace brenholt::monitoring_modules::libi18n
