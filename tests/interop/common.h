#pragma once
// Shared pieces of the interop tests: starting `orvale serve`, Node peers and their JSON lines.

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <memory>
#include <string>
#include <vector>

#include "child_process.h"

namespace orvale::test {

using namespace std::chrono_literals;

inline std::string orvaleExe() {
    return ORVALE_EXE;
}

// `orvale serve` on a free port; its URL is known once the constructor returns.
struct ServeProcess {
    explicit ServeProcess(std::vector<std::string> extra = {}) {
        std::vector<std::string> argv{orvaleExe(), "serve", "--port", "0"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        process = std::make_unique<ChildProcess>(argv);
        auto line = process->firstLine(10s);
        if (!line)
            throw std::runtime_error("orvale serve printed no URL: " + process->errors());
        url = *line;
    }
    // The same endpoint as Faye and CometD address it.
    std::string httpUrl() const { return "http" + url.substr(2); }

    std::unique_ptr<ChildProcess> process;
    std::string url;
};

// Runs a command to its end (at most `timeout`) and returns its exit status.
inline int run(ChildProcess& child, std::chrono::milliseconds timeout = 20s) {
    auto status = child.waitExit(timeout);
    return status ? *status : -1;
}

inline boost::json::object parseLine(const std::string& line) {
    boost::json::error_code ec;
    auto value = boost::json::parse(line, ec);
    if (ec || !value.is_object())
        return {};
    return value.get_object();
}

// The result line a Node peer script ends with.
inline boost::json::object resultOf(const ChildProcess& peer) {
    auto lines = peer.lines();
    for (auto it = lines.rbegin(); it != lines.rend(); ++it) {
        auto object = parseLine(*it);
        if (object.contains("result"))
            return object;
    }
    return {};
}

inline std::string text(const boost::json::object& object, const char* name) {
    const auto* v = object.if_contains(name);
    return v && v->is_string() ? std::string(v->get_string()) : std::string();
}

// The lines of `s`, without the last empty one.
inline std::vector<std::string> splitLines(const std::string& s) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start < s.size()) {
        auto end = s.find('\n', start);
        if (end == std::string::npos)
            end = s.size();
        out.push_back(s.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

}  // namespace orvale::test
