// The orvale program: a Bayeux hub, command-line clients, a demo and a benchmark.

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "connector/log/diagnostic_logger.h"
#include "console_log.h"
#include "signals.h"

namespace {

const char* const kUsage = R"(usage: orvale [-v] COMMAND [ARGS]

Commands:
  serve   serve Bayeux clients over WebSocket and HTTP long-polling
  sub     subscribe to channels and print each message as a JSON line
  pub     publish one JSON message on a channel
  demo    a hub, a server service and a client service talking to each other
  bench   the same load against orvale serve and a Faye server, side by side

  -v      print the library's routine log lines on stderr

`orvale COMMAND --help` tells more about each command.
)";

// One line, whatever the message holds.
std::string oneLine(std::string text) {
    for (char& c : text)
        if (c == '\n' || c == '\r')
            c = ' ';
    return text;
}

// Writes the line in one piece: readers of stderr never see half of it.
void report(const std::string& line) {
    const std::string text = line + "\n";
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

// Runs the command; a failure is one line on stderr and a non-zero status.
int runCommand(const std::string& command, const orvale::app::Words& rest) {
    using namespace orvale::app;
    try {
        if (command == "serve")
            return runServe(rest);
        if (command == "sub")
            return runSub(rest);
        if (command == "pub")
            return runPub(rest);
        if (command == "demo")
            return runDemo(rest);
        if (command == "bench")
            return runBench(rest);
        report("orvale: unknown command '" + oneLine(command) + "' (orvale --help lists them)");
        return 2;
    } catch (const UsageError& e) {
        report("orvale " + command + ": " + oneLine(e.what()) + " (orvale " + command + " --help)");
        return 2;
    } catch (const std::exception& e) {
        report("orvale " + command + ": " + oneLine(e.what()));
        return 1;
    }
}

}  // namespace

int main(int argc, char** argv) {
    using namespace orvale::app;
    // Before any thread starts, so that every thread leaves these signals to sigwait.
    blockStopSignals();
    std::vector<std::string> words;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "-v" || word == "--verbose")
            verbose = true;
        else
            words.push_back(word);
    }
    if (words.empty() || words[0] == "--help" || words[0] == "-h" || words[0] == "help") {
        (words.empty() ? std::cerr : std::cout) << kUsage;
        return words.empty() ? 2 : 0;
    }
    const std::string command = words[0];
    namespace log = foundation::log;
    // Quiet by default, so that a failure is one line; the hub keeps its warnings.
    const int mask = verbose ? (log::trace | log::warning | log::error)
                             : (command == "serve" ? (log::warning | log::error) : 0);
    setUpConsoleLog(mask);
    // Serve and sub wait for the stop signals themselves, to end in order.
    if (command != "serve" && command != "sub")
        endOnStop();
    return exitUnlessStopping(runCommand(command, Words(words.begin() + 1, words.end())));
}
