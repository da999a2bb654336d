// What a person is told when something goes wrong has two parts: what it is, and what to do about it.
#ifndef ZEV_TESTS_REMEDIES_H
#define ZEV_TESTS_REMEDIES_H

#include <regex>
#include <string>

// Whether a message ends in something to do: an instruction after a stop, or the form that is to be written.
inline bool namesARemedy(const std::string &message)
{
    static const std::regex instruction(
        "[;:,(] *(or "
        ")?(ask|check|choose|close|connect|continue|correct|create|end|give|have|install|join|keep|"
        "leave|make|move|name|publish|put|raise|remove|run|see|set|share|show|start|stop|try|use|view|wait|"
        "write) |(explains\\)|(is|are) needed[^;]*|(is|are) named [^;]*|exist|lists them|say more)\\s*$|"
        "a name has |please report it");
    return std::regex_search(message, instruction);
}

#endif
