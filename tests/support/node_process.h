#pragma once
// Test helper: a Node.js script from tests/interop run as a child process.
//
// The child's stdin and stdout are pipes. The constructor waits (bounded) for the first stdout
// line, which the interop scripts use to announce readiness (a server prints its port). The
// destructor closes stdin, sends SIGTERM, and kills and reaps the child if it has not exited
// within a short bound, so a failing test never leaves a process behind.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace orvale::test {

// The npm packages of the interop tests: $ORVALE_SOURCE_DIR/tests/interop/node_modules.
std::string nodeModulesDir();
// The interop scripts: $ORVALE_SOURCE_DIR/tests/interop.
std::string interopDir();
// Why Node peers cannot be used here (the packages are not installed), or nothing.
std::optional<std::string> nodeUnavailable();
// True when the environment variable CI is set: missing peers are then a failure, not a skip.
bool runningInCi();

// Skips the test when the npm packages are missing, or fails it when running in CI.
#define ORVALE_REQUIRE_NODE()                                                            \
    do {                                                                                 \
        if (auto orvaleWhyNot = ::orvale::test::nodeUnavailable()) {                     \
            if (::orvale::test::runningInCi())                                           \
                FAIL() << *orvaleWhyNot;                                                 \
            GTEST_SKIP() << *orvaleWhyNot << " (run scripts/bootstrap to install them)"; \
        }                                                                                \
    } while (0)

class NodeProcess {
  public:
    // Starts `node <interopDir>/<script> args...`; throws std::runtime_error when it cannot be
    // started or prints no first line within `timeout`.
    NodeProcess(const std::string& script, const std::vector<std::string>& args,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));
    ~NodeProcess();
    NodeProcess(const NodeProcess&) = delete;
    NodeProcess& operator=(const NodeProcess&) = delete;

    const std::string& firstLine() const { return firstLine_; }
    pid_t pid() const { return pid_; }

    // The next stdout line, or nothing when none came within `timeout` or stdout closed.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout);
    // Sends `signal` and, for SIGKILL, reaps the child at once.
    void kill(int signal);
    // Whether the child is still running (reaps it when it has exited).
    bool running();

  private:
    void reap(std::chrono::milliseconds bound);

    pid_t pid_ = -1;
    int stdin_ = -1;
    int stdout_ = -1;
    bool reaped_ = false;
    std::string buffered_;  // stdout read past the last returned line
    std::string firstLine_;
};

}  // namespace orvale::test
