#pragma once
// Child processes for the interop tests and the load benchmark: `orvale` commands, Node scripts
// and redis-server. stdout is read line by line and stderr whole, each on a thread of its own;
// every wait is bounded, and the destructor kills what is still running.

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace orvale::test {

class ChildProcess {
  public:
    // Starts argv[0], searched in PATH.
    explicit ChildProcess(std::vector<std::string> argv) {
        int in[2], out[2], err[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe: " + std::string(std::strerror(errno)));
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        // stdin stays open while this object lives: some children end when it closes.
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
        // The child must not keep this process's sockets (a hub's listener, say) open.
        posix_spawn_file_actions_addclosefrom_np(&actions, 3);
        std::vector<char*> args;
        for (auto& arg : argv)
            args.push_back(arg.data());
        args.push_back(nullptr);
        const int result = posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        for (int fd : {in[0], out[1], err[1]})
            ::close(fd);
        stdin_ = in[1];
        if (result != 0) {
            ::close(out[0]);
            ::close(err[0]);
            throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(result));
        }
        readers_[0] = std::thread([this, fd = out[0]] { drain(fd, true); });
        readers_[1] = std::thread([this, fd = err[0]] { drain(fd, false); });
    }

    ~ChildProcess() {
        ::close(stdin_);
        kill(SIGKILL);
        waitExit(std::chrono::seconds(5));
        for (auto& reader : readers_)
            reader.join();
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void kill(int signal) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!exitStatus_)
            ::kill(pid_, signal);
    }

    // The first stdout line satisfying `predicate`, waiting at most `timeout`.
    std::optional<std::string> waitLine(const std::function<bool(const std::string&)>& predicate,
                                        std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        std::optional<std::string> found;
        changed_.wait_for(lock, timeout, [&] {
            for (const auto& line : lines_)
                if (predicate(line))
                    return bool(found = line);
            return open_ == 0;
        });
        return found;
    }

    std::optional<std::string> firstLine(std::chrono::milliseconds timeout) {
        return waitLine([](const std::string&) { return true; }, timeout);
    }

    // The exit status (or 128 + signal) once the child has ended and all it wrote has been
    // read, waiting at most `timeout`.
    std::optional<int> waitExit(std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        std::unique_lock<std::mutex> lock(mutex_);
        while (!exitStatus_) {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_)
                exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            else if (std::chrono::steady_clock::now() >= deadline)
                return std::nullopt;
            else
                changed_.wait_for(lock, std::chrono::milliseconds(5));
        }
        // The pipes close once the child has gone, unless a descendant of it holds them.
        changed_.wait_until(
            lock, std::max(deadline, std::chrono::steady_clock::now() + std::chrono::seconds(1)),
            [&] { return open_ == 0; });
        return exitStatus_;
    }

    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    std::string errors() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return errors_;
    }
    pid_t pid() const { return pid_; }

  private:
    void drain(int fd, bool isStdout) {
        std::string partial;
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR)
                continue;
            std::lock_guard<std::mutex> lock(mutex_);
            if (n <= 0) {
                if (!partial.empty())
                    lines_.push_back(partial);
                --open_;
                break;
            }
            if (!isStdout) {
                errors_.append(buffer, static_cast<std::size_t>(n));
                continue;
            }
            partial.append(buffer, static_cast<std::size_t>(n));
            for (std::size_t end; (end = partial.find('\n')) != std::string::npos;) {
                lines_.push_back(partial.substr(0, end));
                partial.erase(0, end + 1);
            }
            changed_.notify_all();
        }
        ::close(fd);
        changed_.notify_all();
    }

    pid_t pid_ = -1;
    int stdin_ = -1;
    std::thread readers_[2];
    mutable std::mutex mutex_;  // guards every member below
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    std::string errors_;
    int open_ = 2;  // output pipes not yet at their end
    std::optional<int> exitStatus_;
};

// Where the tests find the scripts and the program.
inline std::string sourceDir() {
    const char* dir = std::getenv("ORVALE_SOURCE_DIR");
    return dir ? dir : ".";
}

// Why the Node peers cannot run here (their npm packages are not installed), or nothing.
inline std::optional<std::string> nodeUnavailable() {
    const std::string modules = sourceDir() + "/tests/interop/node_modules";
    for (const char* package : {"faye", "faye-redis", "cometd", "cometd-nodejs-client", "puppeteer-core"}) {
        struct stat info;
        if (::stat((modules + "/" + package + "/package.json").c_str(), &info) != 0)
            return "the npm package " + std::string(package) + " is not installed in " + modules;
    }
    return std::nullopt;
}

// Skips the test when the npm packages are missing; fails it in CI (CI set), where they must be.
#define ORVALE_REQUIRE_NODE()                                                            \
    do {                                                                                 \
        if (auto orvaleWhyNot = ::orvale::test::nodeUnavailable()) {                     \
            const char* orvaleCi = std::getenv("CI");                                    \
            if (orvaleCi && *orvaleCi)                                                   \
                FAIL() << *orvaleWhyNot;                                                 \
            GTEST_SKIP() << *orvaleWhyNot << " (run scripts/bootstrap to install them)"; \
        }                                                                                \
    } while (0)

// `node <script> args...`, where a script without a folder is one of tests/interop.
inline std::unique_ptr<ChildProcess> node(const std::string& script,
                                          std::vector<std::string> args) {
    args.insert(args.begin(), script.find('/') == std::string::npos
                                  ? sourceDir() + "/tests/interop/" + script
                                  : script);
    args.insert(args.begin(), "node");
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
