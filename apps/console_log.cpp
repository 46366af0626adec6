// Log records as "orvale [severity] channel: message" lines on stderr, or as JSON objects.

#include "console_log.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/string.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <chrono>
#include <cstdio>
#include <ctime>
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

using Backend = logging::sinks::text_ostream_backend;
using Sink = logging::sinks::synchronous_sink<Backend>;
// Set once, before the commands start their threads.
boost::shared_ptr<Sink> consoleSink;

void formatText(const logging::record_view& record, logging::formatting_ostream& out) {
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
}

std::string quoted(const std::string& text) {
    return boost::json::serialize(boost::json::string(text));
}

// UTC with milliseconds, as log collectors parse it: 2026-01-31T12:00:00.123Z.
std::string utcNow() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char buffer[40];
    const std::size_t n = std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(buffer + n, sizeof buffer - n, ".%03dZ", static_cast<int>(millis));
    return buffer;
}

void formatJson(const logging::record_view& record, logging::formatting_ostream& out) {
    const auto severity = logging::extract<int>("Severity", record);
    const auto channel = logging::extract<std::string>("Channel", record);
    const auto message = logging::extract<std::string>("Message", record);
    out << "{\"time\":\"" << utcNow() << "\",\"severity\":\""
        << severityName(severity ? *severity : 0)
        << "\",\"logger\":" << quoted(channel ? *channel : std::string());
    if (auto json = logging::extract<std::string>("Json", record)) {
        // Tagged content is JSON already; what does not parse is passed on as text.
        boost::json::error_code ec;
        const auto fields = boost::json::parse(*json, ec);
        if (ec)
            out << ",\"message\":" << quoted(*json);
        else
            out << ",\"message\":\"\",\"fields\":" << boost::json::serialize(fields);
    } else {
        out << ",\"message\":" << quoted(message ? *message : std::string());
    }
    out << "}";
}

}  // namespace

void setConsoleLogFormat(LogFormat format) {
    if (consoleSink)
        consoleSink->set_formatter(format == LogFormat::Json ? &formatJson : &formatText);
}

void setUpConsoleLog(int mask) {
    foundation::log::setEnabledMask(mask);
    auto core = logging::core::get();
    if (mask == 0) {
        // With no sink at all Boost.Log would print every record itself.
        core->set_logging_enabled(false);
        return;
    }
    auto backend = boost::make_shared<Backend>();
    backend->add_stream(boost::shared_ptr<std::ostream>(&std::cerr, NoDelete()));
    backend->auto_flush(true);
    auto sink = boost::make_shared<Sink>(backend);
    sink->set_formatter(&formatText);
    consoleSink = sink;
    core->add_sink(sink);
}

}  // namespace orvale::app
