#include "opcua_sim/diagnostics.h"

#include <open62541/server.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace opcua_sim {
namespace {

const UA_NodeId enabled_flag_id = UA_NODEID_NUMERIC(0, UA_NS0ID_SERVER_SERVERDIAGNOSTICS_ENABLEDFLAG);

void write_flag(UA_Server* ua, bool enabled) {
    UA_Boolean value = enabled;
    UA_Variant variant;
    UA_Variant_setScalar(&variant, &value, &UA_TYPES[UA_TYPES_BOOLEAN]);
    UA_StatusCode status = UA_Server_writeValue(ua, enabled_flag_id, variant);
    if (status != UA_STATUSCODE_GOOD)
        throw std::runtime_error(std::string("cannot write the diagnostics EnabledFlag: ") +
                                 UA_StatusCode_name(status));
}

// Reads one variable of namespace 0 and hands its scalar to `take`; the type must match.
template <typename T, typename Take>
void read_scalar(UA_Server* ua, UA_UInt32 numeric, const UA_DataType* type, Take&& take) {
    UA_Variant value;
    UA_Variant_init(&value);
    UA_StatusCode status = UA_Server_readValue(ua, UA_NODEID_NUMERIC(0, numeric), &value);
    if (status != UA_STATUSCODE_GOOD) {
        UA_Variant_clear(&value);
        throw std::runtime_error("cannot read ns=0;i=" + std::to_string(numeric) + ": " +
                                 UA_StatusCode_name(status));
    }
    if (!UA_Variant_hasScalarType(&value, type)) {
        UA_Variant_clear(&value);
        throw std::runtime_error("ns=0;i=" + std::to_string(numeric) + " holds no " + type->typeName);
    }
    take(*static_cast<const T*>(value.data));
    UA_Variant_clear(&value);
}

} // namespace

address_space_setup diagnostics_address_space(bool enabled) {
    return [enabled](UA_Server* ua) { write_flag(ua, enabled); };
}

void diagnostics_set_enabled(server& s, bool enabled) {
    s.with_server([enabled](UA_Server* ua) { write_flag(ua, enabled); });
}

bool diagnostics_enabled(server& s) {
    bool enabled = false;
    s.with_server([&enabled](UA_Server* ua) {
        read_scalar<UA_Boolean>(ua, UA_NS0ID_SERVER_SERVERDIAGNOSTICS_ENABLEDFLAG, &UA_TYPES[UA_TYPES_BOOLEAN],
                                [&enabled](UA_Boolean v) { enabled = v; });
    });
    return enabled;
}

diagnostics_counters diagnostics_read_counters(server& s) {
    diagnostics_counters out;
    const std::pair<UA_UInt32, std::uint32_t*> fields[] = {
        {UA_NS0ID_SERVER_SERVERDIAGNOSTICS_SERVERDIAGNOSTICSSUMMARY_CURRENTSESSIONCOUNT, &out.current_session_count},
        {UA_NS0ID_SERVER_SERVERDIAGNOSTICS_SERVERDIAGNOSTICSSUMMARY_SECURITYREJECTEDSESSIONCOUNT,
         &out.security_rejected_session_count},
        {UA_NS0ID_SERVER_SERVERDIAGNOSTICS_SERVERDIAGNOSTICSSUMMARY_SESSIONTIMEOUTCOUNT, &out.session_timeout_count},
        {UA_NS0ID_SERVER_SERVERDIAGNOSTICS_SERVERDIAGNOSTICSSUMMARY_SESSIONABORTCOUNT, &out.session_abort_count},
        {UA_NS0ID_SERVER_SERVERDIAGNOSTICS_SERVERDIAGNOSTICSSUMMARY_CURRENTSUBSCRIPTIONCOUNT,
         &out.current_subscription_count},
        {UA_NS0ID_SERVER_SERVERDIAGNOSTICS_SERVERDIAGNOSTICSSUMMARY_SECURITYREJECTEDREQUESTSCOUNT,
         &out.security_rejected_requests_count},
        {UA_NS0ID_SERVER_SERVERDIAGNOSTICS_SERVERDIAGNOSTICSSUMMARY_REJECTEDREQUESTSCOUNT,
         &out.rejected_requests_count},
        {UA_NS0ID_SERVER_SERVERDIAGNOSTICS_SERVERDIAGNOSTICSSUMMARY_REJECTEDSESSIONCOUNT,
         &out.rejected_session_count},
    };
    s.with_server([&fields](UA_Server* ua) {
        for (const auto& [numeric, target] : fields)
            read_scalar<UA_UInt32>(ua, numeric, &UA_TYPES[UA_TYPES_UINT32],
                                   [target = target](UA_UInt32 v) { *target = v; });
    });
    return out;
}

} // namespace opcua_sim
