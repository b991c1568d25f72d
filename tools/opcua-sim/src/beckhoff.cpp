#include "opcua_sim/beckhoff.h"

#include <open62541/server.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace opcua_sim {
namespace {

// Owns a variant built here; the server copies what it is given.
struct owned_variant {
    UA_Variant value;
    owned_variant() { UA_Variant_init(&value); }
    ~owned_variant() { UA_Variant_clear(&value); }
    owned_variant(const owned_variant&) = delete;
    owned_variant& operator=(const owned_variant&) = delete;
};

struct entry {
    const char* node_id;
    const char* name;
    int type_index;
    const void* value;
};

// The nine variables in their device types; pointers into `status`.
std::vector<entry> entries(const beckhoff_status& s) {
    return {
        {beckhoff_node::cpu_load, "CPU Usage", UA_TYPES_UINT16, &s.cpu_load},
        {beckhoff_node::cpu_temperature, "CPU Temperature", UA_TYPES_INT16, &s.cpu_temperature},
        {beckhoff_node::mainboard_temperature, "Mainboard Temperature", UA_TYPES_INT16, &s.mainboard_temperature},
        {beckhoff_node::memory_size, "Memory Size", UA_TYPES_UINT32, &s.memory_size},
        {beckhoff_node::memory_available, "Memory Available", UA_TYPES_UINT32, &s.memory_available},
        {beckhoff_node::memory_size_wide, "Memory Size 64", UA_TYPES_UINT64, &s.memory_size_wide},
        {beckhoff_node::memory_available_wide, "Memory Available 64", UA_TYPES_UINT64, &s.memory_available_wide},
        {beckhoff_node::raid_state, "RAID Controller State", UA_TYPES_UINT16, &s.raid_state},
        {beckhoff_node::raid_offline_reason, "RAID Offline Reason", UA_TYPES_UINT16, &s.raid_offline_reason},
    };
}

void check(UA_StatusCode status, const std::string& what) {
    if (status != UA_STATUSCODE_GOOD)
        throw std::runtime_error("beckhoff address space: cannot add " + what + ": " + UA_StatusCode_name(status));
}

// The string part of "ns=2;s=...".
std::string identifier_of(const char* node_id) {
    const std::string text(node_id);
    return text.substr(text.find(";s=") + 3);
}

void populate(UA_Server* ua, const beckhoff_status& initial) {
    const UA_UInt16 ns = UA_Server_addNamespace(ua, beckhoff_namespace_uri);
    if (ns != 2)
        throw std::runtime_error("beckhoff address space: namespace index is " + std::to_string(ns) +
                                 ", the device's ids need 2");

    const UA_NodeId folder = UA_NODEID_STRING(ns, const_cast<char*>("Modules"));
    UA_ObjectAttributes object = UA_ObjectAttributes_default;
    object.displayName = UA_LOCALIZEDTEXT(const_cast<char*>("en"), const_cast<char*>("Modules"));
    check(UA_Server_addObjectNode(ua, folder, UA_NODEID_NUMERIC(0, UA_NS0ID_OBJECTSFOLDER),
                                  UA_NODEID_NUMERIC(0, UA_NS0ID_ORGANIZES),
                                  UA_QUALIFIEDNAME(ns, const_cast<char*>("Modules")),
                                  UA_NODEID_NUMERIC(0, UA_NS0ID_FOLDERTYPE), object, nullptr, nullptr),
          "Modules");

    for (const entry& e : entries(initial)) {
        owned_variant v;
        check(UA_Variant_setScalarCopy(&v.value, e.value, &UA_TYPES[e.type_index]), e.name);
        const std::string id = identifier_of(e.node_id);
        UA_VariableAttributes attributes = UA_VariableAttributes_default;
        attributes.displayName = UA_LOCALIZEDTEXT(const_cast<char*>("en"), const_cast<char*>(e.name));
        attributes.accessLevel = UA_ACCESSLEVELMASK_READ;
        attributes.userAccessLevel = attributes.accessLevel;
        attributes.dataType = UA_TYPES[e.type_index].typeId;
        attributes.valueRank = UA_VALUERANK_SCALAR;
        attributes.value = v.value;  // shallow: the server copies it
        check(UA_Server_addVariableNode(ua, UA_NODEID_STRING(ns, const_cast<char*>(id.c_str())), folder,
                                        UA_NODEID_NUMERIC(0, UA_NS0ID_ORGANIZES),
                                        UA_QUALIFIEDNAME(ns, const_cast<char*>(e.name)),
                                        UA_NODEID_NUMERIC(0, UA_NS0ID_BASEDATAVARIABLETYPE), attributes, nullptr,
                                        nullptr),
              e.name);
    }
}

}  // namespace

void set_beckhoff_memory(beckhoff_status& status, std::uint64_t size, std::uint64_t available) {
    const bool fits = size < beckhoff_narrow_saturated;
    status.memory_size = fits ? static_cast<std::uint32_t>(size) : beckhoff_narrow_saturated;
    status.memory_available = static_cast<std::uint32_t>(std::min<std::uint64_t>(available, beckhoff_narrow_saturated));
    status.memory_size_wide = size;
    status.memory_available_wide = available;
}

address_space_setup beckhoff_address_space(const beckhoff_status& initial) {
    return [initial](UA_Server* ua) { populate(ua, initial); };
}

void set_beckhoff_status(server& target, const beckhoff_status& status) {
    for (const entry& e : entries(status)) {
        owned_variant v;
        if (UA_Variant_setScalarCopy(&v.value, e.value, &UA_TYPES[e.type_index]) != UA_STATUSCODE_GOOD)
            throw std::runtime_error(std::string("cannot build the value of ") + e.node_id);
        target.set_value(e.node_id, v.value);
    }
}

}  // namespace opcua_sim
