#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "libi18n/exceptions.h"
#include "liblog/log.h"
#include "libvurohelper/exceptions.h"
#include "libvurohelper/logging.h"
#include "libvurohelper/messaging.h"
#include "module/framework/bindings.h"
#include "module/framework/sensor_base.h"
#include "vuro.pb.h"

namespace {

namespace mm = ::brenholt::monitoring_modules;
namespace vh = mm::libvurohelper;
namespace vx = vh::utils::exceptions;
namespace lg = mm::liblog;
namespace wire = ::brenholt::vuro::wire;

// A settings record as the dispatcher parses it: `logging` is 1 for enabled, and
// `mode` tells the fake sensor how its work() ends.
struct test_settings {
    static inline const std::string title = "Test Sensor";
    static inline const std::string version = "1.16.0.20981";
    struct {
        int logging = 0;
    } base;
    std::string mode;

    test_settings() = default;
    explicit test_settings(const vh::settings::settings_source& source) {
        base.logging = static_cast<int>(*vh::settings::kind_integer::parse_and_validate(source.get("logging"), {}));
        mode = source.get("mode");
    }
};

class fake_sensor : public vh::sensors::sensor_base<test_settings> {
public:
    explicit fake_sensor(vh::sensors::sensor_parameters<test_settings> p) : sensor_base(std::move(p)) {}

    void work() override {
        const std::string& mode = settings.mode;
        if (mode == "i18n") throw mm::libi18n::error_generic(std::string("boom, [1]"));
        if (mode == "std") throw std::runtime_error("plain failure");
        if (mode == "int") throw 42;
        send_result(generate_result(vh::sensors::ok_message(), vh::responses::scan_response_codes::ok));
    }

    using sensor_base::define_channel;
};

// The frame only makes sensor logs; this one keeps its lines in memory instead of a file.
struct memory_sensor_log : vh::logging::sensor_log {
    memory_sensor_log(int id, std::shared_ptr<lg::memory_logger> sink) : sensor_log(id), sink(std::move(sink)) {}
    void write(lg::severity level, const std::string& text) override { sink->write(level, text); }
    std::shared_ptr<lg::memory_logger> sink;
};

struct frame_fixture : ::testing::Test {
    std::shared_ptr<vh::module::service_container> services = std::make_shared<vh::module::service_container>();
    std::shared_ptr<lg::memory_logger> memory = std::make_shared<lg::memory_logger>();
    std::vector<wire::Envelope> sent;

    void SetUp() override {
        services->add_factory(std::function<std::unique_ptr<vh::messaging::message_service_interface>()>([this] {
            return std::make_unique<vh::messaging::message_service>([this](void* data, unsigned long size) {
                wire::Envelope e;
                ASSERT_TRUE(e.ParseFromArray(data, static_cast<int>(size)));
                sent.push_back(e);
            });
        }));
        services->add_factory(std::function<std::unique_ptr<vh::logging::sensor_log>(int)>(
            [this](int id) { return std::make_unique<memory_sensor_log>(id, memory); }));
    }

    std::unique_ptr<fake_sensor> make(int id, const std::string& mode, int logging = 1,
                                      std::unordered_map<int, std::string> known = {}) {
        test_settings s;
        s.base.logging = logging;
        s.mode = mode;
        return std::make_unique<fake_sensor>(vh::sensors::sensor_parameters<test_settings>{
            services, id, s, std::make_shared<vh::settings::channel_map>(std::move(known)), {}});
    }

    std::vector<std::string> lines() const {
        std::vector<std::string> out;
        for (const auto& [level, text] : memory->entries()) {
            EXPECT_EQ(level, lg::debug) << text;
            out.push_back(text);
        }
        return out;
    }

    wire::SensorScanResult only_result() {
        EXPECT_EQ(sent.size(), 1u);
        wire::SensorScanResult r;
        if (sent.empty()) return r;
        EXPECT_EQ(sent[0].type(), wire::SENSOR_SCAN_RESULT);
        EXPECT_TRUE(r.ParseFromString(sent[0].payload()));
        return r;
    }
};

const std::string initializing = "#################### Initializing ####################";
const std::string enter = "#################### Enter sensor scan ####################";
const std::string leave = "#################### Exit sensor scan  ####################";
const std::string cleanup = "#################### Cleaning Up  ####################";

TEST_F(frame_fixture, TranslatableFailureBecomesErrorResultWithEncodedKey) {
    {
        auto sensor = make(21, "i18n");
        sensor->scan();
    }
    const auto r = only_result();
    EXPECT_EQ(r.sensor_id(), 21);
    EXPECT_EQ(r.response_code(), 3);
    EXPECT_EQ(r.error_code(), 0);
    EXPECT_EQ(r.message().key(), "#:libi18n.error.generic[boom\\, \\[1\\]]");
    EXPECT_EQ(r.message().text(), "An error occurred. boom, [1]");
    EXPECT_EQ(r.channels_size(), 0);
    const std::vector<std::string> expected = {initializing, "Test Sensor version is: 1.16.0.20981\n", enter,
                                               "An error occurred. boom, [1]", leave, cleanup};
    EXPECT_EQ(lines(), expected);
}

TEST_F(frame_fixture, StandardFailureBecomesErrorResultWithPlainText) {
    make(22, "std")->scan();
    const auto r = only_result();
    EXPECT_EQ(r.response_code(), 3);
    EXPECT_EQ(r.error_code(), 0);
    EXPECT_EQ(r.message().key(), "plain failure");
    EXPECT_EQ(r.message().text(), "plain failure");
}

TEST_F(frame_fixture, RegularScanSendsOkAndForeignExceptionPassesThrough) {
    make(23, "ok")->scan();
    auto r = only_result();
    EXPECT_EQ(r.response_code(), 0);
    EXPECT_EQ(r.message().key(), "OK");
    EXPECT_EQ(r.message().text(), "OK");

    sent.clear();
    memory->clear();
    auto sensor = make(24, "int");
    EXPECT_THROW(sensor->scan(), int);
    EXPECT_TRUE(sent.empty());
    const auto seen = lines();
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), enter);  // no Exit line, no result
}

TEST_F(frame_fixture, LoggingDisabledWritesNothingToTheSensorLog) {
    make(25, "std", 0)->scan();
    EXPECT_TRUE(memory->entries().empty());
    EXPECT_EQ(only_result().response_code(), 3);
}

TEST_F(frame_fixture, DefineChannelSendsOnceAndNotForKnownChannels) {
    auto sensor = make(26, "ok", 0, {{2, "channel.known"}});
    vh::channels::dynamic_channel_options fresh;
    fresh.id = 1;
    fresh.name = "channel.fresh";
    sensor->define_channel(fresh);
    sensor->define_channel(fresh);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].type(), wire::DYNAMIC_CHANNEL);
    wire::DynamicChannel d;
    ASSERT_TRUE(d.ParseFromString(sent[0].payload()));
    EXPECT_EQ(d.sensor_id(), 26);
    EXPECT_EQ(d.id(), 1);
    EXPECT_EQ(d.name(), "channel.fresh");

    vh::channels::dynamic_channel_options known;
    known.id = 2;
    sensor->define_channel(known);
    EXPECT_EQ(sent.size(), 1u);

    auto unmapped = std::make_unique<fake_sensor>(
        vh::sensors::sensor_parameters<test_settings>{services, 27, test_settings{}, nullptr, {}});
    EXPECT_THROW(unmapped->define_channel(fresh), vx::channel_map_not_initialized);
}

vh::messaging::bytes data_of(const std::string& kind, const std::string& mode) {
    wire::SensorData sd;
    sd.set_kind(kind);
    (*sd.mutable_settings())["logging"] = "1";
    (*sd.mutable_settings())["mode"] = mode;
    (*sd.mutable_channels())[3] = "channel.three";
    return vh::messaging::wrap(vh::messaging::message_type::sensor_data, sd.SerializeAsString());
}

TEST_F(frame_fixture, DispatcherCodesAndABoundSensorLifecycle) {
    namespace md = vh::module;
    auto dispatcher = std::make_shared<md::sensor_dispatcher>(services);
    dispatcher->register_sensor_as<fake_sensor>("test_sensor");

    const auto none = data_of("", "ok");
    const auto unknown = data_of("no_such_sensor", "ok");
    const vh::settings::sensor_data_wrapper no_kind(none.data(), none.size());
    const vh::settings::sensor_data_wrapper bad_kind(unknown.data(), unknown.size());
    EXPECT_EQ(dispatcher->create_sensor_instance(1, no_kind), md::dispatch_no_kind);
    EXPECT_EQ(dispatcher->create_sensor_instance(1, bad_kind), md::dispatch_unknown_kind);
    EXPECT_EQ(dispatcher->execute_check(1, bad_kind), md::dispatch_unknown_kind);
    EXPECT_EQ(dispatcher->execute_meta_scan(1, 0, no_kind), md::dispatch_no_kind);
    EXPECT_EQ(dispatcher->execute_sensor_scan(99), md::dispatch_unknown_id);
    EXPECT_EQ(dispatcher->destroy_sensor_instance(99), md::dispatch_unknown_id);
    EXPECT_EQ(dispatcher->stock().size(), 0u);

    const auto good = data_of("test_sensor", "std");
    const vh::settings::sensor_data_wrapper data(good.data(), good.size());
    EXPECT_EQ(dispatcher->create_sensor_instance(31, data), md::dispatch_done);
    ASSERT_NE(dispatcher->stock().find(31), nullptr);
    EXPECT_EQ(dispatcher->stock().find(31)->get_id(), 31);
    EXPECT_THROW(dispatcher->create_sensor_instance(31, data), vx::sensor_already_registered);
    EXPECT_EQ(dispatcher->execute_sensor_scan(31), md::dispatch_done);
    EXPECT_EQ(only_result().sensor_id(), 31);
    EXPECT_EQ(dispatcher->destroy_sensor_instance(31), md::dispatch_done);
    EXPECT_EQ(dispatcher->execute_sensor_scan(31), md::dispatch_unknown_id);

    const auto seen = lines();
    ASSERT_GE(seen.size(), 4u);
    EXPECT_EQ(seen[0], initializing);
    EXPECT_NE(seen[2].find("\"channel.three\""), std::string::npos) << seen[2];  // the sensor data, as JSON
    EXPECT_EQ(seen.back(), cleanup);

    // Settings that fail to parse leave no sensor behind.
    wire::SensorData partial;
    partial.set_kind("test_sensor");
    const auto partial_bytes =
        vh::messaging::wrap(vh::messaging::message_type::sensor_data, partial.SerializeAsString());
    const vh::settings::sensor_data_wrapper lacking(partial_bytes.data(), partial_bytes.size());
    EXPECT_THROW(dispatcher->create_sensor_instance(32, lacking), vx::setting_not_available);
    EXPECT_EQ(dispatcher->stock().size(), 0u);
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

std::vector<std::string> read_lines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

TEST(FileLogTest, SensorLogFileAppearsWhenWrittenWithTimeAndSeverity) {
    char dir_template[] = "/tmp/vuro_logs_XXXXXX";
    const std::string dir = ::mkdtemp(dir_template);
    ASSERT_EQ(::setenv(vh::logging::log_dir_variable, dir.c_str(), 1), 0);
    auto services = std::make_shared<vh::module::service_container>();
    vh::module::register_runtime_log(services);
    vh::module::register_sensor_log(services);

    const std::string path = dir + "/sensor_77.log";
    auto log = services->create<vh::logging::sensor_log>(77);
    EXPECT_FALSE(exists(path));
    log->write(lg::warning, "first line");
    log->write(lg::debug, "second line");
    ASSERT_TRUE(exists(path));
    const std::regex stamped(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} (WARNING|DEBUG) (first|second) line)");
    const auto written = read_lines(path);
    ASSERT_EQ(written.size(), 2u);
    EXPECT_TRUE(std::regex_match(written[0], stamped)) << written[0];
    EXPECT_NE(written[0].find(" WARNING first line"), std::string::npos) << written[0];
    EXPECT_NE(written[1].find(" DEBUG second line"), std::string::npos) << written[1];

    services->create<lg::log_interface>()->write(lg::error, "runtime");
    const auto runtime = read_lines(dir + "/runtime.log");
    ASSERT_EQ(runtime.size(), 1u);
    EXPECT_NE(runtime[0].find(" ERROR runtime"), std::string::npos);

    ::unsetenv(vh::logging::log_dir_variable);
    auto discarded = services->create<vh::logging::sensor_log>(78);
    discarded->write(lg::error, "nowhere");
    EXPECT_TRUE(discarded->path().empty());
    EXPECT_FALSE(exists(dir + "/sensor_78.log"));

    for (const char* name : {"/sensor_77.log", "/runtime.log"}) ::unlink((dir + name).c_str());
    ::rmdir(dir.c_str());
}

}  // namespace
