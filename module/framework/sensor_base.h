#pragma once

#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "libi18n/i18n.h"
#include "liblog/log.h"
#include "libvurohelper/channels.h"
#include "libvurohelper/exceptions.h"
#include "libvurohelper/logging.h"
#include "libvurohelper/messaging.h"
#include "libvurohelper/responses.h"
#include "libvurohelper/sensors.h"
#include "libvurohelper/settings.h"
#include "module/framework/service_container.h"

namespace brenholt::monitoring_modules::libvurohelper::sensors {

// What a sensor's constructor receives, moved from.
template <typename S>
struct sensor_parameters {
    std::shared_ptr<module::service_container> services;
    int sensor_id = 0;
    S settings;
    std::shared_ptr<settings::channel_map> channels;
    settings::persistent_data_storage persistent_data;
};

// The value 1 of the `logging` selection means enabled.
template <typename S>
bool logging_enabled(const S& s) {
    return static_cast<int>(s.base.logging) == 1;
}

inline const libi18n::i18n_msg& ok_message() {
    static const libi18n::i18n_msg ok("OK");
    return ok;
}

// Frame of every sensor: log, banners, and turning a failed scan into a result.
template <typename S>
class sensor_base : public sensor_interface {
public:
    using settings_type = S;

    explicit sensor_base(sensor_parameters<S> params)
        : services(std::move(params.services)),
          sensor_id(params.sensor_id),
          settings(std::move(params.settings)),
          channels(std::move(params.channels)),
          persistent_data(std::move(params.persistent_data)),
          log_(liblog::null_logger::instance()) {
        if (logging_enabled(settings)) log_ = services->template create<logging::sensor_log>(sensor_id);
        log_debug("#################### Initializing ####################");
        log_debug(std::string(S::title) + " version is: " + S::version + "\n");
    }

    ~sensor_base() override { log_debug("#################### Cleaning Up  ####################"); }

    int get_id() const override { return sensor_id; }

    void log_debug(const std::string& text) override { log(text, liblog::debug); }

    void log(const std::string& text, liblog::severity level) override {
        std::shared_ptr<liblog::log_interface> sink = log_;
        sink->write(level, text);
    }

    void scan() override {
        // Most sensors log nothing: a sensor with logging off skips what it would lose.
        const bool trace = has_own_log();
        if (trace) log_debug("#################### Enter sensor scan ####################");
        try {
            work();
        } catch (const libi18n::i18n_exception& e) {
            log_debug(e.what());
            send_error_result(e);
        } catch (const std::exception& e) {
            log_debug(e.what());
            send_error_result(e);
        }
        if (trace) log_debug("#################### Exit sensor scan  ####################");
    }

    virtual void work() = 0;

protected:
    responses::sensor_scan_result generate_result(const libi18n::i18n_msg& message,
                                                  responses::scan_response_codes code) {
        responses::sensor_scan_result result(sensor_id, channels);
        result.set_response_message(message);
        result.set_response_code(code);
        return result;
    }

    // The message service is looked up once: the container's instance never changes, and
    // the sensor goes before the services do.
    void send_result(const messaging::vuro_message& message) {
        if (!messages_) messages_ = services->template get_instance<messaging::message_service_interface>();
        messages_->send(message);
    }

    // Whether the sensor has a log of its own: without one every line is lost, so texts
    // that cost something to build are built only with one.
    bool has_own_log() const { return !liblog::null_logger::is_instance(log_.get()); }

    // The error result of a failure: no channel values, error code 0, response code 3.
    // An i18n_exception keeps its translatable message, any other its plain text.
    template <typename E>
    void send_error_result(const E& failure) {
        responses::sensor_scan_result result(sensor_id, failure);
        result.set_error_code(0).set_response_code(responses::scan_response_codes::error);
        send_result(result);
    }

    // Runs the creation steps of a sensor. A failure is logged, answered with an error
    // result and raised again, so the probe learns of it through both roads.
    template <typename Steps>
    void create_or_report(Steps&& steps) {
        try {
            steps();
        } catch (const libi18n::i18n_exception& e) {
            log(std::string("Exception during creation of OPC-UA client: ") + e.what(), liblog::error);
            send_error_result(e);
            throw;
        }
    }

    // Tells the probe about a channel once; a channel the probe already knows is
    // registered here but not sent again.
    void define_channel(const channels::dynamic_channel_options& options) {
        if (!channels) throw utils::exceptions::channel_map_not_initialized();
        if (channels->is_definition_registered(options)) return;
        channels->register_definition(options);
        if (channels->is_known_to_runtime(options.id)) return;
        send_result(channels::dynamic_channel(sensor_id, options));
    }

    // The sensor's own log, for handing to a client's multiplexer.
    const std::shared_ptr<liblog::log_interface>& log_ptr() const { return log_; }

    std::shared_ptr<module::service_container> services;
    int sensor_id;
    S settings;
    std::shared_ptr<settings::channel_map> channels;
    settings::persistent_data_storage persistent_data;

private:
    std::shared_ptr<liblog::log_interface> log_;
    std::shared_ptr<messaging::message_service_interface> messages_;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::sensors

namespace brenholt::monitoring_modules::libvurohelper::checks {

// Frame of every check: its own runtime log and the version line. work() sends
// exactly one check_result.
template <typename S>
class check_base : public check_interface {
public:
    using settings_type = S;

    check_base(std::shared_ptr<module::service_container> services_, int id, const S& settings_)
        : services(std::move(services_)), check_id(id), settings(settings_) {
        log_ = services->template create<liblog::log_interface>();
        log_debug(std::string("Initialize: ") + S::title + " version is: " + S::version);
    }

    int get_id() const override { return check_id; }
    void log(const std::string& text, liblog::severity level) override {
        std::shared_ptr<liblog::log_interface> sink = log_;
        sink->write(level, text);
    }
    void log_debug(const std::string& text) override { log(text, liblog::debug); }

    virtual void work() = 0;

protected:
    void send_result(const messaging::vuro_message& message) {
        services->template get_instance<messaging::message_service_interface>()->send(message);
    }

    std::shared_ptr<module::service_container> services;
    int check_id;
    S settings;

private:
    std::shared_ptr<liblog::log_interface> log_;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::checks
