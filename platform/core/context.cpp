// The service registry: handlers are shared so that a call runs without the registry lock and
// survives a concurrent replacement of its handler.

#include <exception>
#include <functional>
#include <stdexcept>

#include "connector/core.h"

namespace connector {

Context::Context() : state_(std::make_shared<common::ContextState>()) {}

Context::~Context() = default;

std::size_t Context::AddressHash::operator()(const Address& a) const {
    const std::size_t h = std::hash<std::string>{}(a.service());
    return h ^
           (std::hash<std::string>{}(a.protocol()) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2));
}

void Context::registerService(const Address& address, ServiceHandler handler) {
    auto added = std::make_shared<ServiceHandler>(std::move(handler));
    std::shared_ptr<ServiceHandler> replaced;  // released after the lock: it may own anything
    common::WriterLock lock(mutex_);
    auto& slot = services_[address];
    replaced = std::exchange(slot, std::move(added));
}

bool Context::hasService(const Address& address) const {
    common::ReaderLock lock(mutex_);
    return services_.count(address) != 0;
}

Future<std::unique_ptr<Message>> Context::deliver(const Address& address,
                                                  std::unique_ptr<Message> request) {
    using Response = std::unique_ptr<Message>;
    try {
        std::shared_ptr<ServiceHandler> handler;
        {
            common::ReaderLock lock(mutex_);
            auto it = services_.find(address);
            if (it != services_.end())
                handler = it->second;
        }
        if (!handler) {
            return makeFailedFuture<Response>(
                std::runtime_error("No service registered at: " + address.toString()));
        }
        return (*handler)(*this, std::move(request));
    } catch (...) {
        return makeFailedFuture<Response>(std::current_exception());
    }
}

}  // namespace connector
