#include "core/shutdown.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "core/events.h"
#include "core/mainloop.h"
#include "core/paths.h"
#include "library/library.h"

namespace {

namespace fs = std::filesystem;

// Runs an exit in a child process (host mode, in a scratch root) and returns
// how the child ended.
template <typename F>
int exitStatusOf(F exitFunction) {
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        fs::path root = fs::temp_directory_path() / ("kz-exit-" + std::to_string(getpid()));
        fs::create_directories(root);
        setHostRoot(root.string());
        exitFunction();
        _exit(99);  // not reached: every exit is final
    }
    int status = 0;
    waitpid(pid, &status, 0);
    fs::remove_all(fs::temp_directory_path() / ("kz-exit-" + std::to_string(pid)));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Exits, EachEndsWithItsStatus) {
    EXPECT_EQ(exitStatusOf(quitProgram), 0);
    EXPECT_EQ(exitStatusOf(failAndExit), 0);
    EXPECT_EQ(exitStatusOf(quitNoSave), 0);
    EXPECT_EQ(exitStatusOf(restartProgram), EXIT_RESTART);
    EXPECT_EQ(exitStatusOf(kzReboot), 0);
    EXPECT_EQ(exitStatusOf(kTubeQuitProgram), 0);
}

// With a changed library, which exits save it.
TEST(Exits, SaveTheLibraryAsEachExitShould) {
    struct Case {
        void (*exit)();
        bool saves;
    };
    for (Case c : {Case{quitProgram, true}, Case{failAndExit, true}, Case{restartProgram, true},
                   Case{quitNoSave, false}, Case{kzReboot, false}}) {
        fs::path root = fs::temp_directory_path() / ("kz-save-" + std::to_string(getpid()));
        fs::create_directories(root);
        fflush(stdout);
        pid_t pid = fork();
        if (pid == 0) {
            setHostRoot(root.string());
            initmdb(root.string());
            addArtistToDb("Changed");
            c.exit();
        }
        waitpid(pid, nullptr, 0);
        EXPECT_EQ(fs::exists(root / "kzdb"), c.saves);
        fs::remove_all(root);
    }
}

TEST(Exits, SignalsQuitThroughTheMainLoop) {
    int status = exitStatusOf([] {
        uiQInit();
        installSignalHandling();
        kill(getpid(), SIGTERM);
        mainLoop().run();
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
