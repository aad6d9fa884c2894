#include "KTAnalytics/KTFoundation/KeyValueStoring.h"

#include "KTAnalytics/Platform/Fatal.h"
#include "KTAnalytics/Platform/UserDefaults.h"

namespace kt {

UserDefaultsStore::UserDefaultsStore(std::shared_ptr<UserDefaults> defaults, std::string nameSpace)
    : defaults_(std::move(defaults)), nameSpace_(std::move(nameSpace)) {
    KT_PARAMETER_ASSERT(defaults_);
}

// The dot is part of the prefix so that name space "a" never reaches into "ab".
std::string UserDefaultsStore::fullKey(const std::string& key) const { return nameSpace_ + "." + key; }

std::optional<std::string> UserDefaultsStore::string(const std::string& key) const {
    return defaults_->string(fullKey(key));
}

std::optional<Date> UserDefaultsStore::date(const std::string& key) const { return defaults_->date(fullKey(key)); }

std::optional<double> UserDefaultsStore::number(const std::string& key) const {
    return defaults_->number(fullKey(key));
}

void UserDefaultsStore::setString(const std::optional<std::string>& value, const std::string& key) {
    if (value) {
        defaults_->set(*value, fullKey(key));
    } else {
        defaults_->removeObject(fullKey(key));
    }
}

void UserDefaultsStore::setDate(const std::optional<Date>& value, const std::string& key) {
    if (value) {
        defaults_->set(value::date(*value), fullKey(key));
    } else {
        defaults_->removeObject(fullKey(key));
    }
}

void UserDefaultsStore::setNumber(const std::optional<double>& value, const std::string& key) {
    if (value) {
        defaults_->set(*value, fullKey(key));
    } else {
        defaults_->removeObject(fullKey(key));
    }
}

void UserDefaultsStore::clear() { defaults_->removeKeysWithPrefix(nameSpace_ + "."); }

}  // namespace kt
