#include "spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "log_capture.h"

namespace orvale::tools {
namespace {

TEST(SpawnTiedChild, ChildEndsWhenItsParentIsKilled) {
    // Orphans come back to this process rather than to init, so that it can reap them.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    int report[2];
    ASSERT_EQ(::pipe(report), 0);
    const pid_t parent = ::fork();
    ASSERT_GE(parent, 0);
    if (parent == 0) {
        const int null = ::open("/dev/null", O_RDWR);
        const pid_t child = spawnTiedChild({"sleep", "60"}, null, null, -1);
        (void)!::write(report[1], &child, sizeof child);
        ::pause();
        ::_exit(0);
    }
    pid_t child = 0;
    ASSERT_EQ(::read(report[0], &child, sizeof child), ssize_t(sizeof child));
    ::kill(parent, SIGKILL);
    ::waitpid(parent, nullptr, 0);
    int status = 0;
    const bool ended = orvale::test::waitUntil([&] { return ::waitpid(child, &status, WNOHANG); });
    if (!ended)
        ::kill(child, SIGKILL);
    ASSERT_TRUE(ended) << "the child outlived its killed parent";
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

TEST(SpawnTiedChild, ProgramThatCannotStartFailsWithItsReason) {
    for (const auto& [program, reason] : {std::pair{"no-such-program", "No such file or directory"},
                                          std::pair{"/etc/passwd", "Permission denied"}}) {
        try {
            spawnTiedChild({program}, STDIN_FILENO, STDOUT_FILENO, -1);
            ADD_FAILURE() << program << " started";
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(error.what(), "cannot start " + std::string(program) + ": " + reason);
        }
    }
}

// A directory named like the program, earlier in PATH, is passed over as the shell passes it.
TEST(SpawnTiedChild, ProgramIsFoundPastADirectoryOfItsName) {
    char dir[] = "/tmp/orvale-spawn-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    const std::string shadow = std::string(dir) + "/true";
    ASSERT_EQ(::mkdir(shadow.c_str(), 0755), 0);
    const std::string path = std::getenv("PATH");
    ::setenv("PATH", (std::string(dir) + ":" + path).c_str(), 1);
    int status = -1;
    try {
        ::waitpid(spawnTiedChild({"true"}, STDIN_FILENO, STDOUT_FILENO, -1), &status, 0);
    } catch (const std::runtime_error& error) {
        ADD_FAILURE() << error.what();
    }
    ::setenv("PATH", path.c_str(), 1);
    ::rmdir(shadow.c_str());
    ::rmdir(dir);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
}  // namespace orvale::tools
