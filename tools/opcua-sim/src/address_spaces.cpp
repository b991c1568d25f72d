#include "opcua_sim/address_spaces.h"
#include "opcua_sim/beckhoff.h"

#include <open62541/server.h>

#include <cstdint>
#include <stdexcept>
#include <string>

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

UA_String text(const char* chars) { return UA_STRING(const_cast<char*>(chars)); }

class builder {
public:
    builder(UA_Server* ua, UA_UInt16 ns) : ua_(ua), ns_(ns) {
        UA_ObjectAttributes attributes = UA_ObjectAttributes_default;
        attributes.displayName = UA_LOCALIZEDTEXT(const_cast<char*>("en"), const_cast<char*>("Custom"));
        folder_ = UA_NODEID_STRING(ns_, const_cast<char*>("Custom"));
        check(UA_Server_addObjectNode(ua_, folder_, UA_NODEID_NUMERIC(0, UA_NS0ID_OBJECTSFOLDER),
                                      UA_NODEID_NUMERIC(0, UA_NS0ID_ORGANIZES),
                                      UA_QUALIFIEDNAME(ns_, const_cast<char*>("Custom")),
                                      UA_NODEID_NUMERIC(0, UA_NS0ID_FOLDERTYPE), attributes, nullptr, nullptr),
              "Custom");
    }

    template <typename T>
    void scalar(const char* name, T value, int type_index) {
        owned_variant v;
        check(UA_Variant_setScalarCopy(&v.value, &value, &UA_TYPES[type_index]), name);
        add(name, v.value);
    }

    void string(const char* name, const char* value) { scalar(name, text(value), UA_TYPES_STRING); }

    template <typename T>
    void array(const char* name, const T* values, std::size_t size, int type_index) {
        owned_variant v;
        // A size of 0 with a non-null source gives the library's empty-array marker,
        // which is how an empty array travels.
        check(UA_Variant_setArrayCopy(&v.value, values, size, &UA_TYPES[type_index]), name);
        add(name, v.value);
    }

    // `described` false leaves the Description empty, as servers that set none send it.
    void add(const char* name, const UA_Variant& value, bool described = true, bool writeable = false) {
        add(UA_NODEID_STRING(ns_, const_cast<char*>(name)), name, value, described, writeable);
    }

    void add(const UA_NodeId& id, const char* name, const UA_Variant& value, bool described = true,
             bool writeable = false) {
        const std::string display = std::string("Custom ") + name;
        const std::string description = std::string(name) + " of the custom address space";
        UA_VariableAttributes attributes = UA_VariableAttributes_default;
        attributes.displayName = UA_LOCALIZEDTEXT(const_cast<char*>("en"), const_cast<char*>(display.c_str()));
        if (described)
            attributes.description =
                UA_LOCALIZEDTEXT(const_cast<char*>("en"), const_cast<char*>(description.c_str()));
        attributes.accessLevel = UA_ACCESSLEVELMASK_READ | (writeable ? UA_ACCESSLEVELMASK_WRITE : 0);
        attributes.userAccessLevel = attributes.accessLevel;
        attributes.value = value; // shallow: the server copies it
        UA_UInt32 any_length = 0;
        if (value.type == nullptr) {
            attributes.dataType = UA_NODEID_NUMERIC(0, UA_NS0ID_BASEDATATYPE);
            attributes.valueRank = UA_VALUERANK_ANY;
        } else {
            attributes.dataType = value.type->typeId;
            if (UA_Variant_isScalar(&value)) {
                attributes.valueRank = UA_VALUERANK_SCALAR;
            } else {
                attributes.valueRank = UA_VALUERANK_ONE_DIMENSION;
                attributes.arrayDimensionsSize = 1;
                attributes.arrayDimensions = &any_length;
            }
        }
        check(UA_Server_addVariableNode(ua_, id, folder_, UA_NODEID_NUMERIC(0, UA_NS0ID_ORGANIZES),
                                        UA_QUALIFIEDNAME(ns_, const_cast<char*>(name)),
                                        UA_NODEID_NUMERIC(0, UA_NS0ID_BASEDATAVARIABLETYPE), attributes, nullptr,
                                        nullptr),
              name);
    }

private:
    static void check(UA_StatusCode status, const char* name) {
        if (status != UA_STATUSCODE_GOOD)
            throw std::runtime_error(std::string("custom address space: cannot add ") + name + ": " +
                                     UA_StatusCode_name(status));
    }

    UA_Server* ua_;
    UA_UInt16 ns_;
    UA_NodeId folder_;
};

void populate_custom(UA_Server* ua) {
    const UA_UInt16 ns = UA_Server_addNamespace(ua, custom_namespace_uri);
    builder b(ua, ns);

    b.scalar("Boolean", UA_Boolean{true}, UA_TYPES_BOOLEAN);
    b.scalar("BooleanFalse", UA_Boolean{false}, UA_TYPES_BOOLEAN);
    b.scalar("SByte", UA_SByte{-56}, UA_TYPES_SBYTE);
    b.scalar("Byte", UA_Byte{200}, UA_TYPES_BYTE);
    b.scalar("Int16", UA_Int16{-1234}, UA_TYPES_INT16);
    b.scalar("UInt16", UA_UInt16{54321}, UA_TYPES_UINT16);
    b.scalar("Int32", UA_Int32{-123456}, UA_TYPES_INT32);
    b.scalar("UInt32", UA_UInt32{4294967295u}, UA_TYPES_UINT32);
    b.scalar("Int64", UA_Int64{-9000000000}, UA_TYPES_INT64);
    b.scalar("UInt64", UA_UInt64{9223372036854775807u}, UA_TYPES_UINT64);
    b.scalar("UInt64Overflow", UA_UInt64{9223372036854775808u}, UA_TYPES_UINT64);
    b.scalar("Float", UA_Float{1.5f}, UA_TYPES_FLOAT);
    b.scalar("Double", UA_Double{3.25}, UA_TYPES_DOUBLE);
    b.scalar("DateTime", UA_DateTime{133000000000000000}, UA_TYPES_DATETIME);

    b.string("String", "Hello");
    b.string("StringEmpty", "");
    b.string("StringNumber", "12.5 kg");
    b.string("StringInteger", "42");
    b.string("StringText", "abc");
    b.string("StringHuge", "1e999");
    b.scalar("LocalizedText", UA_LOCALIZEDTEXT(const_cast<char*>("en"), const_cast<char*>("Hello")),
             UA_TYPES_LOCALIZEDTEXT);
    b.scalar("QualifiedName", UA_QUALIFIEDNAME(2, const_cast<char*>("Temp")), UA_TYPES_QUALIFIEDNAME);

    UA_EnumValueType enum_value;
    UA_EnumValueType_init(&enum_value);
    enum_value.value = 3;
    enum_value.displayName = UA_LOCALIZEDTEXT(const_cast<char*>("en"), const_cast<char*>("Three"));
    b.scalar("EnumValue", enum_value, UA_TYPES_ENUMVALUETYPE);

    // Types that the module must refuse.
    const UA_Guid guid{0x72962b91, 0xfa75, 0x4ae6, {0x8d, 0x28, 0xb4, 0x04, 0xdc, 0x7d, 0xaf, 0x63}};
    b.scalar("Guid", guid, UA_TYPES_GUID);
    UA_Byte raw[] = {0x01, 0x02, 0x03};
    b.scalar("ByteString", UA_ByteString{sizeof raw, raw}, UA_TYPES_BYTESTRING);
    b.scalar("StatusCode", UA_StatusCode{UA_STATUSCODE_BADINTERNALERROR}, UA_TYPES_STATUSCODE);

    const UA_Int32 int32s[] = {10, 20, 30, 40, 50};
    b.array("Int32Array", int32s, 5, UA_TYPES_INT32);
    const UA_Double doubles[] = {1.5, 2.5, 3.5};
    b.array("DoubleArray", doubles, 3, UA_TYPES_DOUBLE);
    const UA_String strings[] = {text("first"), text("second")};
    b.array("StringArray", strings, 2, UA_TYPES_STRING);
    const UA_Boolean booleans[] = {true, false};
    b.array("BooleanArray", booleans, 2, UA_TYPES_BOOLEAN);
    b.array("EmptyArray", int32s, 0, UA_TYPES_INT32);

    {
        owned_variant v;
        UA_Int32 seven = 7;
        UA_Variant_setScalarCopy(&v.value, &seven, &UA_TYPES[UA_TYPES_INT32]);
        b.add("NoDescription", v.value, false);
    }
    {
        owned_variant empty;
        b.add("NoValue", empty.value);
    }
    {
        owned_variant v;
        UA_Int32 zero = 0;
        UA_Variant_setScalarCopy(&v.value, &zero, &UA_TYPES[UA_TYPES_INT32]);
        b.add("Changeable", v.value, true, true);
    }
    b.string("SensorMessage", "Machine running");
    b.string("SensorMessageEmpty", "");
    {
        owned_variant v;
        UA_Double number = 99.5;
        UA_Variant_setScalarCopy(&v.value, &number, &UA_TYPES[UA_TYPES_DOUBLE]);
        b.add(UA_NODEID_NUMERIC(ns, 1001), "Numeric", v.value);
    }
}

} // namespace

address_space_setup custom_address_space() { return populate_custom; }

std::vector<std::string> address_space_names() { return {"custom", "beckhoff"}; }

address_space_setup address_space_by_name(const std::string& name) {
    if (name == "custom") return custom_address_space();
    if (name == "beckhoff") return beckhoff_address_space();
    throw std::invalid_argument("unknown address space '" + name + "'; see --help");
}

} // namespace opcua_sim
