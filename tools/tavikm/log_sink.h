// SPDX-License-Identifier: Apache-2.0
// Where the library's log lines go while the tool runs: appended to log.txt in the device
// directory, or written to stderr with -v. The sink also keeps the texts logged since the last
// ForgetSeen(), so the tool can tell a wrong password from other failures by what the library
// said.
#ifndef TAVIKM_TOOLS_LOG_SINK_H_
#define TAVIKM_TOOLS_LOG_SINK_H_

#include <functional>
#include <string>

namespace tavikm_tool {

// Routes liblog (and libbase, which logs through liblog) to the sink, at info and above.
void InstallLogSink(bool to_stderr);

// The file lines are appended to, given as a function that is asked for the path at the first
// line after this call (finding the device directory creates it).
void SetLogFile(std::function<std::string()> path);

// " (details in <file>)" for failure sentences, or "" when lines go to stderr.
std::string LogHint();

void ForgetSeen();
// True when a line logged since the last ForgetSeen() contains `fragment`.
bool LogSaw(const std::string& fragment);

// The cause of a library failure, from the lines logged since the last ForgetSeen(): the
// strerror text of a failed system call the library reported, else the library's first error
// line as "the library says "..."", else "".
std::string LibraryCause();

// ": <cause>" (when there is one) and LogHint(), to end a failure sentence.
std::string Why();

}  // namespace tavikm_tool

#endif  // TAVIKM_TOOLS_LOG_SINK_H_
