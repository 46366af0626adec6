#include "spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>

#include "connector/common/mutex.h"

extern char** environ;

namespace orvale::tools {

using connector::common::MutexLock;
using connector::common::UniqueLock;

namespace {

// The kernel sends a parent-death signal when the *thread* that forked ends, not the process,
// so every fork runs on this one thread, which lives as long as the process.
class Forker {
  public:
    static Forker& instance() {
        static auto* forker = new Forker;  // never destroyed: children may start while statics go
        return *forker;
    }

    pid_t run(std::function<pid_t()> fork) {
        std::packaged_task<pid_t()> task(std::move(fork));
        auto result = task.get_future();
        {
            MutexLock lock(mutex_);
            tasks_.push_back(std::move(task));
        }
        wake_.notify_one();
        return result.get();
    }

  private:
    Forker() {
        std::thread([this] { loop(); }).detach();
    }

    void loop() {
        for (;;) {
            std::packaged_task<pid_t()> task;
            {
                UniqueLock lock(mutex_);
                wake_.wait(lock.native(), [&] {
                    mutex_.assumeHeld();
                    return !tasks_.empty();
                });
                task = std::move(tasks_.front());
                tasks_.pop_front();
            }
            task();
        }
    }

    connector::common::Mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::packaged_task<pid_t()>> tasks_ ORVALE_GUARDED_BY(mutex_);
};

// The file `program` names, as execvp would find it, or empty.
std::string findProgram(const std::string& program) {
    if (program.find('/') != std::string::npos)
        return program;
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
    for (std::size_t start = 0; start <= dirs.size();) {
        std::size_t end = dirs.find(':', start);
        if (end == std::string::npos)
            end = dirs.size();
        std::string candidate = dirs.substr(start, end - start);
        candidate = (candidate.empty() ? "." : candidate) + "/" + program;
        // A directory passes the access test too (it can be searched), yet cannot be run: the
        // search goes on past it, as execvp's does.
        struct stat info;
        if (::stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
            ::access(candidate.c_str(), X_OK) == 0)
            return candidate;
        start = end + 1;
    }
    return {};
}

// Between fork and exec the child may only make system calls: the parent has other threads,
// whose locks the child inherits held.
[[noreturn]] void becomeChild(pid_t parent, const char* file, char* const* args, int in, int out,
                              int err, int status) {
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent)
        ::_exit(127);  // the parent is already gone
    if (::dup2(in, STDIN_FILENO) < 0 || ::dup2(out, STDOUT_FILENO) < 0 ||
        (err >= 0 && ::dup2(err, STDERR_FILENO) < 0))
        ::_exit(127);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    // Everything above the standard streams closes, except `status`, which closes on exec.
    if (status > 3)
        ::close_range(3, static_cast<unsigned>(status) - 1, 0);
    ::close_range(static_cast<unsigned>(status) + 1, ~0U, 0);
    ::execve(file, args, environ);
    const int error = errno;
    (void)!::write(status, &error, sizeof error);
    ::_exit(127);
}

}  // namespace

pid_t spawnTiedChild(const std::vector<std::string>& argv, int in, int out, int err) {
    const std::string& program = argv.at(0);
    const std::string file = findProgram(program);
    if (file.empty())
        throw std::runtime_error("cannot start " + program + ": " + std::strerror(ENOENT));
    std::vector<std::string> copies = argv;
    std::vector<char*> args;
    for (auto& arg : copies)
        args.push_back(arg.data());
    args.push_back(nullptr);
    // The child reports a failed exec through this pipe, which closes unread when exec succeeds.
    int status[2];
    if (::pipe2(status, O_CLOEXEC) != 0)
        throw std::runtime_error("cannot make a pipe: " + std::string(std::strerror(errno)));
    const pid_t parent = ::getpid();
    const pid_t pid = Forker::instance().run([&] {
        const pid_t child = ::fork();
        if (child == 0)
            becomeChild(parent, file.c_str(), args.data(), in, out, err, status[1]);
        return child < 0 ? -errno : child;
    });
    ::close(status[1]);
    int error = 0;
    ssize_t n;
    do
        n = ::read(status[0], &error, sizeof error);
    while (n < 0 && errno == EINTR);
    ::close(status[0]);
    if (pid < 0)
        throw std::runtime_error("cannot start " + program + ": " + std::strerror(-pid));
    if (n == sizeof error) {
        ::waitpid(pid, nullptr, 0);
        throw std::runtime_error("cannot start " + program + ": " + std::strerror(error));
    }
    return pid;
}

}  // namespace orvale::tools
