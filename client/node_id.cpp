#include "client/node_id.h"

#include <climits>
#include <cstring>
#include <new>

#include "client/exceptions.h"

namespace brenholt::monitoring_modules::opcua {

namespace {

// The index is read with std::stol, whose range is what "too large" means here.
static_assert(sizeof(long) * CHAR_BIT == 64, "the array index is read as a signed 64-bit long");

// The parts of a quoted NodeID with an index: '<id>'[<digits>] or "<id>"[<digits>].
struct array_text {
    std::string node;
    std::string digits;
};

// Scans the text in one pass, without backtracking and without recursion, so its length
// costs no stack. The language is: a single or double quote, at least one character that
// is not that quote, the same quote, "[", at least one ASCII digit, "]", and the end.
bool split_array_text(const std::string& text, array_text& parts) {
    if (text.empty() || (text[0] != '\'' && text[0] != '"')) {
        return false;
    }
    const char quote = text[0];
    const std::size_t close = text.find(quote, 1);
    if (close == std::string::npos || close == 1) {
        return false;
    }
    const std::size_t open_bracket = close + 1;
    if (open_bracket >= text.size() || text[open_bracket] != '[' || text.back() != ']') {
        return false;
    }
    const std::size_t first_digit = open_bracket + 1;
    const std::size_t close_bracket = text.size() - 1;
    if (first_digit >= close_bracket) {
        return false;
    }
    for (std::size_t i = first_digit; i < close_bracket; ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
    }
    parts.node = text.substr(1, close - 1);
    parts.digits = text.substr(first_digit, close_bracket - first_digit);
    return true;
}

}  // namespace

void node_id_deleter::operator()(UA_NodeId* id) const noexcept {
    UA_delete(id, &UA_TYPES[UA_TYPES_NODEID]);
}

node_id_ptr parse_node_id(const std::string& text) {
    node_id_ptr id(static_cast<UA_NodeId*>(UA_new(&UA_TYPES[UA_TYPES_NODEID])));
    if (!id) {
        throw std::bad_alloc();
    }
    // The library reads the characters in place; strlen makes a zero byte end the text.
    UA_String chars;
    chars.length = std::strlen(text.c_str());
    chars.data = reinterpret_cast<UA_Byte*>(const_cast<char*>(text.c_str()));
    const UA_StatusCode status = UA_NodeId_parse(id.get(), chars);
    if (status != UA_STATUSCODE_GOOD) {
        throw exceptions::failed_to_parse_node_id(text, UA_StatusCode_name(status));
    }
    return id;
}

array_access parse_array_access(const std::string& text) {
    array_text parts;
    if (!split_array_text(text, parts)) {
        throw exceptions::invalid_array_syntax(text);
    }
    node_id_ptr id = parse_node_id(parts.node);
    // Throws std::out_of_range past signed 64 bits; the id is released on the way out.
    const long index = std::stol(parts.digits);
    return {std::move(id), static_cast<std::uint64_t>(index)};
}

std::string identifier_text(const UA_NodeId& id) {
    switch (id.identifierType) {
        case UA_NODEIDTYPE_NUMERIC:
            return "i=" + std::to_string(id.identifier.numeric);
        case UA_NODEIDTYPE_STRING: {
            const UA_String& s = id.identifier.string;
            if (s.length == 0 || s.data == nullptr) {
                return "s=";
            }
            return "s=" + std::string(reinterpret_cast<const char*>(s.data), s.length);
        }
        default:
            throw exceptions::unsupported_identifier_type();
    }
}

}  // namespace brenholt::monitoring_modules::opcua
