#pragma once
// The program's own Boost.Log sink: log records as lines on stderr.

namespace orvale::app {

// Sends the library's log records to stderr for the severities in `mask` (8, 256, 512); a mask
// of 0 keeps stderr for the program's own messages only.
void setUpConsoleLog(int mask);

}  // namespace orvale::app
