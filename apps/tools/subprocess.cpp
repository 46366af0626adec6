#include "subprocess.h"

#include "spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace orvale::tools {

using connector::common::MutexLock;
using connector::common::UniqueLock;

namespace {

// Whether the child has ended, without reaping it.
bool exited(pid_t pid) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
           info.si_pid == pid;
}

// The children started and not yet reaped. A pid leaves the set before its child is reaped, so
// that a signal sent under `mutex` always reaches one of this process's own children.
struct Children {
    connector::common::Mutex mutex;
    std::set<pid_t> pids ORVALE_GUARDED_BY(mutex);

    void signalAll(int signal) {
        MutexLock lock(mutex);
        for (pid_t pid : pids)
            ::kill(pid, signal);
    }
    bool anyRunning() {
        MutexLock lock(mutex);
        for (pid_t pid : pids)
            if (!exited(pid))
                return true;
        return false;
    }
};

Children& children() {
    static auto* all = new Children;  // never destroyed: a stop may come while statics go
    return *all;
}

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> argv, Errors errors) : program_(argv.at(0)) {
    const bool capture = errors == Errors::Capture;
    int in[2], out[2], err[2] = {-1, -1};
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 ||
        (capture && pipe2(err, O_CLOEXEC) != 0))
        throw std::runtime_error("cannot make a pipe: " + std::string(std::strerror(errno)));
    // stdin stays open while this object lives: some children end when it closes.
    try {
        pid_ = spawnTiedChild(argv, in[0], out[1], capture ? err[1] : -1);
    } catch (...) {
        for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]})
            if (fd >= 0)
                ::close(fd);
        throw;
    }
    for (int fd : {in[0], out[1], err[1]})
        if (fd >= 0)
            ::close(fd);
    stdin_ = in[1];
    {
        MutexLock lock(children().mutex);
        children().pids.insert(pid_);
    }
    {
        MutexLock lock(mutex_);
        open_ = capture ? 2 : 1;
    }
    readers_.emplace_back([this, fd = out[0]] { drain(fd, true); });
    if (capture)
        readers_.emplace_back([this, fd = err[0]] { drain(fd, false); });
}

ChildProcess::~ChildProcess() {
    ::close(stdin_);
    kill(SIGTERM);
    if (!waitExit(std::chrono::seconds(2))) {
        kill(SIGKILL);
        waitExit(std::chrono::seconds(5));
    }
    for (auto& reader : readers_)
        reader.join();
}

void ChildProcess::kill(int signal) {
    MutexLock lock(mutex_);
    if (!exitStatus_)
        ::kill(pid_, signal);
}

void ChildProcess::endAll() {
    children().signalAll(SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (children().anyRunning() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    children().signalAll(SIGKILL);
}

std::optional<std::string> ChildProcess::waitLine(
    const std::function<bool(const std::string&)>& predicate, std::chrono::milliseconds timeout) {
    UniqueLock lock(mutex_);
    std::optional<std::string> found;
    changed_.wait_for(lock.native(), timeout, [&] {
        mutex_.assumeHeld();
        for (const auto& line : lines_)
            if (predicate(line))
                return bool(found = line);
        return open_ == 0;
    });
    return found;
}

std::optional<std::string> ChildProcess::firstLine(std::chrono::milliseconds timeout) {
    return waitLine([](const std::string&) { return true; }, timeout);
}

std::optional<int> ChildProcess::waitExit(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    UniqueLock lock(mutex_);
    while (!exitStatus_) {
        int status = 0;
        if (exited(pid_)) {
            {
                MutexLock forget(children().mutex);
                children().pids.erase(pid_);
            }
            ::waitpid(pid_, &status, 0);
            exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        } else if (std::chrono::steady_clock::now() >= deadline)
            return std::nullopt;
        else
            changed_.wait_for(lock.native(), std::chrono::milliseconds(5));
    }
    // The pipes close once the child has gone, unless a descendant of it holds them.
    changed_.wait_until(
        lock.native(),
        std::max(deadline, std::chrono::steady_clock::now() + std::chrono::seconds(1)), [&] {
            mutex_.assumeHeld();
            return open_ == 0;
        });
    return exitStatus_;
}

std::vector<std::string> ChildProcess::lines() const {
    MutexLock lock(mutex_);
    return lines_;
}

std::string ChildProcess::errors() const {
    MutexLock lock(mutex_);
    return errors_;
}

void ChildProcess::drain(int fd, bool isStdout) {
    std::string partial;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        MutexLock lock(mutex_);
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

namespace {

// A size in kB from /proc/<pid>/status, in bytes.
std::size_t statusBytes(pid_t pid, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
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
    throw std::runtime_error("cannot read the memory of process " + std::to_string(pid));
}

}  // namespace

std::size_t ChildProcess::residentBytes() const {
    return statusBytes(pid_, "VmRSS:");
}

std::size_t ChildProcess::peakResidentBytes() const {
    return statusBytes(pid_, "VmHWM:");
}

double ChildProcess::cpuSeconds() const {
    return processCpuSeconds(pid_);
}

double processCpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    // The command name in parentheses may hold spaces; fields 14 and 15 follow it.
    const auto paren = line.rfind(')');
    std::istringstream fields(paren == std::string::npos ? "" : line.substr(paren + 2));
    std::string field;
    unsigned long long user = 0, system = 0;
    for (int i = 3; i < 14 && fields >> field; ++i) {
    }
    if (!(fields >> user >> system))
        throw std::runtime_error("cannot read the CPU time of process " + std::to_string(pid));
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
        throw std::runtime_error("cannot find the orvale executable");
    return std::string(buffer, static_cast<std::size_t>(n));
}

}  // namespace orvale::tools
