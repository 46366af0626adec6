// Running the Node.js scripts of the interop tests.

#include "node_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace orvale::test {

namespace {

std::string sourceDir() {
    const char* dir = std::getenv("ORVALE_SOURCE_DIR");
    return dir ? dir : ".";
}

bool exists(const std::string& path) {
    struct stat info;
    return ::stat(path.c_str(), &info) == 0;
}

void closeFd(int& fd) {
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}

}  // namespace

std::string interopDir() {
    return sourceDir() + "/tests/interop";
}

std::string nodeModulesDir() {
    return interopDir() + "/node_modules";
}

std::optional<std::string> nodeUnavailable() {
    for (const char* package : {"faye", "faye-redis", "cometd", "cometd-nodejs-client"})
        if (!exists(nodeModulesDir() + "/" + package + "/package.json"))
            return "the npm package " + std::string(package) + " is not installed in " +
                   nodeModulesDir();
    return std::nullopt;
}

bool runningInCi() {
    const char* ci = std::getenv("CI");
    return ci && *ci;
}

NodeProcess::NodeProcess(const std::string& script, const std::vector<std::string>& args,
                         std::chrono::milliseconds timeout) {
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe: " + std::string(std::strerror(errno)));
    if (::pipe2(out, O_CLOEXEC) != 0) {
        ::close(in[0]);
        ::close(in[1]);
        throw std::runtime_error("pipe: " + std::string(std::strerror(errno)));
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);

    std::vector<std::string> argv{"node", interopDir() + "/" + script};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> pointers;
    for (auto& arg : argv)
        pointers.push_back(arg.data());
    pointers.push_back(nullptr);

    const int status = ::posix_spawnp(&pid_, "node", &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    stdin_ = in[1];
    stdout_ = out[0];
    if (status != 0) {
        pid_ = -1;
        closeFd(stdin_);
        closeFd(stdout_);
        throw std::runtime_error("cannot start node: " + std::string(std::strerror(status)));
    }
    // A child that exits early must not kill the test with SIGPIPE when stdin is written.
    ::signal(SIGPIPE, SIG_IGN);

    auto line = readLine(timeout);
    if (!line) {
        const std::string partial = buffered_;
        kill(SIGKILL);
        closeFd(stdin_);
        closeFd(stdout_);
        throw std::runtime_error("node " + script + " printed no line within " +
                                 std::to_string(timeout.count()) + " ms" +
                                 (partial.empty() ? "" : "; it printed: " + partial));
    }
    firstLine_ = *line;
}

NodeProcess::~NodeProcess() {
    closeFd(stdin_);
    if (pid_ > 0 && !reaped_) {
        ::kill(pid_, SIGTERM);
        reap(std::chrono::seconds(3));
    }
    closeFd(stdout_);
}

std::optional<std::string> NodeProcess::readLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto newline = buffered_.find('\n');
        if (newline != std::string::npos) {
            std::string line = buffered_.substr(0, newline);
            buffered_.erase(0, newline + 1);
            return line;
        }
        if (stdout_ < 0)
            return std::nullopt;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return std::nullopt;
        pollfd descriptor{stdout_, POLLIN, 0};
        const int ready = ::poll(&descriptor, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return std::nullopt;
        char chunk[4096];
        const ssize_t n = ::read(stdout_, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            closeFd(stdout_);
            continue;
        }
        buffered_.append(chunk, static_cast<std::size_t>(n));
    }
}

void NodeProcess::kill(int signal) {
    if (pid_ <= 0 || reaped_)
        return;
    ::kill(pid_, signal);
    if (signal == SIGKILL)
        reap(std::chrono::seconds(5));
}

bool NodeProcess::running() {
    if (pid_ <= 0 || reaped_)
        return false;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        reaped_ = true;
        return false;
    }
    return true;
}

void NodeProcess::reap(std::chrono::milliseconds bound) {
    const auto deadline = std::chrono::steady_clock::now() + bound;
    int status = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_ || (done < 0 && errno == ECHILD)) {
            reaped_ = true;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status, 0);
    reaped_ = true;
}

}  // namespace orvale::test
