#pragma once
// Child processes for the interop tests and the load benchmark: `orvale` commands, Node scripts
// and redis-server. stdout is read line by line on a thread of its own, stderr is kept whole;
// every wait is bounded, and the destructor kills what is still running.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
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
    explicit ChildProcess(std::vector<std::string> argv) : argv_(std::move(argv)) {
        int in[2];
        int out[2];
        int err[2];
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
        for (auto& arg : argv_)
            args.push_back(arg.data());
        args.push_back(nullptr);
        const int result = posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        ::close(err[1]);
        stdin_ = in[1];
        if (result != 0) {
            ::close(out[0]);
            ::close(err[0]);
            throw std::runtime_error("cannot start " + argv_[0] + ": " + std::strerror(result));
        }
        reader_ = std::thread([this, outFd = out[0], errFd = err[0]] { read(outFd, errFd); });
    }

    ~ChildProcess() {
        ::close(stdin_);
        kill(SIGKILL);
        waitExit(std::chrono::seconds(5));
        if (reader_.joinable())
            reader_.join();
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
                if (predicate(line)) {
                    found = line;
                    return true;
                }
            return outputClosed_;
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
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                break;
            }
            if (std::chrono::steady_clock::now() >= deadline)
                return std::nullopt;
            lock.unlock();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            lock.lock();
        }
        // The pipes close once the child has gone, unless a descendant of it holds them.
        const auto drained =
            std::max(deadline, std::chrono::steady_clock::now() + std::chrono::seconds(1));
        changed_.wait_until(lock, drained, [&] { return outputClosed_; });
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
    void read(int outFd, int errFd) {
        std::string partial;
        pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
        int open = 2;
        while (open > 0) {
            if (::poll(fds, 2, -1) < 0) {
                if (errno == EINTR)
                    continue;
                break;
            }
            for (auto& fd : fds) {
                if (fd.fd < 0 || !(fd.revents & (POLLIN | POLLHUP | POLLERR)))
                    continue;
                char buffer[4096];
                const ssize_t n = ::read(fd.fd, buffer, sizeof buffer);
                if (n <= 0) {
                    ::close(fd.fd);
                    fd.fd = -1;
                    --open;
                    continue;
                }
                std::lock_guard<std::mutex> lock(mutex_);
                if (fd.fd == errFd) {
                    errors_.append(buffer, static_cast<std::size_t>(n));
                    continue;
                }
                partial.append(buffer, static_cast<std::size_t>(n));
                std::size_t newline;
                while ((newline = partial.find('\n')) != std::string::npos) {
                    lines_.push_back(partial.substr(0, newline));
                    partial.erase(0, newline + 1);
                }
                changed_.notify_all();
            }
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (!partial.empty())
            lines_.push_back(partial);
        outputClosed_ = true;
        changed_.notify_all();
    }

    std::vector<std::string> argv_;
    pid_t pid_ = -1;
    int stdin_ = -1;
    std::thread reader_;
    mutable std::mutex mutex_;  // guards every member below
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    std::string errors_;
    bool outputClosed_ = false;
    std::optional<int> exitStatus_;
};

// Where the tests find the scripts and the program.
inline std::string sourceDir() {
    const char* dir = std::getenv("ORVALE_SOURCE_DIR");
    return dir ? dir : ".";
}

inline std::string interopScript(const std::string& name) {
    return sourceDir() + "/tests/interop/" + name;
}

// Why the Node peers cannot run here (their npm packages are not installed), or nothing.
inline std::optional<std::string> nodeUnavailable() {
    const std::string modules = sourceDir() + "/tests/interop/node_modules";
    for (const char* package : {"faye", "faye-redis", "cometd", "cometd-nodejs-client"}) {
        struct stat info;
        if (::stat((modules + "/" + package + "/package.json").c_str(), &info) != 0)
            return "the npm package " + std::string(package) + " is not installed in " + modules;
    }
    return std::nullopt;
}

// Skips the test when the npm packages are missing; fails it in CI (CI set), where they must be.
// For GoogleTest tests only.
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
    std::vector<std::string> argv{
        "node", script.find('/') == std::string::npos ? interopScript(script) : script};
    argv.insert(argv.end(), args.begin(), args.end());
    return std::make_unique<ChildProcess>(argv);
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

}  // namespace orvale::test
