#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include "libvurohelper/exceptions.h"
#include "module/framework/service_container.h"

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

TEST(ServiceContainerTest, SecondFactoryOfOneTypeIsRefusedAndTheFirstStays) {
    auto c = std::make_shared<service_container>();
    c->add_factory(plain_factory([] { return std::make_unique<service>(1); }));
    try {
        c->add_factory(plain_factory([] { return std::make_unique<service>(2); }));
        FAIL() << "no exception";
    } catch (const vx::already_contains_factory& e) {
        EXPECT_EQ(std::string(e.what()),
                  std::string("The factory store already contains a factory with type ") + typeid(plain_factory).name() + ".");
    }
    EXPECT_EQ(c->get_instance<service>()->number, 1);
    // The signature is the key: the same interface with an argument is another entry.
    EXPECT_NO_THROW(c->add_factory(keyed_factory([](std::string) { return std::make_unique<service>(3); })));
}

TEST(ServiceContainerTest, SingleInstanceIsMadeOnce) {
    auto c = std::make_shared<service_container>();
    int runs = 0;
    c->add_factory(plain_factory([&] { return std::make_unique<service>(++runs); }));
    auto a = c->get_instance<service>();
    auto b = c->get_instance<service>();
    EXPECT_EQ(a, b);
    EXPECT_EQ(runs, 1);
    // create() bypasses the store: each call is a new object, none is kept.
    auto x = c->create<service>();
    EXPECT_NE(x, a);
    EXPECT_EQ(runs, 2);
    EXPECT_EQ(c->get_instance<service>(), a);
}

TEST(ServiceContainerTest, ThrowingFactoryStoresNothingAndIsRetried) {
    auto c = std::make_shared<service_container>();
    int runs = 0;
    c->add_factory(plain_factory([&]() -> std::unique_ptr<service> {
        if (++runs == 1) throw std::runtime_error("not yet");
        return std::make_unique<service>(runs);
    }));
    EXPECT_THROW(c->get_instance<service>(), std::runtime_error);
    EXPECT_FALSE(c->instances().contains<service>());
    EXPECT_EQ(c->get_instance<service>()->number, 2);

    // One store slot per interface: the keyed form needs a container of its own.
    c = std::make_shared<service_container>();
    int keyed_runs = 0;
    c->add_factory(keyed_factory([&](std::string) -> std::unique_ptr<service> {
        if (++keyed_runs == 1) throw std::runtime_error("not yet");
        return std::make_unique<service>(keyed_runs);
    }));
    EXPECT_THROW(c->get_instance<service>(std::string("k")), std::runtime_error);
    EXPECT_EQ(c->get_instance<service>(std::string("k"))->number, 2);
}

TEST(ServiceContainerTest, MissingFactoryAndInstanceNameTheRawTypes) {
    auto c = std::make_shared<service_container>();
    try {
        c->get_instance<service>();
        FAIL() << "no exception";
    } catch (const vx::factory_not_available& e) {
        EXPECT_EQ(std::string(e.what()),
                  std::string("The factory store can't find a factory with type ") + typeid(plain_factory).name() + ".");
        EXPECT_EQ(e.get_i18n_msg().key,
                  std::string("#:libvurohelper.error.factory_not_available[") + typeid(plain_factory).name() + "]");
    }
    try {
        c->instances().get<service>(std::string("secret-host"));
        FAIL() << "no exception";
    } catch (const vx::instance_not_available_key& e) {
        // The key's type, never its value.
        EXPECT_EQ(std::string(e.what()), std::string("The instance store can't find an instance with type ") +
                                             typeid(service).name() + " and key " + typeid(std::string).name() + ".");
    }
    EXPECT_THROW(c->instances().get<service>(), vx::instance_not_available);
    auto s = std::make_shared<service>(1);
    c->instances().add<service>(s);
    try {
        c->instances().add<service>(s);
        FAIL() << "no exception";
    } catch (const vx::already_contains_instance& e) {
        EXPECT_EQ(std::string(e.what()), std::string("The instance store already contains an instance with type ") +
                                             typeid(service).name() + ".");
    }
    auto k = std::make_shared<service>(2);
    vh::module::instance_store keyed;
    keyed.add<service>(7, k);
    EXPECT_THROW(keyed.add<service>(7, k), vx::already_contains_instance_key);
}

TEST(ServiceContainerTest, KeyedInstancesShareWhileAliveThenDeadEntryBlocksSharing) {
    auto c = std::make_shared<service_container>();
    int runs = 0;
    c->add_factory(keyed_factory([&](std::string) { return std::make_unique<service>(++runs); }));
    auto first = c->get_instance<service>(std::string("k"));
    auto second = c->get_instance<service>(std::string("k"));
    EXPECT_EQ(first, second);
    EXPECT_NE(c->get_instance<service>(std::string("other")), first);
    EXPECT_EQ(runs, 2);
    EXPECT_TRUE(c->instances().contains<service>(std::string("k")));

    first.reset();
    second.reset();
    EXPECT_FALSE(c->instances().contains<service>(std::string("k")));
    auto third = c->get_instance<service>(std::string("k"));
    EXPECT_EQ(third->number, 3);
    // The expired entry stays; the table never learns of the third object.
    auto fourth = c->get_instance<service>(std::string("k"));
    EXPECT_NE(fourth, third);
    EXPECT_EQ(fourth->number, 4);
    EXPECT_FALSE(c->instances().contains<service>(std::string("k")));
}

}  // namespace
