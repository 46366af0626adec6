#pragma once
// Reads the factory options of the module from the service properties of a bundle: the string
// entries of the map at "embeddedConnector.messageServiceFactoryOptions" inside the property
// "orv". Written over the names of the service framework's property API (GetProperty, Any,
// AnyMap::AtCompoundKey, any_cast) so that it works with any library offering them.
//
// Thread safety: may be called from any thread; it only reads the service reference.

#include <any>
#include <string>
#include <typeinfo>
#include <unordered_map>

namespace connector::message_service {

template <class AnyMap, class ServiceReference>
std::unordered_map<std::string, std::string> readFactoryOptionsFrom(
    const ServiceReference& reference) {
    using std::any_cast;  // makes any_cast<T>(x) name a template; the library's is found by ADL
    using Any = decltype(reference.GetProperty(std::string()));
    std::unordered_map<std::string, std::string> result;
    Any property = reference.GetProperty("orv");
    if (property.Empty() || property.Type() != typeid(AnyMap))
        return result;
    const AnyMap properties = any_cast<AnyMap>(property);
    Any options = properties.AtCompoundKey("embeddedConnector.messageServiceFactoryOptions", Any());
    if (options.Empty() || options.Type() != typeid(AnyMap))
        return result;
    for (const auto& entry : any_cast<AnyMap>(options)) {
        if (entry.second.Type() == typeid(std::string))
            result[entry.first] = any_cast<std::string>(entry.second);
    }
    return result;
}

}  // namespace connector::message_service

#if defined(ORVALE_HAVE_CPPMICROSERVICES)
#include <cppmicroservices/ServiceReference.h>

namespace connector::message_service {
std::unordered_map<std::string, std::string> readFactoryOptions(
    const cppmicroservices::ServiceReferenceBase& serviceReference);
}  // namespace connector::message_service
#endif
