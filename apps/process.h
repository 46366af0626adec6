#pragma once
// Child processes for `orvale bench`: the hubs under load run in processes of their own, so
// that their memory can be read and their CPU is not shared with the load. Their stderr stays
// this program's, where their log lines belong.

#include <chrono>
#include <string>
#include <vector>

#include "cli.h"
#include "subprocess.h"

namespace orvale::app {

using tools::ownCpuSeconds;
using tools::selfExecutable;

class ChildProcess : public tools::ChildProcess {
  public:
    explicit ChildProcess(const std::vector<std::string>& argv)
        : tools::ChildProcess(argv, Errors::Inherit) {}

    // The first line the child writes on stdout; Failure when none comes within `timeout`.
    std::string firstLine(std::chrono::milliseconds timeout) {
        if (auto line = tools::ChildProcess::firstLine(timeout))
            return *line;
        throw Failure(program() + " wrote no line within " + std::to_string(timeout.count()) +
                      " ms");
    }
};

}  // namespace orvale::app
