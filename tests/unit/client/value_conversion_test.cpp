#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "client/exceptions.h"
#include "client/value_conversion.h"
#include "support/what_of.h"

namespace {

namespace ua = ::brenholt::monitoring_modules::opcua;
namespace ex = ua::exceptions;
using test_support::what_of;
using ua::data_type;

using variant_ptr = std::unique_ptr<UA_Variant, decltype(&UA_Variant_delete)>;
using maker = std::function<variant_ptr()>;

variant_ptr new_variant() { return variant_ptr(UA_Variant_new(), &UA_Variant_delete); }

template <typename T>
variant_ptr scalar(const T& value, std::size_t type) {
    variant_ptr v = new_variant();
    EXPECT_EQ(UA_Variant_setScalarCopy(v.get(), &value, &UA_TYPES[type]), UA_STATUSCODE_GOOD);
    return v;
}

// An initializer list rather than a vector, whose bool form has no contiguous storage. No
// values give an empty array as the decoder delivers it, its data at the library's sentinel.
template <typename T>
variant_ptr array(std::initializer_list<T> values, std::size_t type) {
    variant_ptr v = new_variant();
    if (values.size() == 0) UA_Variant_setArray(v.get(), UA_EMPTY_ARRAY_SENTINEL, 0, &UA_TYPES[type]);
    else EXPECT_EQ(UA_Variant_setArrayCopy(v.get(), values.begin(), values.size(), &UA_TYPES[type]), UA_STATUSCODE_GOOD);
    return v;
}
variant_ptr empty_array(std::size_t type) { return array<UA_Byte>({}, type); }

// Points at the characters only; the variants copy them deeply.
UA_String ua_string(const char* chars, std::size_t length) {
    return {length, length == 0 ? nullptr : reinterpret_cast<UA_Byte*>(const_cast<char*>(chars))};
}
UA_String ua_string(const char* chars) { return ua_string(chars, std::strlen(chars)); }
UA_QualifiedName qualified(UA_UInt16 ns, const char* name) { return {ns, ua_string(name)}; }

TEST(to_integer, widens_every_integral_type_and_reads_the_chosen_element) {
    UA_EnumValueType seven;
    UA_EnumValueType_init(&seven);
    seven.value = -7;
    const struct {
        const char* name;
        maker make;
        std::uint64_t index;
        std::int64_t expected;
    } cases[] = {
        {"Int64 min", [] { return scalar<UA_Int64>(INT64_MIN, UA_TYPES_INT64); }, 0, INT64_MIN},
        {"UInt64 at the limit", [] { return scalar<UA_UInt64>(9223372036854775807ULL, UA_TYPES_UINT64); }, 0, INT64_MAX},
        // DateTime counts 100 ns steps; whole seconds, truncated toward zero.
        {"DateTime", [] { return scalar<UA_DateTime>(133000000000000000LL, UA_TYPES_DATETIME); }, 0, 13300000000LL},
        {"DateTime -1", [] { return scalar<UA_DateTime>(-1, UA_TYPES_DATETIME); }, 0, 0},
        {"DateTime -1.5 s", [] { return scalar<UA_DateTime>(-15000000, UA_TYPES_DATETIME); }, 0, -1},
        {"EnumValueType", [&] { return scalar(seven, UA_TYPES_ENUMVALUETYPE); }, 0, -7},
        {"SByte array", [] { return array<UA_SByte>({1, -2, -128}, UA_TYPES_SBYTE); }, 2, -128},
        {"DateTime array", [] { return array<UA_DateTime>({0, 20000000}, UA_TYPES_DATETIME); }, 1, 2},
    };
    for (const auto& c : cases) {
        const variant_ptr v = c.make();
        EXPECT_EQ(ua::value_kind(*v), data_type::integer) << c.name;
        EXPECT_EQ(ua::to_integer(*v, c.index), c.expected) << c.name;
    }
    for (UA_UInt64 raw : std::initializer_list<UA_UInt64>{9223372036854775808ULL, UINT64_MAX})
        EXPECT_EQ(what_of<ex::value_overflow>([&] { ua::to_integer(*scalar(raw, UA_TYPES_UINT64)); }),
                  "The value in the channel exceeds the allowed range (Int64).");
    const variant_ptr arr = array<UA_UInt64>({1, 9223372036854775808ULL}, UA_TYPES_UINT64);
    EXPECT_EQ(ua::to_integer(*arr, 0), 1);
    EXPECT_THROW(ua::to_integer(*arr, 1), ex::value_overflow);
}

TEST(conversions, floating_point_boolean_and_string_kinds) {
    EXPECT_EQ(ua::value_kind(*scalar<UA_Float>(1.5f, UA_TYPES_FLOAT)), data_type::floatingpoint);
    EXPECT_EQ(ua::to_double(*scalar<UA_Float>(0.1f, UA_TYPES_FLOAT)), static_cast<double>(0.1f));
    EXPECT_TRUE(std::isnan(ua::to_double(*scalar<UA_Float>(NAN, UA_TYPES_FLOAT))));
    EXPECT_TRUE(ua::to_boolean(*array<UA_Boolean>({false, true}, UA_TYPES_BOOLEAN), 1));
    EXPECT_EQ(ua::value_kind(*scalar<UA_Boolean>(false, UA_TYPES_BOOLEAN)), data_type::boolean);

    const std::pair<maker, std::string> strings[] = {
        {[] { return scalar(ua_string("a\0b", 3), UA_TYPES_STRING); }, std::string("a\0b", 3)},
        {[] { return scalar(UA_STRING_NULL, UA_TYPES_STRING); }, ""},
        // A qualified name carries its namespace unless it is 0.
        {[] { return scalar(qualified(0, "Temp"), UA_TYPES_QUALIFIEDNAME); }, "Temp"},
        {[] { return scalar(qualified(10, "Temp"), UA_TYPES_QUALIFIEDNAME); }, "10:Temp"},
        {[] { return scalar(qualified(3, ""), UA_TYPES_QUALIFIEDNAME); }, "3:"},
    };
    for (const auto& [make, expected] : strings) {
        const variant_ptr v = make();
        EXPECT_EQ(ua::value_kind(*v), data_type::string) << expected;
        EXPECT_EQ(ua::to_string_value(*v), expected);
    }
    const variant_ptr names = array<UA_QualifiedName>({qualified(0, "a"), qualified(4, "b")}, UA_TYPES_QUALIFIEDNAME);
    EXPECT_EQ(ua::to_string_value(*names, 1), "4:b");
}

TEST(conversions, refuse_another_kind_with_both_names) {
    const std::string mismatch = "DataType mismatch. The DataType of the value is (";
    EXPECT_EQ(what_of<ex::data_type_mismatch>([] { ua::to_integer(*scalar<UA_Double>(1.0, UA_TYPES_DOUBLE)); }),
              mismatch + "floatingpoint). The expected DataType is (integer).");
    EXPECT_EQ(what_of<ex::data_type_mismatch>([] { ua::to_boolean(*scalar(ua_string("true"), UA_TYPES_STRING)); }),
              mismatch + "string). The expected DataType is (boolean).");
    EXPECT_EQ(what_of<ex::data_type_mismatch>([] { ua::to_string_value(*scalar<UA_Int64>(5, UA_TYPES_INT64)); }),
              mismatch + "integer). The expected DataType is (string).");
}

TEST(conversions, types_outside_the_four_kinds_are_refused_before_any_read) {
    UA_Guid guid = UA_GUID("09087e75-8e5e-499b-954f-f2a9603db28a");
    UA_Range range{0.0, 1.0};
    // StatusCode, an enumeration and a structure.
    for (const auto& v : {scalar(guid, UA_TYPES_GUID), scalar<UA_StatusCode>(UA_STATUSCODE_BADTIMEOUT, UA_TYPES_STATUSCODE),
                          scalar<UA_ServerState>(UA_SERVERSTATE_RUNNING, UA_TYPES_SERVERSTATE), scalar(range, UA_TYPES_RANGE)}) {
        SCOPED_TRACE(v->type->typeName);
        EXPECT_EQ(what_of<ex::unsupported_data_type>([&] { ua::value_kind(*v); }),
                  "A provided node has an unsupported DataType.");
        EXPECT_THROW(ua::to_integer(*v), ex::unsupported_data_type);
        EXPECT_THROW(ua::to_string_value(*v), ex::unsupported_data_type);
    }
    // An empty variant has no value, except as a string.
    const variant_ptr empty = new_variant();
    EXPECT_EQ(what_of<ex::value_not_set>([&] { ua::value_kind(*empty); }), "No Value is set.");
    EXPECT_THROW(ua::check_array(*empty), ex::value_not_set);
    EXPECT_THROW(ua::to_integer(*empty, 3), ex::value_not_set);
    EXPECT_EQ(ua::to_string_value(*empty, 7), "");
}

TEST(conversions, shape_then_index_bounds) {
    const variant_ptr s = scalar<UA_Int32>(1, UA_TYPES_INT32);
    const variant_ptr five = array<UA_Int32>({1, 2, 3, 4, 5}, UA_TYPES_INT32);
    const variant_ptr e = empty_array(UA_TYPES_INT32);
    EXPECT_NO_THROW(ua::check_scalar(*s));
    EXPECT_EQ(what_of<ex::value_not_scalar>([&] { ua::check_scalar(*five); }),
              "The value of the variable on the targeted OPC UA server is non-scalar. If you want to access the "
              "values of an array, use the following syntax: '<node-id>'[<index>].");
    EXPECT_THROW(ua::check_scalar(*e), ex::value_not_scalar);
    EXPECT_EQ(what_of<ex::not_an_array>([&] { ua::check_array(*s); }),
              "The entered syntax indicates an array but the value of the variable on the targeted OPC UA server "
              "is scalar. Adjust the syntax to match the targeted variable.");
    EXPECT_NO_THROW(ua::check_array(*e));

    // Index 0 passes the scalar test, a higher one does not; then the bounds.
    EXPECT_NO_THROW(ua::check_index(*s, 0));
    EXPECT_THROW(ua::check_index(*s, 3), ex::not_an_array);
    EXPECT_NO_THROW(ua::check_index(*five, 4));
    EXPECT_EQ(what_of<ex::index_out_of_bounds>([&] { ua::check_index(*five, UINT64_MAX); }),
              "KOLV tried to access index 18446744073709551615 in an array with only 5 elements.");
    EXPECT_THROW(ua::check_index(*five, 5), ex::index_out_of_bounds);

    // The kind is tested before the index, the index before the value.
    EXPECT_THROW(ua::to_integer(*scalar<UA_Double>(1.0, UA_TYPES_DOUBLE), 3), ex::data_type_mismatch);
    EXPECT_THROW(ua::to_integer(*array<UA_UInt64>({9223372036854775808ULL}, UA_TYPES_UINT64), 1), ex::index_out_of_bounds);
    // An empty array has no element 0 to read, of any kind.
    for (std::size_t type : {UA_TYPES_BOOLEAN, UA_TYPES_INT64, UA_TYPES_DOUBLE, UA_TYPES_STRING}) {
        const variant_ptr none = empty_array(type);
        const std::function<void()> read[] = {[&] { ua::to_boolean(*none); }, [&] { ua::to_string_value(*none); },
                                              [&] { ua::to_integer(*none); }, [&] { ua::to_double(*none); }};
        EXPECT_EQ(what_of<ex::index_out_of_bounds>(read[static_cast<int>(ua::value_kind(*none))]),
                  "KOLV tried to access index 0 in an array with only 0 elements.")
            << UA_TYPES[type].typeName;
    }
}

}  // namespace
