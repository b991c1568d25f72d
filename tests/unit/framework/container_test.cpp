#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include "libvurohelper/exceptions.h"
#include "module/framework/service_container.h"
#include "support/what_of.h"

namespace {

namespace vh = ::brenholt::monitoring_modules::libvurohelper;
namespace vx = vh::utils::exceptions;
using vh::module::service_container;

struct service {
    explicit service(int n) : number(n) {}
    virtual ~service() = default;
    int number;
};

using plain_factory = std::function<std::unique_ptr<service>()>;
using keyed_factory = std::function<std::unique_ptr<service>(std::string)>;

TEST(service_container, factories_are_keyed_by_signature_and_instances_made_once) {
    service_container c;
    EXPECT_THROW(c.get_instance<service>(), vx::factory_not_available);
    int runs = 0;
    c.add_factory(plain_factory([&]() -> std::unique_ptr<service> {
        if (++runs == 1) throw std::runtime_error("not yet");
        return std::make_unique<service>(runs);
    }));
    EXPECT_THROW(c.add_factory(plain_factory([] { return std::make_unique<service>(0); })), vx::already_contains_factory);
    // A throwing factory stores nothing and runs again next time.
    EXPECT_THROW(c.get_instance<service>(), std::runtime_error);
    EXPECT_FALSE(c.instances().contains<service>());
    auto a = c.get_instance<service>();
    EXPECT_EQ(a->number, 2);
    EXPECT_EQ(c.get_instance<service>(), a);
    // create() bypasses the store: a new object each call, none kept.
    EXPECT_EQ(c.create<service>()->number, 3);
    EXPECT_EQ(c.get_instance<service>(), a);
    // The same interface with an argument is another entry.
    EXPECT_NO_THROW(c.add_factory(keyed_factory([](std::string) { return std::make_unique<service>(0); })));
}

TEST(service_container, keyed_instances_are_shared_while_alive_and_a_dead_entry_stops_sharing) {
    service_container c;
    // The key's type, never its value.
    EXPECT_EQ(test_support::what_of<vx::instance_not_available_key>([&] { c.instances().get<service>(std::string("secret-host")); }),
              std::string("The instance store can't find an instance with type ") + typeid(service).name() + " and key " +
                  typeid(std::string).name() + ".");
    int runs = 0;
    c.add_factory(keyed_factory([&](std::string) { return std::make_unique<service>(++runs); }));
    auto first = c.get_instance<service>(std::string("k"));
    EXPECT_EQ(c.get_instance<service>(std::string("k")), first);
    EXPECT_NE(c.get_instance<service>(std::string("other")), first);
    EXPECT_EQ(runs, 2);

    first.reset();  // the store holds nobody alive
    EXPECT_FALSE(c.instances().contains<service>(std::string("k")));
    // The expired entry stays, so the store never learns of the later objects.
    auto third = c.get_instance<service>(std::string("k"));
    auto fourth = c.get_instance<service>(std::string("k"));
    EXPECT_NE(fourth, third);
    EXPECT_EQ(fourth->number, 4);
}

}  // namespace
