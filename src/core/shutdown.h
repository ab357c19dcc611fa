// The ways the daemon ends, and allStop, which halts all background work but
// leaves the daemon running.
#pragma once

constexpr int EXIT_RESTART = 58;

// Ends the process at once with the status (after flushing the log).
[[noreturn]] void endProcess(int status);

[[noreturn]] void quitProgram();
[[noreturn]] void failAndExit();
[[noreturn]] void quitNoSave();
[[noreturn]] void restartProgram();
[[noreturn]] void kzReboot();
[[noreturn]] void kTubeQuitProgram();

void allStop();
void powerDownPart2();

extern int sleepEnabled;

// SIGTERM and SIGINT end the daemon through quitProgram on the main thread.
// Call before any other thread starts, so that all of them inherit the mask.
void installSignalHandling();
