#pragma once
// The dependency registry: optional services looked up by key. A key carries the type of
// its value, so a lookup cannot return the wrong kind of service; an unset key is absent
// (a null pointer), never an error.

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace kt {

template <class T>
struct DependencyKey {
    const char* name;
};

class DependencyRegistry {
public:
    DependencyRegistry() = default;
    DependencyRegistry(const DependencyRegistry&) = delete;
    DependencyRegistry& operator=(const DependencyRegistry&) = delete;

    /// The registry that the host application fills at start.
    static DependencyRegistry& shared();

    template <class T>
    void set(const DependencyKey<T>& key, std::shared_ptr<T> value) {
        std::lock_guard lock(mutex_);
        if (value)
            values_[key.name] = std::move(value);
        else
            values_.erase(key.name);
    }

    /// The value under the key, or null when absent.
    template <class T>
    std::shared_ptr<T> get(const DependencyKey<T>& key) const {
        std::lock_guard lock(mutex_);
        auto it = values_.find(key.name);
        return it == values_.end() ? nullptr : std::static_pointer_cast<T>(it->second);
    }

    bool contains(const std::string& name) const {
        std::lock_guard lock(mutex_);
        return values_.count(name) != 0;
    }

    void removeAll() {
        std::lock_guard lock(mutex_);
        values_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::shared_ptr<void>> values_;
};

}  // namespace kt
