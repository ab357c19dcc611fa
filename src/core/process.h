// Child programs, run from an argument list: nothing that kz runs ever goes
// through a shell, so no name from a disc, the library or the web can become
// a command.
#pragma once

#include <spawn.h>

#include <string>
#include <vector>

// Spawn attributes for a child that starts with default signal handling and
// nothing blocked, whatever the daemon set up for itself. The caller destroys
// them.
void initChildAttributes(posix_spawnattr_t* attr);

// Runs the program and waits for it. Returns its exit status, or -1 when it
// could not be started or did not exit normally.
int runProgram(const std::vector<std::string>& argv);

// "killall lighttpd". In host mode only the lighttpd whose pid is in the
// root's /var/run/lighttpd.pid is ended.
void killLighttpd();
// "/etc/init.d/S50lighttpd start". In host mode the root's copy of the init
// script, when there is one.
void startLighttpd();
// "reboot" (host mode: logged, not done).
void rebootSystem();
