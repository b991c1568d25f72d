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
#include "settings/base_settings.h"
#include "settings/notification_settings.h"
#include "settings/records.h"

namespace {

constexpr std::size_t header = alignof(std::max_align_t);

std::atomic<const char*> watched{nullptr};
std::atomic<std::size_t> watched_length{0};
std::atomic<int> released_with_secret{0};

void* allocate(std::size_t size) {
    void* base = std::malloc(size + header);
    if (base == nullptr) return nullptr;
    *static_cast<std::size_t*>(base) = size;
    return static_cast<char*>(base) + header;
}

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

void* operator new(std::size_t size) {
    if (void* p = allocate(size)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return ::operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }
void operator delete[](void* p, std::size_t) noexcept { release(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { release(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { release(p); }

namespace {

namespace ua = ::brenholt::monitoring_modules::opcua;
namespace st = ua::settings;
using opcua_settings_test::fake_source;
using opcua_settings_test::notification_source;
using opcua_settings_test::secure_string;
using opcua_settings_test::sensor_source;

// Watches one secret for the life of the object. The secret's own storage is
// static, so the watch itself never trips.
class watch {
public:
    explicit watch(const char* secret) {
        released_with_secret = 0;
        watched_length = std::strlen(secret);
        watched = secret;
    }
    ~watch() { watched = nullptr; }
    int hits() const { return released_with_secret.load(); }
};

// Keeps the optimiser from dropping an allocation that is never read.
void keep(const void* p) { asm volatile("" : : "g"(p) : "memory"); }

// Long enough to live on the heap, and short enough to live inside the string.
const char* const long_secret = "long-secret-0f3a9c1e-d2b4-heap-allocated";
const char* const short_secret = "sso-secret-7q";

// The detector must see a plain string that goes with the secret in it, or
// every test below could pass for nothing.
TEST(wipe_detector, sees_a_plain_string_released_with_the_secret) {
    {
        watch w(long_secret);
        {
            std::string plain(long_secret);
            keep(plain.data());
        }
        EXPECT_EQ(1, w.hits());
    }
    // A short text lives inside the object: found when the object's block goes.
    struct holder {
        std::string text;
    };
    watch w(short_secret);
    {
        auto h = std::make_unique<holder>(holder{short_secret});
        keep(h.get());
    }
    EXPECT_EQ(1, w.hits());
}

TEST(secure_string, wipe_zeroes_the_whole_capacity_in_place) {
    secure_string s{std::string(long_secret)};
    const char* data = s.c_str();
    const std::size_t capacity = s.str().capacity();
    s.wipe();
    // clear() keeps the buffer, so it is still ours to read.
    ASSERT_EQ(data, s.c_str());
    for (std::size_t i = 0; i < capacity; ++i) ASSERT_EQ('\0', data[i]) << i;
    EXPECT_TRUE(s.empty());
}

TEST(secure_string, goes_without_leaving_the_secret) {
    for (const char* secret : {long_secret, short_secret}) {
        watch w(secret);
        {
            auto s = std::make_unique<secure_string>(std::string(secret));
            secure_string copy = *s;
            secure_string moved = std::move(copy);
            copy = secure_string(std::string("new value that needs its own heap"));
        }
        EXPECT_EQ(0, w.hits()) << secret;
    }
}

// Builds a record on the heap, so a failed constructor releases the record's own
// block too and the strings stored inside the members are searched as well.
template <typename Make>
int hits_of_failed_record(const char* secret, Make make) {
    watch w(secret);
    try {
        make();
        ADD_FAILURE() << "record was created";
    } catch (const std::exception&) {
    }
    return w.hits();
}

TEST(failed_record, leaves_no_secret_behind) {
    for (const char* secret : {long_secret, short_secret}) {
        SCOPED_TRACE(secret);
        // The API key is read, then ipversion fails.
        fake_source base = sensor_source();
        base.set("brenholtcloudapikey", secret);
        base.set("ipversion", "IPv5");
        EXPECT_EQ(0, hits_of_failed_record(secret, [&] { std::make_unique<st::base_settings>(base); }));

        // The key password is read, then the user group fails.
        fake_source sensor = sensor_source();
        sensor.set("credentials.connection_security.client_key_password", secret);
        sensor.set("credentials.user_authentication.user_auth_mode", "user");
        EXPECT_EQ(0, hits_of_failed_record(secret, [&] { std::make_unique<st::server_status_sensor>(sensor); }));

        // Both passwords are read, then the data type fails.
        fake_source note = notification_source();
        note.set("credentials.user_authentication.password", secret);
        note.set("write.variable.type", "Double");
        EXPECT_EQ(0, hits_of_failed_record(
                         secret, [&] { std::make_unique<st::opcua_notification>(note, "ns=1;i=1", "1"); }));
    }
}

TEST(client_settings, copies_hashes_and_replaced_credentials_leave_no_secret) {
    fake_source source = sensor_source();
    source.set("credentials.user_authentication.password", long_secret);
    source.set("credentials.connection_security.client_key_password", long_secret);
    watch w(long_secret);
    {
        auto record = std::make_unique<st::server_status_sensor>(source);
        auto settings = std::make_unique<ua::client_settings>(ua::create_client_settings(*record));
        EXPECT_NE(0u, std::hash<ua::client_settings>{}(*settings));
        // Mode none empties the key password of a value that held one.
        record->connection_security.security_mode = st::security_mode::none;
        settings->set_credentials(record->connection_security, record->user_authentication);
        EXPECT_TRUE(settings->client_key_password.empty());
    }
    EXPECT_EQ(0, w.hits());
}

}  // namespace
