#include "sensors/certificate_sensor.h"

#include <cstdint>
#include <string>

#include "libi18n/catalogue.h"

namespace brenholt::monitoring_modules::opcua {

namespace cat = libi18n::catalogue;
using libvurohelper::channels::channel_limit;
using libvurohelper::channels::dynamic_channel_options;
using libvurohelper::responses::scan_response_codes;
using libvurohelper::responses::sensor_scan_result;

namespace {

constexpr int expire_in_channel = 0;
constexpr int public_key_length_channel = 1;
constexpr int self_signed_channel = 2;

// Short channel names, indexed by channel id.
constexpr const char* channel_names[] = {"expire_in", "public_key_length", "self_signed"};

constexpr int unit_custom = 8;

dynamic_channel_options base_options(int id) {
    dynamic_channel_options options;
    options.id = id;
    options.name = std::string("channel.") + channel_names[id];
    options.value_mode = libvurohelper::channels::value_mode_integer;
    options.scale_factor = 1.0;
    return options;
}

void set_lower_limits(dynamic_channel_options& options, double warning, double error) {
    options.limits_enabled = true;
    options.lower_warning_limit = channel_limit{true, warning};
    options.lower_error_limit = channel_limit{true, error};
}

}  // namespace

certificate_sensor::certificate_sensor(
    libvurohelper::sensors::sensor_parameters<settings::certificate_sensor> params)
    : sensor_base(std::move(params)) {
    create_or_report([this] {
        const client_settings key = create_client_settings(settings);
        get_opcua_client(key);
        client->add_logger(log_ptr(), liblog::debug);
        define_channels();
    });
}

certificate_sensor::~certificate_sensor() {
    // Any exception here ends the process, as for every destructor.
    if (client) client->remove_logger(log_ptr());
}

void certificate_sensor::get_opcua_client(const client_settings& key) {
    log_debug("Create OPC-UA client.");
    std::shared_ptr<client_interface> created = services->create<client_interface>(client_settings(key));
    log_debug("Client creation successful.");
    client = std::move(created);
}

void certificate_sensor::define_channels() {
    // Nothing here depends on the server, so creation needs no connection.
    dynamic_channel_options expire_in = base_options(expire_in_channel);
    expire_in.unit = unit_custom;
    expire_in.custom_unit = "day(s)";
    set_lower_limits(expire_in, 28.0, 7.0);
    define_channel(expire_in);

    // 1025 and 1024 one apart on purpose: a 1024-bit key warns but does not fail.
    dynamic_channel_options key_length = base_options(public_key_length_channel);
    key_length.unit = unit_custom;
    key_length.custom_unit = "bit";
    set_lower_limits(key_length, 1025.0, 1024.0);
    define_channel(key_length);

    dynamic_channel_options self_signed = base_options(self_signed_channel);
    self_signed.lookup = "self_signed_certificate";
    self_signed.unit = 0;
    define_channel(self_signed);
}

void certificate_sensor::work() {
    sensor_scan_result result = generate_result(libvurohelper::sensors::ok_message(), scan_response_codes::ok);
    if (has_own_log()) log_debug("Begin reading nodes.");
    const server_certificate_info info = client->get_server_certificate_info();

    // Signed, so an expired certificate reports how long ago it ran out.
    result.set_value(expire_in_channel, static_cast<long>(info.days_until_expiry));
    result.set_value(public_key_length_channel,
                     static_cast<long>(static_cast<std::uint32_t>(info.key_bits)));
    result.set_value(self_signed_channel, info.self_signed ? 1L : 0L);

    result.set_response_message(libi18n::make_msg(cat::message_certificate_ok, info.common_name, info.thumbprint));
    if (has_own_log()) log_debug("Response Message is: " + result.response_message().key);
    send_result(result);
}

}  // namespace brenholt::monitoring_modules::opcua
