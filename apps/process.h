#pragma once
// Child processes for `orvale bench`: the hubs under load run in processes of their own, so
// that their memory can be read and their CPU is not shared with the load.

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace orvale::app {

class ChildProcess {
  public:
    // Starts `argv[0]` (searched in PATH) with stdin and stdout as pipes.
    explicit ChildProcess(const std::vector<std::string>& argv);
    // Ends the child (SIGTERM, then SIGKILL after two seconds) and reaps it.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The first line the child writes on stdout; Failure when none comes within `timeout`.
    std::string firstLine(std::chrono::milliseconds timeout);
    pid_t pid() const { return pid_; }
    // The child's resident memory, from /proc.
    std::size_t residentBytes() const;
    // The most resident memory the child has had since it started.
    std::size_t peakResidentBytes() const;
    // The CPU time the child has used so far (user and system, all threads), from /proc.
    double cpuSeconds() const;

  private:
    // A size in kB from /proc/<pid>/status, in bytes.
    std::size_t statusBytes(const std::string& field) const;

    pid_t pid_ = -1;
    int stdinFd_ = -1;
    int stdoutFd_ = -1;
    std::string description_;
};

// The program's own executable, for starting it again as a child.
std::string selfExecutable();

// The CPU time this process has used so far (user and system, all threads).
double ownCpuSeconds();

}  // namespace orvale::app
