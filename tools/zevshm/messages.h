// What the tool says on standard error.
#ifndef ZEVSHM_MESSAGES_H
#define ZEVSHM_MESSAGES_H

#include <string>

namespace zevshm {

// One line, "zevshm: " before it; a progress line that stands there is cleared first. Threads: thread-safe.
void say(const std::string &text);

// The same with a switch: only with --verbose.
void sayVerbose(const std::string &text);
void setVerbose(bool verbose);

// Replaces the progress line; does nothing when standard error is not a terminal.
void showProgress(const std::string &text);
void endProgress();

} // namespace zevshm

#endif
