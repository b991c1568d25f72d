#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "client/exceptions.h"
#include "client/value_conversion.h"

namespace {

namespace ua = ::brenholt::monitoring_modules::opcua;
namespace ex = ua::exceptions;
using ua::data_type;

struct variant_deleter {
    void operator()(UA_Variant* v) const { UA_Variant_delete(v); }
};
using variant_ptr = std::unique_ptr<UA_Variant, variant_deleter>;

variant_ptr empty_variant() { return variant_ptr(UA_Variant_new()); }

template <typename T>
variant_ptr scalar(const T& value, std::size_t type_index) {
    variant_ptr v = empty_variant();
    EXPECT_EQ(UA_Variant_setScalarCopy(v.get(), &value, &UA_TYPES[type_index]), UA_STATUSCODE_GOOD);
    return v;
}

// An initializer list rather than a vector, whose bool form has no contiguous storage.
template <typename T>
variant_ptr array(std::initializer_list<T> values, std::size_t type_index) {
    variant_ptr v = empty_variant();
    EXPECT_EQ(UA_Variant_setArrayCopy(v.get(), values.begin(), values.size(), &UA_TYPES[type_index]),
              UA_STATUSCODE_GOOD);
    return v;
}

// An empty array as the decoder delivers it: no elements, data at the library's sentinel.
variant_ptr empty_array(std::size_t type_index) {
    variant_ptr v = empty_variant();
    UA_Variant_setArray(v.get(), UA_EMPTY_ARRAY_SENTINEL, 0, &UA_TYPES[type_index]);
    return v;
}

// These only point at the characters, so they take literals, which outlive the variants
// that copy them deeply.
UA_String ua_string(const char* chars, std::size_t length) {
    UA_String out;
    out.length = length;
    out.data = length == 0 ? nullptr : reinterpret_cast<UA_Byte*>(const_cast<char*>(chars));
    return out;
}

UA_String ua_string(const char* chars) { return ua_string(chars, std::strlen(chars)); }

UA_QualifiedName qualified(UA_UInt16 ns, const char* name) {
    UA_QualifiedName q;
    q.namespaceIndex = ns;
    q.name = ua_string(name);
    return q;
}

UA_LocalizedText localized(const char* locale, const char* text) {
    UA_LocalizedText t;
    t.locale = ua_string(locale);
    t.text = ua_string(text);
    return t;
}

UA_EnumValueType enum_value(UA_Int64 value, const char* name) {
    UA_EnumValueType e;
    UA_EnumValueType_init(&e);
    e.value = value;
    e.displayName = localized("en", name);
    return e;
}

template <typename E, typename F>
std::string message_of(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    ADD_FAILURE() << "nothing raised";
    return {};
}

constexpr std::int64_t i64_min = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t i64_max = std::numeric_limits<std::int64_t>::max();

struct integer_case {
    const char* name;
    std::function<variant_ptr()> make;
    std::uint64_t index;
    std::int64_t expected;
};

TEST(to_integer, widens_every_integral_type_and_reads_the_chosen_element) {
    const std::vector<integer_case> cases{
        {"Byte 200", [] { return scalar<UA_Byte>(200, UA_TYPES_BYTE); }, 0, 200},
        {"SByte -56", [] { return scalar<UA_SByte>(-56, UA_TYPES_SBYTE); }, 0, -56},
        {"Int16 min", [] { return scalar<UA_Int16>(-32768, UA_TYPES_INT16); }, 0, -32768},
        {"Int32 min", [] { return scalar<UA_Int32>(std::numeric_limits<UA_Int32>::min(), UA_TYPES_INT32); }, 0,
         -2147483648LL},
        {"UInt32 max", [] { return scalar<UA_UInt32>(4294967295U, UA_TYPES_UINT32); }, 0, 4294967295LL},
        {"Int64 min", [] { return scalar<UA_Int64>(i64_min, UA_TYPES_INT64); }, 0, i64_min},
        {"Int64 max", [] { return scalar<UA_Int64>(i64_max, UA_TYPES_INT64); }, 0, i64_max},
        {"UInt64 at the limit", [] { return scalar<UA_UInt64>(9223372036854775807ULL, UA_TYPES_UINT64); }, 0,
         i64_max},
        {"DateTime", [] { return scalar<UA_DateTime>(133000000000000000LL, UA_TYPES_DATETIME); }, 0, 13300000000LL},
        {"DateTime below a second", [] { return scalar<UA_DateTime>(9999999, UA_TYPES_DATETIME); }, 0, 0},
        {"DateTime -1 towards zero", [] { return scalar<UA_DateTime>(-1, UA_TYPES_DATETIME); }, 0, 0},
        {"DateTime -1.5 s towards zero", [] { return scalar<UA_DateTime>(-15000000, UA_TYPES_DATETIME); }, 0, -1},
        {"EnumValueType", [] { return scalar(enum_value(-7, "minus seven"), UA_TYPES_ENUMVALUETYPE); }, 0, -7},
        {"SByte array", [] { return array<UA_SByte>({1, -2, -128}, UA_TYPES_SBYTE); }, 2, -128},
        {"Int16 array", [] { return array<UA_Int16>({-1, 2, -3}, UA_TYPES_INT16); }, 1, 2},
        {"UInt32 array", [] { return array<UA_UInt32>({1, 4000000000U}, UA_TYPES_UINT32); }, 1, 4000000000LL},
        {"DateTime array", [] { return array<UA_DateTime>({0, 20000000}, UA_TYPES_DATETIME); }, 1, 2},
        {"EnumValueType array",
         [] { return array<UA_EnumValueType>({enum_value(10, "a"), enum_value(20, "b"), enum_value(30, "c")},
                                             UA_TYPES_ENUMVALUETYPE); },
         2, 30},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const variant_ptr v = c.make();
        EXPECT_EQ(ua::value_kind(*v), data_type::integer);
        EXPECT_EQ(ua::to_integer(*v, c.index), c.expected);
        if (c.index == 0) {
            EXPECT_EQ(ua::to_integer(*v), c.expected);
        }
    }
}

TEST(to_integer, uint64_from_two_to_the_63_overflows) {
    for (UA_UInt64 raw : std::initializer_list<UA_UInt64>{9223372036854775808ULL, UINT64_MAX}) {
        SCOPED_TRACE(raw);
        const variant_ptr v = scalar(raw, UA_TYPES_UINT64);
        EXPECT_EQ(message_of<ex::value_overflow>([&] { ua::to_integer(*v); }),
                  "The value in the channel exceeds the allowed range (Int64).");
    }
    const variant_ptr arr = array<UA_UInt64>({1, 9223372036854775808ULL}, UA_TYPES_UINT64);
    EXPECT_EQ(ua::to_integer(*arr, 0), 1);
    EXPECT_THROW(ua::to_integer(*arr, 1), ex::value_overflow);
}

TEST(to_double, keeps_double_and_widens_float) {
    const variant_ptr f = scalar<UA_Float>(1.5f, UA_TYPES_FLOAT);
    EXPECT_EQ(ua::value_kind(*f), data_type::floatingpoint);
    EXPECT_EQ(ua::to_double(*f), 1.5);
    const variant_ptr f_tenth = scalar<UA_Float>(0.1f, UA_TYPES_FLOAT);
    EXPECT_EQ(ua::to_double(*f_tenth), static_cast<double>(0.1f));
    const variant_ptr d = scalar<UA_Double>(0.1, UA_TYPES_DOUBLE);
    EXPECT_EQ(ua::to_double(*d), 0.1);
    const variant_ptr nan = scalar<UA_Float>(NAN, UA_TYPES_FLOAT);
    EXPECT_TRUE(std::isnan(ua::to_double(*nan)));
    const variant_ptr darr = array<UA_Double>({1.25, -2.5, 3.75}, UA_TYPES_DOUBLE);
    EXPECT_EQ(ua::to_double(*darr, 1), -2.5);
    const variant_ptr farr = array<UA_Float>({1.25f, -2.5f, 3.75f}, UA_TYPES_FLOAT);
    EXPECT_EQ(ua::to_double(*farr, 2), 3.75);
}

TEST(to_boolean, reads_scalar_and_element) {
    EXPECT_TRUE(ua::to_boolean(*scalar<UA_Boolean>(true, UA_TYPES_BOOLEAN)));
    EXPECT_FALSE(ua::to_boolean(*scalar<UA_Boolean>(false, UA_TYPES_BOOLEAN)));
    const variant_ptr arr = array<UA_Boolean>({false, false, true}, UA_TYPES_BOOLEAN);
    EXPECT_EQ(ua::value_kind(*arr), data_type::boolean);
    EXPECT_FALSE(ua::to_boolean(*arr, 1));
    EXPECT_TRUE(ua::to_boolean(*arr, 2));
}

struct string_case {
    const char* name;
    std::function<variant_ptr()> make;
    std::uint64_t index;
    std::string expected;
};

TEST(to_string_value, folds_string_localized_text_and_qualified_name) {
    const std::vector<string_case> cases{
        {"String", [] { return scalar(ua_string("abc"), UA_TYPES_STRING); }, 0, "abc"},
        {"empty String", [] { return scalar(UA_STRING_NULL, UA_TYPES_STRING); }, 0, ""},
        {"String with zero byte", [] { return scalar(ua_string("a\0b", 3), UA_TYPES_STRING); }, 0,
         std::string("a\0b", 3)},
        {"LocalizedText", [] { return scalar(localized("en", "Hello"), UA_TYPES_LOCALIZEDTEXT); }, 0, "Hello"},
        {"empty LocalizedText", [] { return scalar(localized("de", ""), UA_TYPES_LOCALIZEDTEXT); }, 0, ""},
        {"QualifiedName ns 0", [] { return scalar(qualified(0, "Temp"), UA_TYPES_QUALIFIEDNAME); }, 0, "Temp"},
        {"QualifiedName ns 2", [] { return scalar(qualified(2, "Temp"), UA_TYPES_QUALIFIEDNAME); }, 0, "2:Temp"},
        {"QualifiedName ns 10", [] { return scalar(qualified(10, "Temp"), UA_TYPES_QUALIFIEDNAME); }, 0,
         "10:Temp"},
        {"QualifiedName empty name", [] { return scalar(qualified(3, ""), UA_TYPES_QUALIFIEDNAME); }, 0, "3:"},
        {"String array",
         [] { return array<UA_String>({ua_string("a"), ua_string("bb"), ua_string("ccc")}, UA_TYPES_STRING); }, 2,
         "ccc"},
        {"LocalizedText array",
         [] { return array<UA_LocalizedText>({localized("en", "one"), localized("de", "zwei")},
                                             UA_TYPES_LOCALIZEDTEXT); },
         1, "zwei"},
        {"QualifiedName array",
         [] { return array<UA_QualifiedName>({qualified(0, "a"), qualified(4, "b")}, UA_TYPES_QUALIFIEDNAME); }, 1,
         "4:b"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const variant_ptr v = c.make();
        EXPECT_EQ(ua::value_kind(*v), data_type::string);
        EXPECT_EQ(ua::to_string_value(*v, c.index), c.expected);
    }
}

struct mismatch_case {
    const char* name;
    std::function<variant_ptr()> make;
    std::function<void(const UA_Variant&)> convert;
    std::string actual;
    std::string expected;
};

TEST(conversions, refuse_another_kind_with_both_names) {
    const std::vector<mismatch_case> cases{
        {"to_integer on Double", [] { return scalar<UA_Double>(1.0, UA_TYPES_DOUBLE); },
         [](const UA_Variant& v) { ua::to_integer(v); }, "floatingpoint", "integer"},
        {"to_double on Int32", [] { return scalar<UA_Int32>(1, UA_TYPES_INT32); },
         [](const UA_Variant& v) { ua::to_double(v); }, "integer", "floatingpoint"},
        {"to_boolean on String", [] { return scalar(ua_string("true"), UA_TYPES_STRING); },
         [](const UA_Variant& v) { ua::to_boolean(v); }, "string", "boolean"},
        {"to_string_value on Int64", [] { return scalar<UA_Int64>(5, UA_TYPES_INT64); },
         [](const UA_Variant& v) { ua::to_string_value(v); }, "integer", "string"},
        {"to_integer on QualifiedName", [] { return scalar(qualified(1, "5"), UA_TYPES_QUALIFIEDNAME); },
         [](const UA_Variant& v) { ua::to_integer(v); }, "string", "integer"},
        {"check_data_type on Float array", [] { return array<UA_Float>({1.0f}, UA_TYPES_FLOAT); },
         [](const UA_Variant& v) { ua::check_data_type(v, data_type::boolean); }, "floatingpoint", "boolean"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const variant_ptr v = c.make();
        try {
            c.convert(*v);
            ADD_FAILURE() << "nothing raised";
        } catch (const ex::data_type_mismatch& e) {
            EXPECT_EQ(std::string(e.what()), "DataType mismatch. The DataType of the value is (" + c.actual +
                                                 "). The expected DataType is (" + c.expected + ").");
        }
    }
}

TEST(value_kind, refuses_types_outside_the_four_kinds) {
    UA_Guid guid = UA_GUID("09087e75-8e5e-499b-954f-f2a9603db28a");
    UA_ByteString bytes = ua_string("\x01\x02");
    UA_StatusCode status = UA_STATUSCODE_BADTIMEOUT;
    UA_NodeId node = UA_NODEID_NUMERIC(0, 85);
    UA_ServerState state = UA_SERVERSTATE_RUNNING;
    UA_Range range{0.0, 1.0};
    UA_DataValue data_value;
    UA_DataValue_init(&data_value);
    UA_DiagnosticInfo diagnostic;
    UA_DiagnosticInfo_init(&diagnostic);

    std::vector<std::pair<const char*, variant_ptr>> cases;
    cases.emplace_back("Guid", scalar(guid, UA_TYPES_GUID));
    cases.emplace_back("ByteString", scalar(bytes, UA_TYPES_BYTESTRING));
    cases.emplace_back("XmlElement", scalar(bytes, UA_TYPES_XMLELEMENT));
    cases.emplace_back("StatusCode", scalar(status, UA_TYPES_STATUSCODE));
    cases.emplace_back("NodeId", scalar(node, UA_TYPES_NODEID));
    cases.emplace_back("enumeration ServerState", scalar(state, UA_TYPES_SERVERSTATE));
    cases.emplace_back("structure Range", scalar(range, UA_TYPES_RANGE));
    cases.emplace_back("DataValue", scalar(data_value, UA_TYPES_DATAVALUE));
    cases.emplace_back("DiagnosticInfo", scalar(diagnostic, UA_TYPES_DIAGNOSTICINFO));
    cases.emplace_back("Guid array", array<UA_Guid>({guid, guid}, UA_TYPES_GUID));
    for (const auto& [name, v] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(message_of<ex::unsupported_data_type>([&] { ua::value_kind(*v); }),
                  "A provided node has an unsupported DataType.");
        // The kind test comes before any read, so no conversion gets at the bytes.
        EXPECT_THROW(ua::to_integer(*v), ex::unsupported_data_type);
        EXPECT_THROW(ua::to_double(*v), ex::unsupported_data_type);
        EXPECT_THROW(ua::to_boolean(*v), ex::unsupported_data_type);
        EXPECT_THROW(ua::to_string_value(*v), ex::unsupported_data_type);
    }
}

TEST(conversions, empty_variant_is_not_set_except_for_strings) {
    const variant_ptr v = empty_variant();
    EXPECT_EQ(message_of<ex::value_not_set>([&] { ua::value_kind(*v); }), "No Value is set.");
    EXPECT_THROW(ua::check_scalar(*v), ex::value_not_set);
    EXPECT_THROW(ua::check_array(*v), ex::value_not_set);
    EXPECT_THROW(ua::check_data_type(*v, data_type::string), ex::value_not_set);
    EXPECT_THROW(ua::to_boolean(*v), ex::value_not_set);
    EXPECT_THROW(ua::to_integer(*v, 3), ex::value_not_set);
    EXPECT_THROW(ua::to_double(*v), ex::value_not_set);
    EXPECT_EQ(ua::to_string_value(*v), "");
    EXPECT_EQ(ua::to_string_value(*v, 7), "");
}

TEST(shape, scalar_array_and_empty_array) {
    const variant_ptr s = scalar<UA_Int32>(1, UA_TYPES_INT32);
    const variant_ptr a = array<UA_Int32>({1, 2}, UA_TYPES_INT32);
    const variant_ptr e = empty_array(UA_TYPES_INT32);

    EXPECT_NO_THROW(ua::check_scalar(*s));
    EXPECT_EQ(message_of<ex::value_not_scalar>([&] { ua::check_scalar(*a); }),
              "The value of the variable on the targeted OPC UA server is non-scalar. If you want to access the "
              "values of an array, use the following syntax: '<node-id>'[<index>].");
    EXPECT_THROW(ua::check_scalar(*e), ex::value_not_scalar);

    EXPECT_EQ(message_of<ex::not_an_array>([&] { ua::check_array(*s); }),
              "The entered syntax indicates an array but the value of the variable on the targeted OPC UA server "
              "is scalar. Adjust the syntax to match the targeted variable.");
    EXPECT_NO_THROW(ua::check_array(*a));
    EXPECT_NO_THROW(ua::check_array(*e));
    EXPECT_EQ(ua::value_kind(*e), data_type::integer);

    // A type without data is a missing array, not a scalar, and has no element to read.
    const variant_ptr missing = empty_variant();
    UA_Variant_setArray(missing.get(), nullptr, 0, &UA_TYPES[UA_TYPES_INT32]);
    EXPECT_THROW(ua::check_scalar(*missing), ex::value_not_scalar);
    EXPECT_NO_THROW(ua::check_array(*missing));
    EXPECT_THROW(ua::to_integer(*missing), ex::index_out_of_bounds);
}

TEST(check_index, zero_always_passes_then_scalar_then_bounds) {
    const variant_ptr s = scalar<UA_Int32>(1, UA_TYPES_INT32);
    const variant_ptr five = array<UA_Int32>({1, 2, 3, 4, 5}, UA_TYPES_INT32);
    const variant_ptr e = empty_array(UA_TYPES_INT32);

    EXPECT_NO_THROW(ua::check_index(*s, 0));
    EXPECT_THROW(ua::check_index(*s, 3), ex::not_an_array);
    EXPECT_NO_THROW(ua::check_index(*e, 0));
    EXPECT_NO_THROW(ua::check_index(*five, 4));
    EXPECT_EQ(message_of<ex::index_out_of_bounds>([&] { ua::check_index(*five, 5); }),
              "KOLV tried to access index 5 in an array with only 5 elements.");
    EXPECT_EQ(message_of<ex::index_out_of_bounds>([&] { ua::check_index(*e, 1); }),
              "KOLV tried to access index 1 in an array with only 0 elements.");
    EXPECT_EQ(message_of<ex::index_out_of_bounds>(
                  [&] { ua::check_index(*five, std::numeric_limits<std::uint64_t>::max()); }),
              "KOLV tried to access index 18446744073709551615 in an array with only 5 elements.");
}

TEST(conversions, test_kind_before_index_before_value) {
    const variant_ptr d = scalar<UA_Double>(1.0, UA_TYPES_DOUBLE);
    EXPECT_THROW(ua::to_integer(*d, 3), ex::data_type_mismatch);
    const variant_ptr i = scalar<UA_Int32>(1, UA_TYPES_INT32);
    EXPECT_THROW(ua::to_integer(*i, 3), ex::not_an_array);
    const variant_ptr big = array<UA_UInt64>({9223372036854775808ULL}, UA_TYPES_UINT64);
    EXPECT_THROW(ua::to_integer(*big, 1), ex::index_out_of_bounds);
    const variant_ptr names = array<UA_QualifiedName>({qualified(1, "a")}, UA_TYPES_QUALIFIEDNAME);
    EXPECT_THROW(ua::to_string_value(*names, 1), ex::index_out_of_bounds);
}

TEST(conversions, index_zero_on_empty_array_is_refused_not_read) {
    for (std::size_t type : {UA_TYPES_BOOLEAN, UA_TYPES_INT64, UA_TYPES_DOUBLE, UA_TYPES_STRING}) {
        SCOPED_TRACE(UA_TYPES[type].typeName);
        const variant_ptr e = empty_array(type);
        const auto expect_refused = [&](auto convert) {
            EXPECT_EQ(message_of<ex::index_out_of_bounds>(convert),
                      "KOLV tried to access index 0 in an array with only 0 elements.");
        };
        switch (ua::value_kind(*e)) {
            case data_type::boolean: expect_refused([&] { ua::to_boolean(*e); }); break;
            case data_type::integer: expect_refused([&] { ua::to_integer(*e); }); break;
            case data_type::floatingpoint: expect_refused([&] { ua::to_double(*e); }); break;
            case data_type::string: expect_refused([&] { ua::to_string_value(*e); }); break;
        }
    }
}

TEST(data_type_name, names_the_four_kinds_by_number) {
    const std::vector<std::pair<std::int32_t, std::string>> cases{
        {0, "boolean"}, {1, "string"}, {2, "integer"}, {3, "floatingpoint"}, {4, "undefined"}, {-1, "undefined"},
    };
    for (const auto& [number, name] : cases) {
        EXPECT_EQ(ua::data_type_name(static_cast<data_type>(number)), name) << number;
    }
}

}  // namespace
