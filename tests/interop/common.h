#pragma once
// Shared pieces of the interop tests: the JSON lines of the Node peers and, in the tests of the
// program, `orvale` commands and `orvale serve`.

#include <gtest/gtest.h>
#include <algorithm>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>

#include "child_process.h"
#include "log_capture.h"
#include "test_certificates.h"

namespace orvale::test {

using namespace std::chrono_literals;

#ifdef ORVALE_EXE
inline std::unique_ptr<ChildProcess> orvale(std::vector<std::string> args) {
    args.insert(args.begin(), ORVALE_EXE);
    return std::make_unique<ChildProcess>(std::move(args));
}

// `orvale serve` on a free port; its URL is known once the constructor returns.
struct ServeProcess {
    explicit ServeProcess(std::vector<std::string> extra = {}) {
        if (std::find(extra.begin(), extra.end(), "--port") == extra.end())
            extra.insert(extra.begin(), {"--port", "0"});
        extra.insert(extra.begin(), "serve");
        process = orvale(std::move(extra));
        url = process->firstLine(10s).value_or("");
        if (url.empty())
            throw std::runtime_error("orvale serve printed no URL: " + process->errors());
    }
    // The same endpoint as Faye and CometD address it.
    std::string httpUrl() const { return "http" + url.substr(2); }
    std::string port() const {
        return url.substr(url.rfind(':') + 1, url.rfind('/') - url.rfind(':') - 1);
    }

    std::unique_ptr<ChildProcess> process;
    std::string url;
};
#endif

inline boost::json::object parseLine(const std::string& line) {
    boost::json::error_code ec;
    auto value = boost::json::parse(line, ec);
    return !ec && value.is_object() ? value.get_object() : boost::json::object();
}

inline std::string text(const boost::json::object& object, const char* name) {
    const auto* v = object.if_contains(name);
    return v && v->is_string() ? std::string(v->get_string()) : std::string();
}

// "<channel> <data>" of each message a Node peer printed as received.
inline std::vector<std::string> received(const ChildProcess& peer) {
    std::vector<std::string> out;
    for (const auto& line : peer.lines())
        if (auto event = parseLine(line); text(event, "event") == "received")
            out.push_back(text(event, "channel") + " " + boost::json::serialize(event.at("data")));
    return out;
}

// The result line a Node peer script ends with.
inline boost::json::object resultOf(const ChildProcess& peer) {
    const auto lines = peer.lines();
    return parseLine(lines.empty() ? std::string() : lines.back());
}

}  // namespace orvale::test
