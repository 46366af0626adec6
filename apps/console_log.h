#pragma once
// The program's own Boost.Log sink: log records as lines on stderr, as text or as JSON.

namespace orvale::app {

// Sends the library's log records to stderr for the severities in `mask` (8, 256, 512); a mask
// of 0 keeps stderr for the program's own messages only.
void setUpConsoleLog(int mask);

enum class LogFormat { Text, Json };
// Switches the lines set up above between "orvale [severity] logger: message" and one JSON
// object per line, {"time","severity","logger","message"} and, for a record that carries
// structured content, "fields", for log collectors. Any thread.
void setConsoleLogFormat(LogFormat format);

}  // namespace orvale::app
