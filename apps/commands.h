#pragma once
// The commands of the orvale program. Each takes the words after its name, returns the exit
// status, and throws UsageError or Failure for the caller to report as one line.

#include <string>
#include <vector>

namespace orvale::app {

using Words = std::vector<std::string>;

int runServe(const Words& words);
int runSub(const Words& words);
int runPub(const Words& words);
int runDemo(const Words& words);
int runBench(const Words& words);

}  // namespace orvale::app
