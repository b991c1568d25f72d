#pragma once

#include <functional>
#include <memory>
#include <typeindex>
#include <typeinfo>
#include <unordered_map>

#include "libvurohelper/exceptions.h"

namespace brenholt::monitoring_modules::libvurohelper::module {

// Creation functions, one per function type: the signature (result and arguments) is the key.
class factory_store {
public:
    struct factory_wrapper_base {
        virtual ~factory_wrapper_base() = default;
    };
    template <typename F>
    struct factory_wrapper : factory_wrapper_base {
        explicit factory_wrapper(F f) : function(std::move(f)) {}
        F function;
    };

    template <typename F>
    bool contains() const {
        return factories_.count(std::type_index(typeid(F))) != 0;
    }

    template <typename F>
    void add(F factory) {
        if (contains<F>()) throw utils::exceptions::already_contains_factory(typeid(F).name());
        factories_.emplace(std::type_index(typeid(F)), std::make_unique<factory_wrapper<F>>(std::move(factory)));
    }

    template <typename F>
    F& get() {
        auto it = factories_.find(std::type_index(typeid(F)));
        if (it == factories_.end()) throw utils::exceptions::factory_not_available(typeid(F).name());
        return static_cast<factory_wrapper<F>&>(*it->second).function;
    }

private:
    std::unordered_map<std::type_index, std::unique_ptr<factory_wrapper_base>> factories_;
};

// Objects that exist once, and objects that exist once per key (held weakly).
class instance_store {
public:
    struct instance_wrapper_base {
        virtual ~instance_wrapper_base() = default;
    };
    template <typename T>
    struct instance_wrapper : instance_wrapper_base {
        explicit instance_wrapper(std::shared_ptr<T> p) : instance(std::move(p)) {}
        std::shared_ptr<T> instance;
    };
    template <typename T, typename K, typename Hash = std::hash<K>, typename Equal = std::equal_to<void>>
    struct instance_map_wrapper : instance_wrapper_base {
        std::unordered_map<K, std::weak_ptr<T>, Hash, Equal> instances;
    };

    template <typename T>
    bool contains() const {
        auto it = instances_.find(std::type_index(typeid(T)));
        return it != instances_.end() && dynamic_cast<const instance_wrapper<T>*>(it->second.get()) != nullptr;
    }

    template <typename T>
    void add(std::shared_ptr<T> instance) {
        // Also refused where T already has a keyed table: one entry per interface.
        if (instances_.count(std::type_index(typeid(T))) != 0)
            throw utils::exceptions::already_contains_instance(typeid(T).name());
        instances_.emplace(std::type_index(typeid(T)), std::make_unique<instance_wrapper<T>>(std::move(instance)));
    }

    template <typename T>
    std::shared_ptr<T> get() const {
        if (!contains<T>()) throw utils::exceptions::instance_not_available(typeid(T).name());
        return static_cast<const instance_wrapper<T>&>(*instances_.at(std::type_index(typeid(T)))).instance;
    }

    template <typename T, typename K>
    bool contains(const K& key) const {
        const auto* table = find_table<T, K>();
        if (table == nullptr) return false;
        auto it = table->instances.find(key);
        return it != table->instances.end() && !it->second.expired();
    }

    // Inserts only where the key is absent: an expired entry stays as it is.
    template <typename T, typename K>
    void add(const K& key, std::shared_ptr<T> instance) {
        if (contains<T>(key)) throw utils::exceptions::already_contains_instance_key(typeid(T).name(), typeid(K).name());
        auto* table = find_table<T, K>();
        if (table == nullptr) {
            auto fresh = std::make_unique<map_wrapper<T, K>>();
            table = fresh.get();
            if (instances_.count(std::type_index(typeid(T))) != 0)
                throw utils::exceptions::already_contains_instance(typeid(T).name());
            instances_.emplace(std::type_index(typeid(T)), std::move(fresh));
        }
        table->instances.emplace(key, instance);
    }

    template <typename T, typename K>
    std::shared_ptr<T> get(const K& key) const {
        if (!contains<T>(key)) throw utils::exceptions::instance_not_available_key(typeid(T).name(), typeid(K).name());
        return find_table<T, K>()->instances.find(key)->second.lock();
    }

private:
    template <typename T, typename K>
    using map_wrapper = instance_map_wrapper<T, K>;

    template <typename T, typename K>
    map_wrapper<T, K>* find_table() const {
        auto it = instances_.find(std::type_index(typeid(T)));
        if (it == instances_.end()) return nullptr;
        return dynamic_cast<map_wrapper<T, K>*>(it->second.get());
    }

    std::unordered_map<std::type_index, std::unique_ptr<instance_wrapper_base>> instances_;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::module
