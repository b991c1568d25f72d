#include "client/stack_line_format.h"

#include <cstdint>
#include <cstring>

namespace brenholt::monitoring_modules::opcua {

namespace {

// Writes `text` of `length` bytes right-aligned in `width`, padded with `pad`.
bool put(char*& out, char* end, const char* text, std::size_t length, std::size_t width, char pad) {
    const std::size_t fill = width > length ? width - length : 0;
    if (static_cast<std::size_t>(end - out) < fill + length) return false;
    for (std::size_t i = 0; i < fill; ++i) *out++ = pad;
    std::memcpy(out, text, length);
    out += length;
    return true;
}

// Digits of `value` in `base`, written backwards from `last`; returns the first digit.
char* digits(std::uintmax_t value, unsigned base, bool upper, char* last) {
    const char* set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    do {
        *--last = set[value % base];
        value /= base;
    } while (value != 0);
    return last;
}

enum class length_modifier { none, hh, h, l, ll, j, z, t };

std::intmax_t signed_argument(va_list& args, length_modifier length) {
    switch (length) {
        case length_modifier::hh: return static_cast<signed char>(va_arg(args, int));
        case length_modifier::h: return static_cast<short>(va_arg(args, int));
        case length_modifier::l: return va_arg(args, long);
        case length_modifier::ll: return va_arg(args, long long);
        case length_modifier::j: return va_arg(args, std::intmax_t);
        case length_modifier::z: return va_arg(args, std::ptrdiff_t);  // the signed size_t
        case length_modifier::t: return va_arg(args, std::ptrdiff_t);
        case length_modifier::none: break;
    }
    return va_arg(args, int);
}

std::uintmax_t unsigned_argument(va_list& args, length_modifier length) {
    switch (length) {
        case length_modifier::hh: return static_cast<unsigned char>(va_arg(args, unsigned));
        case length_modifier::h: return static_cast<unsigned short>(va_arg(args, unsigned));
        case length_modifier::l: return va_arg(args, unsigned long);
        case length_modifier::ll: return va_arg(args, unsigned long long);
        case length_modifier::j: return va_arg(args, std::uintmax_t);
        case length_modifier::z: return va_arg(args, std::size_t);
        case length_modifier::t: return static_cast<std::uintmax_t>(va_arg(args, std::ptrdiff_t));
        case length_modifier::none: break;
    }
    return va_arg(args, unsigned);
}

}  // namespace

int format_stack_line(char* out, std::size_t room, const char* format, va_list caller_args) {
    if (room == 0) return -1;
    // A copy of its own, which the helpers take by reference.
    struct argument_list {
        va_list list;
        explicit argument_list(va_list from) { va_copy(list, from); }
        ~argument_list() { va_end(list); }
    } own(caller_args);
    va_list& args = own.list;
    char* const begin = out;
    // One byte stays free for the terminating zero.
    char* const end = out + room - 1;
    const char* f = format;
    while (*f != '\0') {
        if (*f != '%') {
            const char* next = std::strchr(f, '%');
            const std::size_t length = next != nullptr ? static_cast<std::size_t>(next - f) : std::strlen(f);
            if (!put(out, end, f, length, 0, ' ')) return -1;
            f += length;
            continue;
        }
        ++f;
        if (*f == '%') {
            if (!put(out, end, "%", 1, 0, ' ')) return -1;
            ++f;
            continue;
        }
        char pad = ' ';
        if (*f == '0') {
            pad = '0';
            ++f;
        }
        if (*f == '-' || *f == '+' || *f == ' ' || *f == '#' || *f == '*') return -1;
        std::size_t width = 0;
        while (*f >= '0' && *f <= '9') width = width * 10 + static_cast<std::size_t>(*f++ - '0');
        if (width > 64) return -1;
        bool has_precision = false;
        int precision = 0;
        if (*f == '.') {
            has_precision = true;
            ++f;
            if (*f == '*') {
                precision = va_arg(args, int);
                // A negative precision counts as none.
                if (precision < 0) has_precision = false;
                ++f;
            } else {
                while (*f >= '0' && *f <= '9') {
                    precision = precision * 10 + (*f++ - '0');
                    if (precision > 1 << 20) return -1;
                }
            }
        }
        length_modifier length = length_modifier::none;
        switch (*f) {
            case 'h':
                length = f[1] == 'h' ? length_modifier::hh : length_modifier::h;
                f += f[1] == 'h' ? 2 : 1;
                break;
            case 'l':
                length = f[1] == 'l' ? length_modifier::ll : length_modifier::l;
                f += f[1] == 'l' ? 2 : 1;
                break;
            case 'j': length = length_modifier::j; ++f; break;
            case 'z': length = length_modifier::z; ++f; break;
            case 't': length = length_modifier::t; ++f; break;
            default: break;
        }
        const char conversion = *f++;
        char number[72];
        char* const last = number + sizeof number;
        switch (conversion) {
            case 'd':
            case 'i': {
                if (has_precision) return -1;
                const std::intmax_t value = signed_argument(args, length);
                const std::uintmax_t magnitude =
                    value < 0 ? static_cast<std::uintmax_t>(0) - static_cast<std::uintmax_t>(value)
                              : static_cast<std::uintmax_t>(value);
                char* first = digits(magnitude, 10, false, last);
                if (value < 0) {
                    // The sign goes before zeros of the padding, after blanks.
                    if (pad == '0') {
                        if (!put(out, end, "-", 1, 0, ' ')) return -1;
                        if (width > 0) --width;
                    } else {
                        *--first = '-';
                    }
                }
                if (!put(out, end, first, static_cast<std::size_t>(last - first), width, pad)) return -1;
                break;
            }
            case 'u':
            case 'x':
            case 'X': {
                if (has_precision) return -1;
                const std::uintmax_t value = unsigned_argument(args, length);
                const char* first = digits(value, conversion == 'u' ? 10 : 16, conversion == 'X', last);
                if (!put(out, end, first, static_cast<std::size_t>(last - first), width, pad)) return -1;
                break;
            }
            case 'c': {
                if (has_precision || length != length_modifier::none || pad == '0') return -1;
                const char c = static_cast<char>(va_arg(args, int));
                if (!put(out, end, &c, 1, width, ' ')) return -1;
                break;
            }
            case 's': {
                if (length != length_modifier::none || pad == '0') return -1;
                const char* text = va_arg(args, const char*);
                if (text == nullptr) {
                    // What glibc prints for a null string: nothing when the precision
                    // leaves less room than the word.
                    text = has_precision && precision < 6 ? "" : "(null)";
                }
                const std::size_t length_of_text =
                    has_precision ? strnlen(text, static_cast<std::size_t>(precision)) : std::strlen(text);
                if (!put(out, end, text, length_of_text, width, ' ')) return -1;
                break;
            }
            default:
                return -1;
        }
    }
    *out = '\0';
    return static_cast<int>(out - begin);
}

}  // namespace brenholt::monitoring_modules::opcua
