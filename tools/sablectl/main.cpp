// sablectl: lists, checks and pokes the pipes of this host from the command line.
#include <cstdio>
#include <cstring>
#include <string>

#include "Args.h"
#include "Commands.h"

namespace sablectl {

namespace {

const char* const kOverview =
    "Usage: sablectl COMMAND [OPTIONS]\n"
    "\n"
    "Lists, checks and pokes the sable_comm pipes of this host.\n"
    "\n"
    "Commands:\n"
    "  ls                 list pipe and server FIFOs, who holds them, stale ones\n"
    "  call NAME          send a request to the server NAME (or a pipe peer) and print the answer\n"
    "  send NAME          send a one-way request (no answer is awaited)\n"
    "  serve NAME         run a server NAME (or one end of a pipe) and print what it receives\n"
    "  gc                 list stale FIFO files; --delete removes them\n"
    "  doctor             check the FIFO directory and the security set-up, say what to fix\n"
    "\n"
    "'sablectl COMMAND --help' describes a command. Exit status: 0 success, 1 the operation\n"
    "failed (the error code and its meaning are printed), 2 bad command line or input.\n";

const char* const kLs =
    "Usage: sablectl ls [--json] [--stale] [PATTERN...]\n"
    "\n"
    "Lists every FIFO of /dev/shm/nux/sable_comm/ and /local/dev/shm/nux/sable_comm/: pipe FIFOs\n"
    "(WRITER__to__READER) and server FIFOs (the server's name), with mode, group, security label,\n"
    "the processes that hold each open (pid, name, r/w) or lock it, and STALE when no process\n"
    "holds it nor the other FIFO of its pair. Processes of other users are seen only as root.\n"
    "PATTERNs (shell wildcards, e.g. 'app*') keep only the file names that match one of them.\n"
    "\n"
    "  --json     one JSON array of objects, for scripts\n"
    "  --stale    only stale files\n";

const char* const kCall =
    "Usage: sablectl call NAME [OPTIONS]    (request and wait for the response)\n"
    "       sablectl send NAME [OPTIONS]    (one-way request)\n"
    "\n"
    "Connects to the server NAME as a client, or with --pipe opens the pipe between --self and\n"
    "NAME, sends a request and prints the response (text, or a hex dump) and the round-trip time.\n"
    "The payload comes from --data, --hex, --file or standard input (1 to 4000 bytes).\n"
    "\n"
    "  --data TEXT         payload text\n"
    "  --hex HEX           payload bytes in hex (\"01 02 ff\", \"0102ff\", \"0x01:0x02\")\n"
    "  --file PATH         payload file ('-': standard input)\n"
    "  --pipe              a plain pipe to the process NAME instead of a server\n"
    "  --self SELF         this end's name (default: PROC_NAME, else the process name)\n"
    "  --mode create|join  with --pipe: create the FIFO pair, or wait for NAME to (default join)\n"
    "  --timeout MS        time-out of the open and of each response (default 5000)\n"
    "  --count N           send N requests; print the first response and a p50/p99 summary\n"
    "  --id ID             request id of 'send' (default 1)\n"
    "  --json              print the result as one JSON object\n"
    "\n"
    "Exit status 0 when every request succeeded, else 1 with the error code and its meaning.\n";

const char* const kServe =
    "Usage: sablectl serve NAME [--echo] [--pipe PEER [--mode create|join]] [--json]\n"
    "\n"
    "Runs the server NAME (clients connect with SabloCreateClient or 'sablectl call NAME') and\n"
    "prints every request it receives. With --pipe PEER it is instead the end NAME of the plain\n"
    "pipe between NAME and PEER (it opens it again whenever PEER goes and comes back). Runs until\n"
    "SIGINT or SIGTERM, then closes its pipes and removes the FIFO files it created.\n"
    "\n"
    "  --echo              answer every request with its own payload\n"
    "  --pipe PEER         serve one plain pipe to PEER instead of running a server\n"
    "  --mode create|join  with --pipe: create the FIFO pair (default), or wait for PEER to\n"
    "  --json              one JSON object per line for every event\n";

const char* const kGc =
    "Usage: sablectl gc [--delete] [--min-age SECONDS] [--json] [PATTERN...]\n"
    "\n"
    "Lists the stale FIFO files (no process holds them, nor the other FIFO of their pair, and no\n"
    "server holds a lock on them). With --delete they are removed, each checked again just "
    "before;\n"
    "a file a live process holds or a server's lock covers is never removed. PATTERNs (shell\n"
    "wildcards) keep only the file names that match one of them.\n"
    "\n"
    "  --delete            remove the stale files\n"
    "  --min-age SECONDS   leave files changed in the last SECONDS alone: a pipe being opened is\n"
    "                      unheld for a moment (default 2)\n"
    "  --json              one JSON array of the files and what was done\n";

const char* const kDoctor =
    "Usage: sablectl doctor [--json]\n"
    "\n"
    "Checks the FIFO directory (exists, a real directory, mode, owner, writable by this user),\n"
    "SELinux (enabled, enforcing, file-contexts directory readable) and stale FIFO files, and "
    "says\n"
    "what to fix. Exit status 1 when something needs fixing.\n";

}  // namespace

const char* HelpText(const std::string& command) {
    if (command == "ls") return kLs;
    if (command == "call" || command == "send") return kCall;
    if (command == "serve") return kServe;
    if (command == "gc") return kGc;
    if (command == "doctor") return kDoctor;
    return kOverview;
}

bool WantsHelp(const Argv& argv) {
    for (const auto& a : argv) {
        if (a == "--") return false;
        if (a == "--help" || a == "-h") return true;
    }
    return false;
}

}  // namespace sablectl

int main(int argc, char** argv) {
    using namespace sablectl;
    if (argc < 2) {
        fputs(kOverview, stderr);
        return kExitUsage;
    }
    const std::string cmd = argv[1];
    if (cmd == "--help" || cmd == "-h" || cmd == "help") {
        fputs(HelpText(argc > 2 ? argv[2] : ""), stdout);
        return kExitOk;
    }
    Argv rest(argv + 2, argv + argc);
    const bool known = cmd == "ls" || cmd == "list" || cmd == "gc" || cmd == "call" ||
                       cmd == "send" || cmd == "serve" || cmd == "doctor";
    if (!known) {
        return Fail(kExitUsage, "unknown command '" + cmd + "'; see 'sablectl --help'");
    }
    if (WantsHelp(rest)) {
        fputs(HelpText(cmd == "list" ? "ls" : cmd), stdout);
        return kExitOk;
    }
    if (cmd == "ls" || cmd == "list") return CmdLs(rest);
    if (cmd == "gc") return CmdGc(rest);
    if (cmd == "call") return CmdCall(rest, false);
    if (cmd == "send") return CmdCall(rest, true);
    if (cmd == "serve") return CmdServe(rest);
    return CmdDoctor(rest);
}
