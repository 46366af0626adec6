#pragma once
// What the interop tests and the load benchmark start: Node peers from tests/interop, and
// children run to their end.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "subprocess.h"

namespace orvale::test {

using tools::ChildProcess;

// Where the tests find the scripts and the program.
inline std::string sourceDir() {
    const char* dir = std::getenv("ORVALE_SOURCE_DIR");
    return dir ? dir : ".";
}

// Why the Node peers cannot run here (their npm packages are not installed), or nothing.
inline std::optional<std::string> nodeUnavailable() {
    const std::string modules = sourceDir() + "/tests/interop/node_modules";
    for (const char* package :
         {"faye", "faye-redis", "cometd", "cometd-nodejs-client", "puppeteer-core"}) {
        if (!std::filesystem::exists(modules + "/" + package + "/package.json"))
            return "the npm package " + std::string(package) + " is not installed in " + modules;
    }
    return std::nullopt;
}

// Skips the test when `whyNot` (an optional reason) holds; fails it in CI (CI set), where what
// the test needs must be installed.
#define ORVALE_REQUIRE(whyNot)                                                         \
    do {                                                                               \
        if (const std::optional<std::string> orvaleWhyNot = (whyNot)) {                \
            const char* orvaleCi = std::getenv("CI");                                  \
            if (orvaleCi && *orvaleCi)                                                 \
                FAIL() << *orvaleWhyNot;                                               \
            GTEST_SKIP() << *orvaleWhyNot << " (run scripts/bootstrap to install it)"; \
        }                                                                              \
    } while (0)
#define ORVALE_REQUIRE_NODE() ORVALE_REQUIRE(::orvale::test::nodeUnavailable())

// `node <script> args...`, where a script without a folder is one of tests/interop.
inline std::unique_ptr<ChildProcess> node(const std::string& script,
                                          std::vector<std::string> args) {
    args.insert(args.begin(), {"node", script.find('/') == std::string::npos
                                           ? sourceDir() + "/tests/interop/" + script
                                           : script});
    return std::make_unique<ChildProcess>(std::move(args));
}

// A Node peer that announces readiness with its first stdout line (a server prints its port);
// throws when that line does not come within `timeout`.
inline std::unique_ptr<ChildProcess> startNode(
    const std::string& script, std::vector<std::string> args,
    std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    auto child = node(script, std::move(args));
    if (!child->firstLine(timeout))
        throw std::runtime_error("node " + script + " printed no line within " +
                                 std::to_string(timeout.count()) + " ms: " + child->errors());
    return child;
}

// Runs a child to its end (at most `timeout`) and returns its exit status, or -1.
inline int run(ChildProcess& child, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    return child.waitExit(timeout).value_or(-1);
}

}  // namespace orvale::test
