// Log records as "orvale [severity] channel: message" lines on stderr.

#include "console_log.h"

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <iostream>

#include "connector/log/diagnostic_logger.h"

namespace orvale::app {

namespace logging = boost::log;

namespace {

const char* severityName(int severity) {
    switch (severity) {
        case foundation::log::trace:
            return "trace";
        case foundation::log::warning:
            return "warning";
        case foundation::log::error:
            return "error";
        default:
            return "log";
    }
}

// A stream the sink does not own.
struct NoDelete {
    void operator()(std::ostream*) const {}
};

}  // namespace

void setUpConsoleLog(int mask) {
    foundation::log::setEnabledMask(mask);
    auto core = logging::core::get();
    if (mask == 0) {
        // With no sink at all Boost.Log would print every record itself.
        core->set_logging_enabled(false);
        return;
    }
    using Backend = logging::sinks::text_ostream_backend;
    auto backend = boost::make_shared<Backend>();
    backend->add_stream(boost::shared_ptr<std::ostream>(&std::cerr, NoDelete()));
    backend->auto_flush(true);
    auto sink = boost::make_shared<logging::sinks::synchronous_sink<Backend>>(backend);
    sink->set_formatter([](const logging::record_view& record, logging::formatting_ostream& out) {
        const auto severity = logging::extract<int>("Severity", record);
        const auto channel = logging::extract<std::string>("Channel", record);
        const auto message = logging::extract<std::string>("Message", record);
        out << "orvale [" << severityName(severity ? *severity : 0) << "] "
            << (channel ? *channel : std::string()) << ": ";
        // A JSON-tagged record carries its content in Json; its message is only a placeholder.
        if (auto json = logging::extract<std::string>("Json", record))
            out << *json;
        else
            out << (message ? *message : std::string());
    });
    core->add_sink(sink);
}

}  // namespace orvale::app
