// NodeID texts as users type them: the plain form and the quoted form with an index.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "client/exceptions.h"
#include "client/node_id.h"

namespace ua = ::brenholt::monitoring_modules::opcua;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    // The first character decides the form, as it does for the nodes.
    try {
        if (!text.empty() && (text[0] == '\'' || text[0] == '"')) {
            const ua::array_access access = ua::parse_array_access(text);
            if (!access.first || text.back() != ']') std::abort();
            (void)ua::identifier_text(*access.first);
        } else {
            const ua::node_id_ptr id = ua::parse_node_id(text);
            if (!id) std::abort();
            (void)ua::identifier_text(*id);
        }
    } catch (const ua::exceptions::failed_to_parse_node_id&) {
    } catch (const ua::exceptions::invalid_array_syntax&) {
    } catch (const ua::exceptions::unsupported_identifier_type&) {
    } catch (const std::out_of_range&) {
        // An index beyond signed 64 bits.
    }
    return 0;
}
