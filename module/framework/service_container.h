#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "module/framework/stores.h"

namespace brenholt::monitoring_modules::libvurohelper::module {

// Per-module registry: objects ask for an interface, never for each other by name.
class service_container {
public:
    service_container() = default;
    service_container(const service_container&) = delete;
    service_container& operator=(const service_container&) = delete;

    // The one instance of T, made by its factory on first use. The factory runs
    // under the lock; one that throws leaves nothing stored.
    template <typename T>
    std::shared_ptr<T> get_instance() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (instances_.contains<T>()) return instances_.get<T>();
        auto& factory = factories_.get<std::function<std::unique_ptr<T>()>>();
        std::shared_ptr<T> made(factory());
        instances_.add<T>(made);
        return made;
    }

    // The live instance of T for this key, or a new one from the factory.
    template <typename T, typename K>
    std::shared_ptr<T> get_instance(const K& key) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (instances_.contains<T>(key)) return instances_.get<T>(key);
        K copy = key;
        auto& factory = factories_.get<std::function<std::unique_ptr<T>(K)>>();
        std::shared_ptr<T> made(factory(copy));
        // A dead entry for this key stays as it is: add inserts only where the key is
        // absent, so from now on each asker of this key gets an object of its own.
        instances_.add<T>(key, made);
        return made;
    }

    // A new object from the factory of this signature; no store keeps it.
    template <typename T, typename... Args>
    std::shared_ptr<T> create(Args... args) {
        auto& factory = factories_.get<std::function<std::unique_ptr<T>(Args...)>>();
        return std::shared_ptr<T>(factory(std::move(args)...));
    }

    template <typename F>
    void add_factory(F factory) {
        std::lock_guard<std::mutex> lock(mutex_);
        factories_.add<F>(std::move(factory));
    }

    factory_store& factories() { return factories_; }
    instance_store& instances() { return instances_; }

private:
    instance_store instances_;
    factory_store factories_;
    std::mutex mutex_;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::module
