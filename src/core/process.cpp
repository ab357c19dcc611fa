#include "core/process.h"

#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "core/log.h"
#include "core/paths.h"

extern char** environ;

void initChildAttributes(posix_spawnattr_t* attr) {
    posix_spawnattr_init(attr);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(attr, &none);
    posix_spawnattr_setsigdefault(attr, &all);
    posix_spawnattr_setflags(attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
}

int runProgram(const std::vector<std::string>& argv) {
    if (argv.empty()) return -1;
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    posix_spawnattr_t attr;
    initChildAttributes(&attr);

    pid_t pid;
    int err = posix_spawnp(&pid, args[0], nullptr, &attr, args.data(), environ);
    posix_spawnattr_destroy(&attr);
    if (err != 0) {
        kzLog("runProgram cannot start %s: %s\n", args[0], strerror(err));
        return -1;
    }
    int status;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void killLighttpd() {
    if (!isHostMode()) {
        runProgram({"killall", "lighttpd"});
        return;
    }
    std::ifstream pidFile(hostPath("/var/run/lighttpd.pid"));
    long pid = 0;
    if (!(pidFile >> pid) || pid <= 1) return;
    // Only a lighttpd: a stale pid file must not end somebody else's process.
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    if (!(comm >> name) || name != "lighttpd") return;
    kill(static_cast<pid_t>(pid), SIGTERM);
}

void startLighttpd() {
    std::string script = hostPath("/etc/init.d/S50lighttpd");
    if (isHostMode() && access(script.c_str(), X_OK) != 0) {
        hostSkip("/etc/init.d/S50lighttpd start (no init script in the root)");
        return;
    }
    runProgram({script, "start"});
}

void rebootSystem() {
    if (isHostMode()) {
        hostSkip("reboot");
        return;
    }
    runProgram({"reboot"});
}
