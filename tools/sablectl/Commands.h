// The sablectl commands. Each takes the arguments after its name and returns the exit status.
#ifndef SABLECTL_COMMANDS_H
#define SABLECTL_COMMANDS_H

#include <string>
#include <vector>

namespace sablectl {

using Argv = std::vector<std::string>;

int CmdLs(const Argv& argv);
int CmdGc(const Argv& argv);
int CmdCall(const Argv& argv, bool oneWay);
int CmdServe(const Argv& argv);
int CmdDoctor(const Argv& argv);

// The --help text of a command ("" for the overview).
const char* HelpText(const std::string& command);
bool WantsHelp(const Argv& argv);

}  // namespace sablectl

#endif
