#include "client/node_id.h"

#include <climits>
#include <cstring>
#include <new>
#include <regex>

#include "client/exceptions.h"

namespace brenholt::monitoring_modules::opcua {

namespace {

// The index is read with std::stol, whose range is what "too large" means here.
static_assert(sizeof(long) * CHAR_BIT == 64, "the array index is read as a signed 64-bit long");

const std::regex& array_access_pattern() {
    // Built at first use; the initialisation of a local static is thread-safe and
    // matching only reads it.
    static const std::regex pattern(R"re(^(?:(?:'([^']+)')|(?:"([^"]+)"))(?:\[([0-9]+)\])$)re",
                                    std::regex::ECMAScript);
    return pattern;
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
    std::smatch match;
    if (!std::regex_match(text, match, array_access_pattern())) {
        throw exceptions::invalid_array_syntax(text);
    }
    const std::string node_text = match[1].matched ? match[1].str() : match[2].str();
    node_id_ptr id = parse_node_id(node_text);
    // Throws std::out_of_range past signed 64 bits; the id is released on the way out.
    const long index = std::stol(match[3].str());
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
