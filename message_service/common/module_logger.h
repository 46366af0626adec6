#pragma once
// The module's own logger, "connector::message_service", made when the module is loaded.

#include "connector/log/diagnostic_logger.h"

namespace connector::message_service {

const foundation::log::basic_diagnostic_logger<char>& moduleLogger();

// The name of an instance logger: "connector::message_service::" + service name.
std::string instanceLoggerName(const std::string& serviceName);

}  // namespace connector::message_service
