#include "core/process.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "core/log.h"
#include "core/paths.h"

pid_t spawnChild(const std::string& program, const std::vector<std::string>& argv, int errFd,
                 bool searchPath, int outFd) {
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    // Prepared before the fork: between fork and exec only async-signal-safe
    // calls are allowed.
    int devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) {
        if (devNull >= 0) close(devNull);
        return -1;
    }
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int sig = 1; sig < NSIG; sig++)
            signal(sig, SIG_DFL);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // The parent may have died before the line above took effect.
        if (getppid() != parent) _exit(127);
        // ffmpeg reads keys from standard input; the daemon's is not for it.
        if (devNull >= 0) dup2(devNull, 0);
        if (errFd >= 0) dup2(errFd, 2);
        if (outFd >= 0) dup2(outFd, 1);
        // Nothing else of ours: a decoder holding another fifo's write end
        // would keep that fifo's reader from ever seeing its end. The report
        // pipe goes on exec by itself.
        int keep = report[1];
        if (keep > 3) close_range(3, keep - 1, 0);
        close_range(keep + 1, ~0U, 0);
        if (searchPath)
            execvp(program.c_str(), args.data());
        else
            execv(program.c_str(), args.data());
        int err = errno;
        ssize_t ignored = write(report[1], &err, sizeof err);
        (void)ignored;
        _exit(127);
    }
    int saved = errno;
    if (devNull >= 0) close(devNull);
    close(report[1]);
    if (pid < 0) {
        close(report[0]);
        errno = saved;
        return -1;
    }
    // Closed by a successful exec, or carrying the errno of a failed one.
    int err = 0;
    ssize_t got;
    while ((got = read(report[0], &err, sizeof err)) < 0 && errno == EINTR) {
    }
    close(report[0]);
    if (got == static_cast<ssize_t>(sizeof err)) {
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        errno = err;
        return -1;
    }
    return pid;
}

int runProgram(const std::vector<std::string>& argv) {
    if (argv.empty()) return -1;
    pid_t pid = spawnChild(argv[0], argv, -1, true);
    if (pid < 0) {
        kzLog("runProgram cannot start %s: %s\n", argv[0].c_str(), strerror(errno));
        return -1;
    }
    int status;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int programOutput(const std::vector<std::string>& argv, std::string* out, size_t most, int errFd) {
    out->clear();
    if (argv.empty()) return -1;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
    pid_t pid = spawnChild(argv[0], argv, errFd, false, fds[1]);
    close(fds[1]);
    char buf[8192];
    while (pid > 0) {
        ssize_t n = read(fds[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        if (out->size() < most)
            out->append(buf, std::min(static_cast<size_t>(n), most - out->size()));
    }
    close(fds[0]);
    if (pid < 0) return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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

void nameThread(const char* name) {
    char shortName[16];
    snprintf(shortName, sizeof shortName, "%s", name);
    pthread_setname_np(pthread_self(), shortName);
}
