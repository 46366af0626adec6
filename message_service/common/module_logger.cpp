#include "common/module_logger.h"

namespace connector::message_service {

namespace {
// Made when the module is loaded and never destroyed, so that threads still running at exit
// (timer, server) can log safely.
const auto* const logger =
    new foundation::log::basic_diagnostic_logger<char>("connector::message_service");
}  // namespace

const foundation::log::basic_diagnostic_logger<char>& moduleLogger() {
    return *logger;
}

std::string instanceLoggerName(const std::string& serviceName) {
    return "connector::message_service::" + serviceName;
}

}  // namespace connector::message_service
