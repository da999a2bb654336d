// How a command fails: one line for a person, one exit code for a script.
#ifndef ZEVSHM_FAILURE_H
#define ZEVSHM_FAILURE_H

#include <stdexcept>
#include <string>

namespace zevshm {

// Listed in `zevshm --help` and in the man page; scripts depend on them.
enum ExitCode {
    ExitOk = 0,
    ExitInternal = 1,  // anything without a code of its own
    ExitUsage = 2,     // unknown command or option, value out of range
    ExitBadName = 3,   // not a store name
    ExitNoStore = 4,   // no such store, or its writer is dead or does not answer
    ExitPublished = 5, // another process publishes this name
    ExitDirectory = 6, // store directory or DMA heap missing, not writable, or not ours to read
    ExitResources = 7, // too little memory or too few descriptors
    ExitInput = 8,     // input missing, unreadable or unreachable
    ExitMedia = 9,     // input holds nothing that can be decoded
    ExitOutput = 10,   // output file cannot be written
    ExitNoFrame = 11   // the store holds no such frame
};

// The message names the thing, what happened and the remedy; main() puts "zevshm: " before it.
class Failure : public std::runtime_error
{
public:
    Failure(ExitCode code, const std::string &message) : std::runtime_error(message), m_code(code) {}
    ExitCode code() const { return m_code; }

private:
    ExitCode m_code;
};

} // namespace zevshm

#endif
