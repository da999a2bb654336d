// The commands, and what their options are called.
#ifndef ZEVSHM_COMMANDS_H
#define ZEVSHM_COMMANDS_H

#include "options.h"

#include <string>
#include <vector>

namespace zevshm {

// Each runs a command with the words after its name and returns the exit code, or throws Failure.
int publishCommand(const std::vector<std::string> &words);
int listCommand(const std::vector<std::string> &words);
int infoCommand(const std::vector<std::string> &words);
int snapshotCommand(const std::vector<std::string> &words);
int relayCommand(const std::vector<std::string> &words);
int recordCommand(const std::vector<std::string> &words);
int topCommand(const std::vector<std::string> &words);
int dumpCommand(const std::vector<std::string> &words);

// Names are checked before anything is opened, so that a bad name has its own exit code.
void checkStoreName(const std::string &name);

} // namespace zevshm

#endif
