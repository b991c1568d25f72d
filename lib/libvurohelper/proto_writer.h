#pragma once

// Library-internal.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace brenholt::monitoring_modules::libvurohelper::detail {

// Writes protobuf's wire format by hand, for the messages sent at every scan, into a
// buffer the caller has sized with the bounds below. Fields are written in the order of
// their numbers and left out at their default, as protobuf does.
class proto_writer {
public:
    enum wire_type { varint_type = 0, fixed64_type = 1, length_delimited = 2 };
    // A tag of a field number below 16, and the longest varint.
    static constexpr std::size_t max_tag = 1;
    static constexpr std::size_t max_varint = 10;
    static constexpr std::size_t max_number_field = max_tag + max_varint;

    explicit proto_writer(char* out) : at_(out) {}
    char* position() const { return at_; }

    static std::size_t varint_size(std::uint64_t value) {
        std::size_t n = 1;
        for (; value >= 0x80; value >>= 7) ++n;
        return n;
    }
    void varint(std::uint64_t value) {
        while (value >= 0x80) {
            *at_++ = static_cast<char>(value | 0x80);
            value >>= 7;
        }
        *at_++ = static_cast<char>(value);
    }
    void tag(int field, wire_type type) { varint(static_cast<std::uint64_t>(field) << 3 | type); }
    // int32, int64 and enumerations: a negative number takes ten bytes, as in protobuf.
    void int_field(int field, std::int64_t value, bool always = false) {
        if (value == 0 && !always) return;
        tag(field, varint_type);
        varint(static_cast<std::uint64_t>(value));
    }
    void double_field(int field, double value, bool always = false) {
        std::uint64_t raw;
        std::memcpy(&raw, &value, sizeof raw);
        if (raw == 0 && !always) return;
        tag(field, fixed64_type);
        for (int i = 0; i < 8; ++i) *at_++ = static_cast<char>(raw >> (8 * i));
    }
    // The length of a string field, tag included; 0 for an empty one, which is left out.
    static std::size_t string_field_size(const std::string& value) {
        return value.empty() ? 0 : max_tag + varint_size(value.size()) + value.size();
    }
    void string_field(int field, const std::string& value) {
        if (value.empty()) return;
        tag(field, length_delimited);
        varint(value.size());
        std::memcpy(at_, value.data(), value.size());
        at_ += value.size();
    }
    // The head of a nested message of `size` bytes; its fields follow.
    void message_head(int field, std::size_t size) {
        tag(field, length_delimited);
        varint(size);
    }

private:
    char* at_;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::detail
