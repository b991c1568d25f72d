// The client's parts that need no server: NodeID texts, value conversion, and the
// formatter of the stack's log lines.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstring>

#include "client/exceptions.h"
#include "client/node_id.h"
#include "client/stack_line_format.h"
#include "client/value_conversion.h"

namespace {

namespace ua = ::brenholt::monitoring_modules::opcua;

// What f returns, or how it fails: the message key of one of our exceptions (which names
// the class and its arguments), else what().
std::string outcome(const std::function<std::string()>& f) {
    try {
        return f();
    } catch (const ::brenholt::monitoring_modules::libi18n::i18n_exception& e) {
        return e.get_i18n_msg().key;
    } catch (const std::exception& e) {
        return e.what();
    }
}

std::string replace_all(std::string text, char from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) text.replace(at, 1, to);
    return text;
}

const std::string bad_decoding = ",BadDecodingError]";

TEST(node_id, texts_the_library_reads_render_without_namespace) {
    const std::pair<std::string, std::string> cases[] = {
        {"ns=1;s=Temp", "1 s=Temp"},
        {"ns=1;s=", "1 s="},
        // A zero byte ends the text.
        {std::string("ns=3;s=abc\0def", 14), "3 s=abc"},
        {"ns=1;g=09087e75-8e5e-499b-954f-f2a9603db28a", "#:error.unsupported_identifier_type[]"},
        {"ns=1;x=Temp", "#:error.failed_to_parse_node_id[ns=1;x=Temp" + bad_decoding},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(outcome([&] {
                      const ua::node_id_ptr id = ua::parse_node_id(text);
                      return std::to_string(id->namespaceIndex) + " " + ua::identifier_text(*id);
                  }),
                  expected);
}

// Length changes nothing: each shape is tried short, with "@" as "Temp" and "~" as nothing,
// and long, with a mebibyte of letters and of zeros in their places. The long text ends
// as its short form does, in a result or the usual refusal, never by exhausting the stack.
TEST(node_id, array_access_ends_alike_at_any_length) {
    const std::pair<std::string, std::string> parsed[] = {
        {"'ns=1;s=@'[~0]", "s=@ 0"},
        {"\"ns=1;s=it's @\"[12]", "s=it's @ 12"},
        {"'ns=1;s=say \"@\"'[~2]", "s=say \"@\" 2"},
        {"'ns=1;s=[@]'[9]", "s=[@] 9"},
        {"'i=85'[007]", "i=85 7"},
        {"'ns=2;i=1'[~9223372036854775807]", "i=1 9223372036854775807"},
        // The inner id is named without its quotes, and a bad id wins over a bad index.
        {"\"ns=1;x=@\"[12345678901234567890]", "#:error.failed_to_parse_node_id[ns=1;x=@" + bad_decoding},
        {"'@'[1]", "#:error.failed_to_parse_node_id[@" + bad_decoding},
        {"'i=85'[9223372036854775808~]", "stol"},
    };
    const char* const refused[] = {
        "ns=1;s=@", "ns=1;s=@[1]", "@[1]", "'ns=1;s=@'", "'ns=1;s=@\"[1]", "\"ns=1;s=@[1]", "''[1]", "'ns=1;s=@'[]",
        "'ns=1;s=@'[-1]", "'ns=1;s=@'[+1]", "'ns=1;s=@'[ 1]", "'ns=1;s=@'[1] ", "'ns=1;s=@'[1]\n", "'i=85'[1]@",
        "'ns=1;s=@'[1][2]", "'ns=1;s=@'[0x1]", "'ns=1;s=it's@'[1]", "''@'[1]", ""};
    for (const auto& [letters, zeros] : {std::pair<std::string, std::string>{"Temp", ""}, {std::string(1u << 20, 'a'), std::string(1u << 20, '0')}}) {
        const auto fill = [&](const std::string& shape) { return replace_all(replace_all(shape, '@', letters), '~', zeros); };
        const auto read = [](const std::string& text) {
            return outcome([&] {
                const ua::array_access access = ua::parse_array_access(text);
                return ua::identifier_text(*access.first) + " " + std::to_string(access.second);
            });
        };
        for (const auto& [shape, expected] : parsed) EXPECT_EQ(read(fill(shape)), fill(expected)) << shape;
        for (const std::string shape : refused)
            EXPECT_EQ(read(fill(shape)).rfind("#:error.invalid_array_syntax[", 0), 0u) << shape;
    }
}

using variant_ptr = std::unique_ptr<UA_Variant, decltype(&UA_Variant_delete)>;

template <typename T>
variant_ptr scalar(const T& value, std::size_t type) {
    variant_ptr v(UA_Variant_new(), &UA_Variant_delete);
    EXPECT_EQ(UA_Variant_setScalarCopy(v.get(), &value, &UA_TYPES[type]), UA_STATUSCODE_GOOD);
    return v;
}

// An initializer list rather than a vector, whose bool form has no contiguous storage. No
// values give an empty array as the decoder delivers it, its data at the library's sentinel.
template <typename T = UA_Byte>
variant_ptr array(std::size_t type, std::initializer_list<T> values = {}) {
    variant_ptr v(UA_Variant_new(), &UA_Variant_delete);
    if (values.size() == 0) UA_Variant_setArray(v.get(), UA_EMPTY_ARRAY_SENTINEL, 0, &UA_TYPES[type]);
    else EXPECT_EQ(UA_Variant_setArrayCopy(v.get(), values.begin(), values.size(), &UA_TYPES[type]), UA_STATUSCODE_GOOD);
    return v;
}

// Points at the characters only; the variants copy them deeply.
UA_String ua_string(const char* chars, std::size_t length) {
    return {length, length == 0 ? nullptr : reinterpret_cast<UA_Byte*>(const_cast<char*>(chars))};
}
UA_QualifiedName qualified(UA_UInt16 ns, const char* name) { return {ns, ua_string(name, std::strlen(name))}; }

enum reader { as_its_kind, as_integer, as_boolean, as_string, check_scalar, check_array, check_index };

// A reader's result: for as_its_kind the kind and the value read as that kind.
std::string read(const UA_Variant& v, reader r, std::uint64_t index) {
    std::ostringstream out;
    out.precision(17);
    const ua::data_type kind = r == as_its_kind ? ua::value_kind(v) : ua::data_type::integer;
    if (r == as_its_kind) out << ua::data_type_name(kind) << " " << std::boolalpha;
    if (r == as_integer || (r == as_its_kind && kind == ua::data_type::integer)) out << ua::to_integer(v, index);
    if (r == as_its_kind && kind == ua::data_type::floatingpoint) out << ua::to_double(v, index);
    if (r == as_boolean || (r == as_its_kind && kind == ua::data_type::boolean)) out << ua::to_boolean(v, index);
    if (r == as_string || (r == as_its_kind && kind == ua::data_type::string)) out << ua::to_string_value(v, index);
    if (r == check_scalar) { ua::check_scalar(v); out << "scalar"; }
    if (r == check_array) { ua::check_array(v); out << "array"; }
    if (r == check_index) { ua::check_index(v, index); out << "in range"; }
    return out.str();
}

TEST(value_conversion, kinds_values_shapes_and_refusals) {
    UA_EnumValueType seven;
    UA_EnumValueType_init(&seven);
    seven.value = -7;
    const UA_UInt64 above_int64 = 9223372036854775808ULL;
    const std::string mismatch = "#:error.data_type_mismatch[", unsupported = "#:error.unsupported_data_type[]",
                      not_set = "#:error.value_not_set[]", bounds = "#:error.index_out_of_bounds[",
                      not_scalar = "#:error.value_not_scalar[]", not_array = "#:error.not_an_array[]";
    const struct { const char* name; variant_ptr v; reader r; std::uint64_t index; std::string expected; } cases[] = {
        // The ends of the ranges; the end-to-end suites read every kind at ordinary values.
        {"Int64 min", scalar<UA_Int64>(INT64_MIN, UA_TYPES_INT64), as_its_kind, 0, "integer -9223372036854775808"},
        {"UInt64 array past it", array<UA_UInt64>(UA_TYPES_UINT64, {1, above_int64}), as_integer, 1, "#:error.value_overflow[]"},
        // DateTime counts 100 ns steps; whole seconds, truncated toward zero.
        {"DateTime -1", scalar<UA_DateTime>(-1, UA_TYPES_DATETIME), as_its_kind, 0, "integer 0"},
        {"EnumValueType", scalar(seven, UA_TYPES_ENUMVALUETYPE), as_its_kind, 0, "integer -7"},
        {"Float NaN", scalar<UA_Float>(NAN, UA_TYPES_FLOAT), as_its_kind, 0, "floatingpoint nan"},
        {"Boolean array", array<UA_Boolean>(UA_TYPES_BOOLEAN, {false, true}), as_its_kind, 1, "boolean true"},
        {"String with a zero", scalar(ua_string("a\0b", 3), UA_TYPES_STRING), as_its_kind, 0, std::string("string a\0b", 10)},
        {"null String", scalar(UA_STRING_NULL, UA_TYPES_STRING), as_its_kind, 0, "string "},
        // A qualified name carries its namespace unless it is 0.
        {"QualifiedName", scalar(qualified(0, "Temp"), UA_TYPES_QUALIFIEDNAME), as_its_kind, 0, "string Temp"},
        {"QualifiedName ns 10", scalar(qualified(10, "Temp"), UA_TYPES_QUALIFIEDNAME), as_its_kind, 0, "string 10:Temp"},
        {"QualifiedName array", array(UA_TYPES_QUALIFIEDNAME, {qualified(0, "a"), qualified(4, "b")}), as_string, 1, "4:b"},
        // Another kind is refused with both names.
        {"Double as integer", scalar<UA_Double>(1.0, UA_TYPES_DOUBLE), as_integer, 0, mismatch + "floatingpoint,integer]"},
        {"String as boolean", scalar(ua_string("true", 4), UA_TYPES_STRING), as_boolean, 0, mismatch + "string,boolean]"},
        {"Int64 as string", scalar<UA_Int64>(5, UA_TYPES_INT64), as_string, 0, mismatch + "integer,string]"},
        // Types outside the four kinds (a Guid, a StatusCode, a structure) are refused before any read.
        {"Guid", scalar(UA_GUID("09087e75-8e5e-499b-954f-f2a9603db28a"), UA_TYPES_GUID), as_its_kind, 0, unsupported},
        {"StatusCode", scalar<UA_StatusCode>(UA_STATUSCODE_BADTIMEOUT, UA_TYPES_STATUSCODE), as_integer, 0, unsupported},
        {"Range", scalar(UA_Range{0.0, 1.0}, UA_TYPES_RANGE), as_string, 0, unsupported},
        // An empty variant has no value, except as a string.
        {"empty", variant_ptr(UA_Variant_new(), &UA_Variant_delete), as_its_kind, 0, not_set},
        {"empty", variant_ptr(UA_Variant_new(), &UA_Variant_delete), check_array, 0, not_set},
        {"empty", variant_ptr(UA_Variant_new(), &UA_Variant_delete), as_integer, 3, not_set},
        {"empty", variant_ptr(UA_Variant_new(), &UA_Variant_delete), as_string, 7, ""},
        {"scalar", scalar<UA_Int32>(1, UA_TYPES_INT32), check_array, 0, not_array},
        {"five", array<UA_Int32>(UA_TYPES_INT32, {1, 2, 3, 4, 5}), check_scalar, 0, not_scalar},
        {"no elements", array(UA_TYPES_INT32), check_scalar, 0, not_scalar},
        {"no elements", array(UA_TYPES_INT32), check_array, 0, "array"},
        // Index 0 passes the scalar test (as every scalar read shows), a higher one does not; then the bounds.
        {"scalar", scalar<UA_Int32>(1, UA_TYPES_INT32), check_index, 3, not_array},
        {"five", array<UA_Int32>(UA_TYPES_INT32, {1, 2, 3, 4, 5}), check_index, 5, bounds + "5,5]"},
        {"five", array<UA_Int32>(UA_TYPES_INT32, {1, 2, 3, 4, 5}), check_index, UINT64_MAX, bounds + "18446744073709551615,5]"},
        // The kind is tested before the index, the index before the value.
        {"Double at 3", scalar<UA_Double>(1.0, UA_TYPES_DOUBLE), as_integer, 3, mismatch + "floatingpoint,integer]"},
        {"UInt64 past at 1", array<UA_UInt64>(UA_TYPES_UINT64, {above_int64}), as_integer, 1, bounds + "1,1]"},
        // An empty array has no element 0 to read, whatever its kind.
        {"no Double", array(UA_TYPES_DOUBLE), as_its_kind, 0, bounds + "0,0]"},
    };
    for (const auto& c : cases) EXPECT_EQ(outcome([&] { return read(*c.v, c.r, c.index); }), c.expected) << c.name;
}

// The stack's log lines are expanded by our own formatter: whatever it takes on, it
// must write exactly what vsnprintf writes, and what it does not take on it must refuse.
struct both { int ours; std::string ours_text, libc_text; };

both expand(std::size_t room, const char* format, ...) {
    char ours[256], libc[256];
    va_list args;
    va_start(args, format);
    const int n = ua::format_stack_line(ours, room, format, args);
    // The formatter leaves the caller's list as it was.
    std::vsnprintf(libc, sizeof libc, format, args);
    va_end(args);
    return {n, n >= 0 ? std::string(ours, static_cast<std::size_t>(n)) : std::string(), libc};
}

#define SAME_AS_LIBC(...)                                      \
    do {                                                       \
        const both r = expand(256, __VA_ARGS__);               \
        EXPECT_GE(r.ours, 0) << #__VA_ARGS__;                  \
        EXPECT_EQ(r.ours_text, r.libc_text) << #__VA_ARGS__;   \
    } while (0)

TEST(stack_line_format, writes_what_vsnprintf_writes) {
    const char channel_text[] = "ReadRequestTRAILING";
    SAME_AS_LIBC("TCP %lu\t| SC %u\t| Sending request with RequestId %u of type %s%.0s", 5ul, 1u, 9u,
                 "ReadRequest", "");
    SAME_AS_LIBC("%.*s|%.*s|%.*s", 11, channel_text, 0, channel_text, -1, "negative is none");
    SAME_AS_LIBC("%d %i %d %i", 0, -1, INT_MIN, INT_MAX);
    SAME_AS_LIBC("%ld %lld %lu %llu %zu %zd %jd %td", LONG_MIN, LLONG_MIN, ULONG_MAX, ULLONG_MAX, SIZE_MAX,
                 static_cast<std::ptrdiff_t>(-7), INTMAX_MIN, static_cast<std::ptrdiff_t>(-3));
    SAME_AS_LIBC("%hd %hu %hhd %hhu", 70000, 70000, 300, 300);
    SAME_AS_LIBC("%x %X %02x %02x %lx", 255u, 255u, 7u, 0xabcu, 0xdeadbeefcafeul);
    SAME_AS_LIBC("%02u:%03u.%04u %5u %05d %5d %05d", 7u, 42u, 9u, 12u, -42, -42, 123456);
    SAME_AS_LIBC("%c%c %3s|%s|%.3s|%.8s", 'o', 'k', "ab", static_cast<const char*>(nullptr),
                 static_cast<const char*>(nullptr), static_cast<const char*>(nullptr));
    SAME_AS_LIBC("100%% done, no conversion at all");
    SAME_AS_LIBC("");
}

TEST(stack_line_format, refuses_what_it_does_not_know_and_what_does_not_fit) {
    for (const both& r : {expand(256, "%f", 1.5), expand(256, "%p", static_cast<void*>(nullptr)),
                          expand(256, "%-5d|", 3), expand(256, "%+05d", 3), expand(256, "%m"),
                          expand(256, "%.3d", 3), expand(256, "%q")})
        EXPECT_EQ(r.ours, -1) << r.libc_text;
    // Eleven characters and the zero need twelve bytes.
    EXPECT_EQ(expand(12, "%s world", "hello").ours, 11);
    EXPECT_EQ(expand(11, "%s world", "hello").ours, -1);
    EXPECT_EQ(expand(4, "%05u", 1u).ours, -1);
}

}  // namespace
