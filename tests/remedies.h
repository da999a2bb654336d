// What a person is told when something goes wrong has two parts: what it is, and what to do about it.
#ifndef ZEV_TESTS_REMEDIES_H
#define ZEV_TESTS_REMEDIES_H

#include <regex.h>

#include <cstdlib>
#include <string>

// Whether a message ends in something to do: an instruction after a stop, or the form that is to be written.
inline bool namesARemedy(const std::string &message)
{
    static const regex_t *const instruction = [] {
        static regex_t compiled;
        if (regcomp(
                &compiled,
                "[;:,(] *(or "
                ")?(ask|check|choose|close|connect|continue|correct|create|end|give|have|install|join|keep|"
                "leave|make|move|name|publish|put|raise|remove|run|see|set|share|show|start|stop|try|use|"
                "view|wait|write) |(explains\\)|(is|are) needed[^;]*|(is|are) named [^;]*|exist|lists "
                "them|say more)[[:space:]]*$|"
                "a name has |please report it",
                REG_EXTENDED | REG_NOSUB) != 0)
            std::abort();
        return &compiled;
    }();
    return regexec(instruction, message.c_str(), 0, nullptr, 0) == 0;
}

#endif
