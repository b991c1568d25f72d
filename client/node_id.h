#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include <open62541/types.h>

namespace brenholt::monitoring_modules::opcua {

// Releases an id made with UA_new, including what its identifier owns.
struct node_id_deleter {
    void operator()(UA_NodeId* id) const noexcept;
};

using node_id_ptr = std::unique_ptr<UA_NodeId, node_id_deleter>;

// The id of a quoted NodeID text together with the element index behind it.
using array_access = std::pair<node_id_ptr, std::uint64_t>;

// Plain NodeID text in the grammar of UA_NodeId_parse ("ns=2;s=test_one").
// The text ends at its first zero byte; blanks are not trimmed.
// Raises failed_to_parse_node_id with the text and the library's status name.
node_id_ptr parse_node_id(const std::string& text);

// Quoted NodeID with an element index: 'ns=1;s=a'[4] or "ns=1;s=a"[4].
// Raises invalid_array_syntax for any other shape, failed_to_parse_node_id for the inner
// text, and std::out_of_range (untranslated) for an index beyond signed 64 bits.
array_access parse_array_access(const std::string& text);

// "i=" + number or "s=" + string. The namespace index is left out on purpose, so that
// users see the identifier as they know it from the server's address space.
// Raises unsupported_identifier_type for GUID and ByteString ids.
std::string identifier_text(const UA_NodeId& id);

}  // namespace brenholt::monitoring_modules::opcua
