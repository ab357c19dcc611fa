// Child programs, run from an argument list: nothing that kz runs ever goes
// through a shell, so no name from a disc, the library or the web can become
// a command.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// Starts a program from an argument list with standard input on /dev/null,
// standard error on errFd (when >= 0, else inherited), nothing else open,
// default signal handling and nothing blocked, whatever the daemon set up for
// itself. The child is killed when the thread that started it ends, so a
// daemon that dies leaves no decoder behind. searchPath looks the program up
// in PATH. Returns the pid, or -1 with errno set when it could not be run.
// outFd (when >= 0) becomes its standard output.
pid_t spawnChild(const std::string& program, const std::vector<std::string>& argv, int errFd,
                 bool searchPath, int outFd = -1);

// Runs the program and waits for it. Returns its exit status, or -1 when it
// could not be started or did not exit normally.
int runProgram(const std::vector<std::string>& argv);

// Names the calling thread as top and /proc show it (at most 15 characters
// are kept), so a thread's CPU time can be told from the others'.
void nameThread(const char* name);

// Runs a program (argv[0] a path) and gathers what it writes to its
// standard output, at most `most` bytes (the rest is read and dropped, so it
// never blocks). errFd as for spawnChild. Returns its exit status, 128 plus
// the signal that ended it, or -1 when it could not be started.
int programOutput(const std::vector<std::string>& argv, std::string* out, size_t most,
                  int errFd = -1);

// "killall lighttpd". In host mode only the lighttpd whose pid is in the
// root's /var/run/lighttpd.pid is ended.
void killLighttpd();
// "/etc/init.d/S50lighttpd start". In host mode the root's copy of the init
// script, when there is one.
void startLighttpd();
// "reboot" (host mode: logged, not done).
void rebootSystem();
