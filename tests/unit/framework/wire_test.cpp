#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "libvurohelper/channels.h"
#include "libvurohelper/exceptions.h"
#include "libvurohelper/messaging.h"
#include "libvurohelper/responses.h"
#include "libvurohelper/settings.h"
#include "vuro.pb.h"

#include <google/protobuf/text_format.h>

namespace {

namespace mm = ::brenholt::monitoring_modules;
namespace vh = mm::libvurohelper;
namespace vx = vh::utils::exceptions;
namespace wire = ::brenholt::vuro::wire;
using vh::messaging::message_type;

// Opens the envelope with the exported classes and checks its type.
template <typename Payload>
Payload decode(const vh::messaging::bytes& data, wire::MessageType type) {
    wire::Envelope envelope;
    EXPECT_TRUE(envelope.ParseFromArray(data.data(), static_cast<int>(data.size())));
    EXPECT_EQ(envelope.type(), type);
    Payload p;
    EXPECT_TRUE(p.ParseFromString(envelope.payload()));
    return p;
}

std::int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::shared_ptr<vh::settings::channel_map> map_with(std::unordered_map<int, std::string> known) {
    auto map = std::make_shared<vh::settings::channel_map>(std::move(known));
    vh::channels::dynamic_channel_options integer;
    integer.id = 1;
    integer.value_mode = vh::channels::value_mode_integer;
    vh::channels::dynamic_channel_options floating;
    floating.id = 2;
    floating.value_mode = vh::channels::value_mode_float;
    vh::channels::dynamic_channel_options counter;
    counter.id = 3;
    counter.value_mode = vh::channels::value_mode_counter;
    map->register_definition(integer);
    map->register_definition(floating);
    map->register_definition(counter);
    return map;
}

TEST(WireTest, SensorScanResultRoundTrip) {
    const std::int64_t before = now_ms();
    vh::responses::sensor_scan_result r(7, map_with({}));
    r.set_response_message(mm::libi18n::i18n_msg("#:k[a]", "text a"))
        .set_error_code(5)
        .set_response_code(vh::responses::scan_response_codes::warning)
        .set_value(1, 42L)
        .set_value(2, 2.5)
        .set_value(3, -9L);
    const auto m = decode<wire::SensorScanResult>(r.serialize(), wire::SENSOR_SCAN_RESULT);
    EXPECT_EQ(m.sensor_id(), 7);
    EXPECT_EQ(m.message().key(), "#:k[a]");
    EXPECT_EQ(m.message().text(), "text a");
    EXPECT_EQ(m.error_code(), 5);
    EXPECT_EQ(m.response_code(), 1);
    EXPECT_GE(m.created_unix_ms(), before);
    EXPECT_LE(m.created_unix_ms(), now_ms());
    ASSERT_EQ(m.channels_size(), 3);
    EXPECT_EQ(m.channels(0).channel_id(), 1);
    EXPECT_EQ(m.channels(0).value_case(), wire::ChannelValue::kInteger);
    EXPECT_EQ(m.channels(0).integer(), 42);
    EXPECT_EQ(m.channels(1).channel_id(), 2);
    EXPECT_EQ(m.channels(1).value_case(), wire::ChannelValue::kFloating);
    EXPECT_EQ(m.channels(1).floating(), 2.5);
    EXPECT_EQ(m.channels(2).integer(), -9);
}

TEST(WireTest, CheckResultAndNotificationResponseRoundTrip) {
    vh::responses::check_result failed(4);
    auto c = decode<wire::CheckResult>(failed.serialize(), wire::CHECK_RESULT);
    EXPECT_EQ(c.check_id(), 4);
    EXPECT_FALSE(c.success());
    vh::responses::check_result passed(9);
    passed.set_success(true);
    c = decode<wire::CheckResult>(passed.serialize(), wire::CHECK_RESULT);
    EXPECT_EQ(c.check_id(), 9);
    EXPECT_TRUE(c.success());

    namespace lg = mm::liblog;
    vh::notifications::response resp({{lg::error, "bad"}, {lg::debug, "trace"}});
    const auto n = decode<wire::NotificationResponse>(resp.serialize(), wire::NOTIFICATION_RESPONSE);
    ASSERT_EQ(n.entries_size(), 2);
    EXPECT_EQ(n.entries(0).severity(), 3);
    EXPECT_EQ(n.entries(0).text(), "bad");
    EXPECT_EQ(n.entries(1).severity(), 7);
    EXPECT_EQ(n.entries(1).text(), "trace");
}

TEST(WireTest, DynamicChannelCarriesEveryOption) {
    vh::channels::dynamic_channel_options o;
    const auto d0 = decode<wire::DynamicChannel>(vh::channels::dynamic_channel(1, o).serialize(), wire::DYNAMIC_CHANNEL);
    EXPECT_TRUE(d0.show_chart());
    EXPECT_TRUE(d0.show_table());
    EXPECT_FALSE(d0.hide_in_table());
    EXPECT_EQ(d0.scale_factor(), 1.0);
    EXPECT_EQ(d0.value_mode(), 1);

    o.id = 12;
    o.name = "channel.days";
    o.display_name = "Days to Expiry";
    o.value_mode = vh::channels::value_mode_counter;
    o.unit = 8;
    o.custom_unit = "d";
    o.volume_size = 1LL << 40;
    o.size_unit = 8;
    o.hide_in_table = true;
    o.show_chart = false;
    o.show_table = false;
    o.decimal_digits = 2.5;
    o.limits_enabled = true;
    o.lower_warning_limit = {true, 28.0};
    o.upper_warning_limit = {true, 300.5};
    o.lower_error_limit = {true, 7.0};
    o.upper_error_limit = {false, 400.0};
    o.limit_warning_message = "warn";
    o.limit_error_message = "err";
    o.lookup = "lookup.state";
    o.spike_filter = 1.25;
    o.scale_factor = 0.5;
    const auto d = decode<wire::DynamicChannel>(vh::channels::dynamic_channel(33, o).serialize(), wire::DYNAMIC_CHANNEL);
    wire::DynamicChannel expected;
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(
        R"(sensor_id: 33 id: 12 name: "channel.days" display_name: "Days to Expiry" value_mode: 2 unit: 8
           custom_unit: "d" volume_size: 1099511627776 size_unit: 8 hide_in_table: true show_chart: false
           show_table: false decimal_digits: 2.5 limits_enabled: true
           lower_warning_limit { is_set: true value: 28 } upper_warning_limit { is_set: true value: 300.5 }
           lower_error_limit { is_set: true value: 7 } upper_error_limit { is_set: false value: 400 }
           limit_warning_message: "warn" limit_error_message: "err" lookup: "lookup.state"
           spike_filter: 1.25 scale_factor: 0.5)",
        &expected));
    EXPECT_EQ(d.DebugString(), expected.DebugString());
}

TEST(WireTest, ModuleInformationWithAndWithoutTexts) {
    const std::string def =
        R"({"Revision":3,"MetaData":{"z":1,"a":{"Text":"nested"}},"Text":{"en":{"k":"v"}},"Sensors":[],"Lookups":{}})";
    auto full = decode<wire::ModuleInformation>(vh::messaging::module_information_message(def, true).serialize(),
                                                wire::MODULE_INFORMATION);
    EXPECT_EQ(full.definition(), def);
    EXPECT_TRUE(full.include_texts());
    auto slim = decode<wire::ModuleInformation>(vh::messaging::module_information_message(def, false).serialize(),
                                                wire::MODULE_INFORMATION);
    // Only the top-level Text goes; the order of the other keys stays.
    EXPECT_EQ(slim.definition(), R"({"Revision":3,"MetaData":{"z":1,"a":{"Text":"nested"}},"Sensors":[],"Lookups":{}})");
    EXPECT_FALSE(slim.include_texts());
    EXPECT_THROW(vh::messaging::module_information_message("{not json", false).serialize(),
                 vx::create_protobuf_from_json_failed);
}

TEST(WireTest, SizeLimitIsExact) {
    const std::size_t max = vh::messaging::max_message_size;
    // Envelope overhead for a payload of this size: type (2) + tag (1) + 4-byte length.
    EXPECT_EQ(vh::messaging::wrap(message_type::check_result, std::string(max - 7, 'x')).size(), max);
    try {
        vh::messaging::wrap(message_type::check_result, std::string(max - 6, 'x'));
        FAIL() << "no exception";
    } catch (const vx::message_too_long& e) {
        EXPECT_EQ(std::string(e.what()), "The Message with size " + std::to_string(max + 1) +
                                             " bytes is larger than the maximum allowed length of " +
                                             std::to_string(max) + " bytes.");
    }
    EXPECT_THROW(vh::messaging::module_information_message(std::string(max, 'd'), true).serialize(),
                 vx::message_too_long);
}

TEST(WireTest, MessageServiceDeliversTheSerialisedBytesOnce) {
    std::vector<vh::messaging::bytes> delivered;
    vh::messaging::message_service service([&](void* data, unsigned long size) {
        auto* p = static_cast<std::uint8_t*>(data);
        delivered.emplace_back(p, p + size);
    });
    vh::responses::check_result r(2);
    r.set_success(true);
    service.send(r);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(delivered[0], r.serialize());
}

vh::messaging::bytes sensor_data_bytes() {
    wire::SensorData sd;
    sd.set_kind("test_sensor");
    (*sd.mutable_settings())["host"] = "plc.local";
    (*sd.mutable_secure_settings())["credentials.user.password"] = "s3cr3t-Pa55";
    (*sd.mutable_channels())[4] = "channel.known";
    (*sd.mutable_persistent_data())["last"] = "17";
    return vh::messaging::wrap(message_type::sensor_data, sd.SerializeAsString());
}

TEST(SensorDataTest, GarbageBytesAreRefused) {
    const unsigned char garbage[] = {0xff, 0xff, 0xff};
    try {
        vh::messaging::unwrap(garbage, sizeof garbage, message_type::sensor_data);
        FAIL() << "no exception";
    } catch (const vx::message_deserialization_failed& e) {
        EXPECT_STREQ(e.what(), "Could not deserialize message type SENSOR_DATA of size 3.");
    }
    EXPECT_THROW(vh::settings::sensor_data_wrapper(garbage, sizeof garbage), vx::message_deserialization_failed);
    // A sound envelope of another type, and sensor data whose payload is not SensorData.
    const auto check = vh::responses::check_result(1).serialize();
    EXPECT_THROW(vh::settings::sensor_data_wrapper(check.data(), check.size()), vx::message_deserialization_failed);
    const auto bad_payload = vh::messaging::wrap(message_type::sensor_data, "\xff\xff");
    EXPECT_THROW(vh::settings::sensor_data_wrapper(bad_payload.data(), bad_payload.size()),
                 vx::message_deserialization_failed);
    EXPECT_THROW(vh::settings::sensor_data_wrapper(nullptr, 5), vx::message_deserialization_failed);
}

TEST(SensorDataTest, PlainAndSecureValuesStayApart) {
    const auto bytes = sensor_data_bytes();
    vh::settings::sensor_data_wrapper data(bytes.data(), static_cast<unsigned int>(bytes.size()));
    EXPECT_EQ(data.kind(), "test_sensor");
    EXPECT_EQ(data.get("host"), "plc.local");
    EXPECT_EQ(data.get_secure("credentials.user.password").str(), "s3cr3t-Pa55");
    try {
        data.get("credentials.user.password");
        FAIL() << "a secure value was readable in plain";
    } catch (const vx::setting_not_available& e) {
        EXPECT_STREQ(e.what(), "The setting \"credentials.user.password\" was not available.");
    }
    EXPECT_THROW(data.get_secure("host"), vx::setting_not_available);
    EXPECT_THROW(data.get("missing"), vx::setting_not_available);
    EXPECT_EQ(data.get_channels(), (std::unordered_map<int, std::string>{{4, "channel.known"}}));
    EXPECT_EQ(data.get_persistent_data(), (std::unordered_map<std::string, std::string>{{"last", "17"}}));
    const std::string json = data.to_json();
    EXPECT_EQ(json.find("s3cr3t-Pa55"), std::string::npos) << json;
    EXPECT_NE(json.find("credentials.user.password"), std::string::npos) << json;
    EXPECT_NE(json.find("plc.local"), std::string::npos) << json;
}

TEST(ParserTest, FailuresCarryTheirTexts) {
    using vh::settings::kind_float;
    using vh::settings::kind_integer;
    using vh::settings::kind_string;
    const kind_integer::validation_rules port{true, 1, true, 65535};
    struct failure {
        std::function<void()> parse;
        std::string text;
    };
    const std::vector<failure> table = {
        {[] { kind_integer::parse_and_validate("abc", {}); }, "Setting value abc is invalid. The value is not an integer."},
        {[] { kind_integer::parse_and_validate("12x", {}); }, "Setting value 12x is invalid. The value is not an integer."},
        {[] { kind_integer::parse_and_validate(" 5", {}); }, "Setting value  5 is invalid. The value is not an integer."},
        {[] { kind_integer::parse_and_validate("1.5", {}); }, "Setting value 1.5 is invalid. The value is not an integer."},
        {[] { kind_integer::parse_and_validate("99999999999999999999", {}); },
         "Setting value 99999999999999999999 is invalid. The value is out of the range of a 64-bit integer."},
        {[&] { kind_integer::parse_and_validate("0", port); }, "Setting value 0 is less than the minimum of 1."},
        {[&] { kind_integer::parse_and_validate("65536", port); },
         "Setting value 65536 is bigger than the maximum of 65535."},
        {[] { kind_float::parse_and_validate("x1", {}); }, "Setting value x1 is invalid. The value is not a number."},
        {[] { kind_float::parse_and_validate("nan", {}); }, "Setting value nan is invalid. The value is not a number."},
        {[] { kind_float::parse_and_validate("1e999", {}); },
         "Setting value 1e999 is invalid. The value is out of the range of a floating-point number."},
        {[] { kind_float::parse_and_validate("0.25", {true, 0.5, false, 0}); },
         "Setting value 0.25 is less than the minimum of 0.5."},
        {[] { kind_float::parse_and_validate("10", {false, 0, true, 2.5}); },
         "Setting value 10 is bigger than the maximum of 2.5."},
        {[] { kind_string::parse_and_validate(std::string(33, 'n'), {32}); },
         "Setting's value with length 33 is longer than the maximum allowed length of 32."},
    };
    for (const auto& f : table) {
        try {
            f.parse();
            ADD_FAILURE() << "accepted: " << f.text;
        } catch (const vx::exception& e) {
            EXPECT_EQ(std::string(e.what()), f.text);
        }
    }
    EXPECT_EQ(kind_integer::parse_and_validate("4840", port), 4840);
    EXPECT_EQ(kind_integer::parse_and_validate("-3", {}), -3);
    EXPECT_FALSE(kind_integer::parse_and_validate("", port).has_value());
    EXPECT_EQ(kind_float::parse_and_validate("0.5", {true, 0.5, false, 0}), 0.5);
    EXPECT_EQ(kind_string::parse_and_validate(std::string(32, 'n'), {32}).size(), 32u);
    EXPECT_EQ(kind_string::parse_and_validate(std::string(5000, 'n'), {0}).size(), 5000u);
}

TEST(ChannelMapTest, DefinitionsAndValueModes) {
    auto map = map_with({{5, "channel.runtime"}});
    EXPECT_TRUE(map->is_known_to_runtime(5));
    EXPECT_FALSE(map->is_known_to_runtime(1));
    EXPECT_TRUE(map->is_definition_registered(1));
    EXPECT_FALSE(map->is_definition_registered(5));
    vh::channels::dynamic_channel_options changed;
    changed.id = 1;
    changed.value_mode = vh::channels::value_mode_float;
    EXPECT_FALSE(map->is_definition_registered(changed));
    map->register_definition(changed);  // the first definition of an id stands
    EXPECT_EQ(map->definition(1)->value_mode, vh::channels::value_mode_integer);

    vh::responses::sensor_scan_result r(1, map);
    try {
        r.set_value(9, 1L);
        FAIL() << "no exception";
    } catch (const vx::channel_not_defined& e) {
        EXPECT_STREQ(e.what(), "The channel with the ID 9 is not defined.");
        EXPECT_EQ(e.get_i18n_msg().key, "#:libvurohelper.error.channel_not_defined[9]");
    }
    try {
        r.set_value(1, 1.5);
        FAIL() << "no exception";
    } catch (const vx::invalid_channel_mode& e) {
        EXPECT_STREQ(e.what(), "The value for channel 1 does not match the value mode of the channel.");
    }
    EXPECT_THROW(r.set_value(2, 7L), vx::invalid_channel_mode);
    EXPECT_THROW(r.set_value(3, 7.0), vx::invalid_channel_mode);
    EXPECT_TRUE(r.values().empty());
    // A failure result has no map at all: every channel is unknown to it.
    vh::responses::sensor_scan_result failed(1, std::runtime_error("x"));
    EXPECT_THROW(failed.set_value(1, 1L), vx::channel_not_defined);
}

}  // namespace
