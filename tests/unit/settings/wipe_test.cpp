// Secrets must not survive in memory handed back to the heap. The allocation
// functions of this test program are replaced: while a watch is on, every block is
// searched for the secret at the moment it is released, before it is freed, so no
// released memory is ever read.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "client/client_settings.h"
#include "fake_source.h"
#include "libvurohelper/messaging.h"
#include "libvurohelper/notifications.h"
#include "settings/records.h"
#include "vuro.pb.h"

namespace {

constexpr std::size_t header = alignof(std::max_align_t);

std::atomic<const char*> watched{nullptr};
std::atomic<std::size_t> watched_length{0};
std::atomic<int> released_with_secret{0};

void release(void* p) noexcept {
    if (p == nullptr) return;
    char* base = static_cast<char*>(p) - header;
    const std::size_t size = *reinterpret_cast<std::size_t*>(base);
    const char* secret = watched.load();
    const std::size_t length = watched_length.load();
    if (secret != nullptr && length != 0 && size >= length && memmem(p, size, secret, length) != nullptr)
        ++released_with_secret;
    std::free(base);
}

}  // namespace

// The library's other forms of new and delete forward to these.
void* operator new(std::size_t size) {
    void* base = std::malloc(size + header);
    if (base == nullptr) throw std::bad_alloc();
    *static_cast<std::size_t*>(base) = size;
    return static_cast<char*>(base) + header;
}
void operator delete(void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }

namespace {

namespace ua = ::brenholt::monitoring_modules::opcua;
namespace st = ua::settings;
using opcua_settings_test::fake_source;
using opcua_settings_test::secure_string;
using opcua_settings_test::sensor_source;

// Counts the blocks released with the secret in them while f runs. The secret's own
// storage is static, so the watch never trips on it.
template <typename F>
int hits_while(const char* secret, F f) {
    released_with_secret = 0;
    watched_length = std::strlen(secret);
    watched = secret;
    f();
    watched = nullptr;
    return released_with_secret.load();
}

// Keeps the optimiser from dropping an allocation that is never read.
void keep(const void* p) { asm volatile("" : : "g"(p) : "memory"); }

// Long enough to live on the heap, and short enough to live inside the string.
const char* const secrets[] = {"long-secret-0f3a9c1e-d2b4-heap-allocated", "sso-secret-7q"};

TEST(secure_string, wipe_zeroes_the_whole_capacity_and_copies_leave_no_secret) {
    secure_string s{std::string(secrets[0])};
    const char* data = s.c_str();
    s.wipe();
    ASSERT_EQ(data, s.c_str()) << "clear() keeps the buffer, so it is still ours to read";
    for (std::size_t i = 0; i < s.str().capacity(); ++i) ASSERT_EQ('\0', data[i]) << i;
    for (const char* secret : secrets) {
        // The detector must see a plain string go, or every check here could pass for nothing.
        EXPECT_EQ(1, hits_while(secret, [&] { keep(std::make_unique<std::string>(secret)->data()); })) << secret;
        EXPECT_EQ(0, hits_while(secret, [&] {
                      auto held = std::make_unique<secure_string>(std::string(secret));
                      secure_string copy = *held;
                      secure_string moved = std::move(copy);
                      moved = secure_string(std::string("new value that needs its own heap"));
                  })) << secret;
    }
}

// Records are built on the heap, so a failed constructor releases the record's own
// block too and the strings stored inside the members are searched as well.
TEST(failed_record, leaves_no_secret_behind) {
    for (const char* secret : secrets) {
        // The API key and the key password are read, then the user group fails.
        fake_source sensor = sensor_source();
        sensor.set("brenholtcloudapikey", secret);
        sensor.set("credentials.connection_security.client_key_password", secret);
        sensor.set("credentials.user_authentication.user_auth_mode", "user");
        EXPECT_EQ(0, hits_while(secret, [&] { EXPECT_ANY_THROW(std::make_unique<st::server_status_sensor>(sensor)); }));
    }
}

TEST(client_settings, copies_hashes_and_replaced_credentials_leave_no_secret) {
    fake_source source = sensor_source();
    source.set("credentials.user_authentication.password", secrets[0]);
    source.set("credentials.connection_security.client_key_password", secrets[0]);
    EXPECT_EQ(0, hits_while(secrets[0], [&] {
                  auto record = std::make_unique<st::server_status_sensor>(source);
                  auto settings = std::make_unique<ua::client_settings>(ua::create_client_settings(*record));
                  EXPECT_NE(0u, std::hash<ua::client_settings>{}(*settings));
                  // Mode none empties the key password of a value that held one.
                  record->connection_security.security_mode = st::security_mode::none;
                  settings->set_credentials(record->connection_security, record->user_authentication);
              }));
}

// The probe's bytes are decoded into copies of the framework's own: the envelope's
// payload and the decoded messages. Each goes back to the heap wiped, whether the secret
// came as a secure value or as plain key material.
TEST(probe_data, decoded_copies_leave_no_secret) {
    namespace vh = ::brenholt::monitoring_modules::libvurohelper;
    using vh::messaging::message_type;
    for (const char* secret : secrets) {
        ::brenholt::vuro::wire::SensorData sensor;
        sensor.set_kind("server_status_sensor");
        (*sensor.mutable_secure_settings())["credentials.user_authentication.password"] = secret;
        (*sensor.mutable_settings())["credentials.connection_security.client_key"] = secret;
        ::brenholt::vuro::wire::NotificationRequest notification;
        (*notification.mutable_secure_settings())["credentials.user_authentication.password"] = secret;
        const auto sensor_bytes = vh::messaging::wrap(message_type::sensor_data, sensor.SerializeAsString());
        const auto notification_bytes =
            vh::messaging::wrap(message_type::notification_request, notification.SerializeAsString());
        EXPECT_EQ(0, hits_while(secret, [&] {
                      auto data = std::make_unique<vh::settings::sensor_data_wrapper>(
                          sensor_bytes.data(), static_cast<unsigned int>(sensor_bytes.size()));
                      EXPECT_EQ(data->get_secure("credentials.user_authentication.password").str(), secret);
                      keep(data->to_json().data());
                      auto request = std::make_unique<vh::notifications::request>(
                          notification_bytes.data(), static_cast<unsigned int>(notification_bytes.size()));
                      keep(request->to_json().data());
                  })) << secret;
    }
}

}  // namespace
