// The stack's log lines are expanded by our own formatter: whatever it takes on, it
// must write exactly what vsnprintf writes, and what it does not take on it must refuse.
#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>

#include "client/stack_line_format.h"

namespace {

using brenholt::monitoring_modules::opcua::format_stack_line;

struct both {
    int ours;
    std::string ours_text;
    std::string libc_text;
};

both expand(std::size_t room, const char* format, ...) {
    char ours[256];
    char libc[256];
    va_list args;
    va_start(args, format);
    const int n = format_stack_line(ours, room, format, args);
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
