#pragma once
// A child process for the load runs and the tests that start programs: `orvale` itself, hubs
// under load, Node scripts, redis-server and nats-server. Its stdout is read line by line and its
// stderr whole (unless the child keeps this process's stderr), each on a thread of its own; every
// wait is bounded, and the destructor ends what is still running.
//
// Thread safety: every method may be called from any thread. `mutex_` guards the output read so
// far and the exit status.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "connector/common/mutex.h"

namespace orvale::tools {

class ChildProcess {
  public:
    // Where the child's stderr goes: read into errors(), or this process's own stderr.
    enum class Errors { Capture, Inherit };

    // Starts `argv[0]` (searched in PATH) with the default signal mask and none of this
    // process's other descriptors (a hub's listener, the load's sockets). The child is killed
    // when this process ends, even by SIGKILL.
    explicit ChildProcess(std::vector<std::string> argv, Errors errors = Errors::Capture);
    // Closes the child's stdin, asks it to end (SIGTERM), kills it after two seconds, reaps it.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void kill(int signal);
    // Ends every child still running in this process (SIGTERM, then SIGKILL after two seconds),
    // for a process about to exit without running its destructors.
    static void endAll();
    // The first stdout line satisfying `predicate`, waiting at most `timeout`.
    std::optional<std::string> waitLine(const std::function<bool(const std::string&)>& predicate,
                                        std::chrono::milliseconds timeout);
    std::optional<std::string> firstLine(std::chrono::milliseconds timeout);
    // The exit status (or 128 + signal) once the child has ended and all it wrote has been
    // read, waiting at most `timeout`.
    std::optional<int> waitExit(std::chrono::milliseconds timeout);
    std::vector<std::string> lines() const;
    std::string errors() const;
    pid_t pid() const { return pid_; }
    const std::string& program() const { return program_; }

    // The child's resident memory, and the most it has had since it started, from /proc.
    std::size_t residentBytes() const;
    std::size_t peakResidentBytes() const;
    // The CPU time the child has used so far (user and system, all threads), from /proc.
    double cpuSeconds() const;

  private:
    void drain(int fd, bool isStdout);

    const std::string program_;
    pid_t pid_ = -1;
    int stdin_ = -1;
    std::vector<std::thread> readers_;
    mutable connector::common::Mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_ ORVALE_GUARDED_BY(mutex_);
    std::string errors_ ORVALE_GUARDED_BY(mutex_);
    int open_ ORVALE_GUARDED_BY(mutex_) = 0;  // output pipes not yet at their end
    std::optional<int> exitStatus_ ORVALE_GUARDED_BY(mutex_);
};

// The program's own executable, for starting it again as a child.
std::string selfExecutable();
// The CPU time a process, or this one, has used so far (user and system, all threads).
double processCpuSeconds(pid_t pid);
double ownCpuSeconds();

}  // namespace orvale::tools
