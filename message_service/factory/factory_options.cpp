#include "connector/message_service/factory_options.h"

#if defined(ORVALE_HAVE_CPPMICROSERVICES)
#include <cppmicroservices/Any.h>
#include <cppmicroservices/AnyMap.h>

namespace connector::message_service {

std::unordered_map<std::string, std::string> readFactoryOptions(
    const cppmicroservices::ServiceReferenceBase& serviceReference) {
    return readFactoryOptionsFrom<cppmicroservices::AnyMap>(serviceReference);
}

}  // namespace connector::message_service
#endif
