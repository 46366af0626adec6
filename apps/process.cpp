#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "cli.h"

extern char** environ;

namespace orvale::app {

ChildProcess::ChildProcess(const std::vector<std::string>& argv) : description_(argv.at(0)) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0)
        throw Failure("cannot make a pipe: " + std::string(std::strerror(errno)));
    if (pipe2(out, O_CLOEXEC) != 0) {
        ::close(in[0]);
        ::close(in[1]);
        throw Failure("cannot make a pipe: " + std::string(std::strerror(errno)));
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    // The load's own sockets stay with the load.
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    // The child starts with the default signal mask, whatever this process blocks.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    std::vector<char*> args;
    for (const auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    const int result = posix_spawnp(&pid_, args[0], &actions, &attributes, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(in[0]);
    ::close(out[1]);
    if (result != 0) {
        ::close(in[1]);
        ::close(out[0]);
        pid_ = -1;
        throw Failure("cannot start " + description_ + ": " + std::strerror(result));
    }
    stdinFd_ = in[1];
    stdoutFd_ = out[0];
}

ChildProcess::~ChildProcess() {
    if (stdinFd_ >= 0)
        ::close(stdinFd_);
    if (stdoutFd_ >= 0)
        ::close(stdoutFd_);
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (::waitpid(pid_, nullptr, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::string ChildProcess::firstLine(std::chrono::milliseconds timeout) {
    std::string line;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            throw Failure(description_ + " did not start in time");
        pollfd pfd{stdoutFd_, POLLIN, 0};
        const int ready = ::poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            continue;
        char c = 0;
        const ssize_t n = ::read(stdoutFd_, &c, 1);
        if (n <= 0)
            throw Failure(description_ + " exited before it was ready");
        if (c == '\n')
            return line;
        line.push_back(c);
    }
}

std::size_t ChildProcess::residentBytes() const {
    return statusBytes("VmRSS:");
}

std::size_t ChildProcess::peakResidentBytes() const {
    return statusBytes("VmHWM:");
}

std::size_t ChildProcess::statusBytes(const std::string& field) const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    std::string key;
    while (status >> key) {
        if (key == field) {
            std::size_t kib = 0;
            status >> kib;
            return kib * 1024;
        }
        std::string rest;
        std::getline(status, rest);
    }
    throw Failure("cannot read the memory of " + description_);
}

double ChildProcess::cpuSeconds() const {
    std::ifstream stat("/proc/" + std::to_string(pid_) + "/stat");
    std::string line;
    std::getline(stat, line);
    // The command name in parentheses may hold spaces; fields 14 and 15 follow it.
    const auto paren = line.rfind(')');
    if (paren == std::string::npos)
        throw Failure("cannot read the CPU time of " + description_);
    std::istringstream fields(line.substr(paren + 2));
    std::string field;
    unsigned long long user = 0, system = 0;
    for (int i = 3; i < 14 && fields >> field; ++i) {
    }
    if (!(fields >> user >> system))
        throw Failure("cannot read the CPU time of " + description_);
    return static_cast<double>(user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double ownCpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

std::string selfExecutable() {
    char buffer[4096];
    const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0)
        throw Failure("cannot find the orvale executable");
    return std::string(buffer, static_cast<std::size_t>(n));
}

}  // namespace orvale::app
