// What every scan pays in the framework: message texts, result serialisation,
// sensor data decoding, and the module information the probe asks for at start.
#include <benchmark/benchmark.h>

#include "libi18n/catalogue.h"
#include "libstringutils/format.h"
#include "libvurohelper/channels.h"
#include "libvurohelper/messaging.h"
#include "libvurohelper/responses.h"
#include "libvurohelper/settings.h"
#include "module/definition/module_definition_text.h"
#include "vuro.pb.h"

using namespace brenholt::monitoring_modules;

static void format_two_arguments(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(libstringutils::format("DataType mismatch (%0:s), expected (%1:s).", "Int32", "Double"));
}
BENCHMARK(format_two_arguments);

static void catalogue_message(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(
            libi18n::make_msg(libi18n::catalogue::error_failed_to_parse_node_id, "ns=1;s=a,b", "bad: x"));
}
BENCHMARK(catalogue_message);

static void scan_result_with_eleven_channels(benchmark::State& state) {
    auto map = std::make_shared<libvurohelper::settings::channel_map>(std::unordered_map<int, std::string>{});
    for (int id = 0; id < 11; ++id) {
        libvurohelper::channels::dynamic_channel_options o;
        o.id = id;
        o.value_mode = id % 2 ? libvurohelper::channels::value_mode_float : libvurohelper::channels::value_mode_integer;
        map->register_definition(o);
    }
    for (auto _ : state) {
        libvurohelper::responses::sensor_scan_result result(1, map);
        result.set_response_message(libi18n::i18n_msg("OK"));
        for (int id = 0; id < 11; ++id) {
            if (id % 2) result.set_value(id, 1.5 * id);
            else result.set_value(id, static_cast<long>(id));
        }
        benchmark::DoNotOptimize(result.serialize());
    }
}
BENCHMARK(scan_result_with_eleven_channels);

static void sensor_data_decode(benchmark::State& state) {
    brenholt::vuro::wire::SensorData data;
    data.set_kind("custom_sensor");
    for (int i = 0; i < 80; ++i) (*data.mutable_settings())["custom.connection_custom.setting_" + std::to_string(i)] = "value";
    (*data.mutable_secure_settings())["credentials.user_authentication.password"] = "secret";
    brenholt::vuro::wire::Envelope envelope;
    envelope.set_type(brenholt::vuro::wire::SENSOR_DATA);
    envelope.set_payload(data.SerializeAsString());
    const std::string bytes = envelope.SerializeAsString();
    for (auto _ : state) {
        libvurohelper::settings::sensor_data_wrapper wrapper(bytes.data(), static_cast<unsigned int>(bytes.size()));
        benchmark::DoNotOptimize(wrapper.to_json());
    }
}
BENCHMARK(sensor_data_decode);

static void module_information(benchmark::State& state) {
    const bool texts = state.range(0) != 0;
    for (auto _ : state) {
        libvurohelper::messaging::module_information_message message(opcua::module_definition_text(), texts);
        benchmark::DoNotOptimize(message.serialize());
    }
    state.SetLabel(std::to_string(opcua::module_definition_text().size()) + " bytes of definition");
}
BENCHMARK(module_information)->Arg(1)->Arg(0)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
