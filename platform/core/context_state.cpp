// Named values attached to a call or a context.

#include <string>

#include "connector/core.h"

namespace connector::common {

void ContextState::set(const std::string& name, std::any value, ContextScope scope) {
    std::any replaced;  // an old value may own anything; let it go outside the lock
    MutexLock lock(mutex_);
    auto& slot = values_[name];
    replaced = std::exchange(slot.first, std::move(value));
    slot.second = scope;
}

std::optional<std::any> ContextState::get(const std::string& name) const {
    MutexLock lock(mutex_);
    auto it = values_.find(name);
    if (it == values_.end())
        return std::nullopt;
    return it->second.first;
}

std::optional<ContextScope> ContextState::scopeOf(const std::string& name) const {
    MutexLock lock(mutex_);
    auto it = values_.find(name);
    if (it == values_.end())
        return std::nullopt;
    return it->second.second;
}

std::optional<std::string> ContextState::getString(const std::string& name) const {
    MutexLock lock(mutex_);
    auto it = values_.find(name);
    if (it == values_.end())
        return std::nullopt;
    if (const auto* text = std::any_cast<std::string>(&it->second.first))
        return *text;
    return std::nullopt;
}

}  // namespace connector::common
