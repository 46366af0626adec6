#include "spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace orvale::tools {
namespace {

// The status of `pid`, one of this process's children, once it ends within `timeout`.
std::optional<int> reap(pid_t pid, std::chrono::seconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline)
            return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return status;
}

TEST(SpawnTiedChild, ChildEndsWhenItsParentIsKilled) {
    // Orphans come back to this process rather than to init, so that it can reap them.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    int report[2];
    ASSERT_EQ(::pipe(report), 0);
    const pid_t parent = ::fork();
    ASSERT_GE(parent, 0);
    if (parent == 0) {
        ::close(report[0]);
        const int null = ::open("/dev/null", O_RDWR);
        const pid_t child = spawnTiedChild({"sleep", "60"}, null, null, -1);
        (void)!::write(report[1], &child, sizeof child);
        ::pause();
        ::_exit(0);
    }
    ::close(report[1]);
    pid_t child = 0;
    ASSERT_EQ(::read(report[0], &child, sizeof child), ssize_t(sizeof child));
    ::close(report[0]);
    ::kill(parent, SIGKILL);
    ASSERT_TRUE(reap(parent, std::chrono::seconds(5)));

    const auto status = reap(child, std::chrono::seconds(5));
    if (!status)
        ::kill(child, SIGKILL);
    ASSERT_TRUE(status) << "the child outlived its killed parent";
    EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL);
}

TEST(SpawnTiedChild, ProgramThatCannotStartFailsWithItsReason) {
    struct Case {
        const char* program;
        const char* message;
    };
    for (const Case& c : {Case{"no-such-program-here",
                               "cannot start no-such-program-here: No such "
                               "file or directory"},
                          Case{"/etc/passwd", "cannot start /etc/passwd: Permission denied"}}) {
        try {
            spawnTiedChild({c.program}, STDIN_FILENO, STDOUT_FILENO, -1);
            ADD_FAILURE() << c.program << " started";
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(std::string(error.what()), c.message);
        }
    }
}

}  // namespace
}  // namespace orvale::tools
