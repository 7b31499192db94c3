// Competes for the suite's host lock over the lock files given as arguments,
// for the tests that run several processes against one suite folder.
//
//   stdout: "waiting" once the lock thread has started, "acquired" when every
//           lock is held, "released" after a release.
//   stdin:  "release" releases the lock and exits 0; end of input exits 0
//           without releasing (the system frees the lock with the process).
//   stderr: the lock's log messages.
// The program dies with its parent.
#include <signal.h>
#include <sys/prctl.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "suite/host_lock.h"

int main(int argc, char** argv) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::vector<std::string> paths(argv + 1, argv + argc);
    nemarro::suite::HostLock lock(
        paths, nemarro::suite::liveLockFiles(),
        [](const std::string& message) { std::fprintf(stderr, "%s\n", message.c_str()); });
    lock.start([] {
        std::printf("acquired\n");
        std::fflush(stdout);
    });
    std::printf("waiting\n");
    std::fflush(stdout);
    std::string line;
    while (std::getline(std::cin, line)) {
        if (line == "release") {
            lock.release();
            std::printf("released\n");
            std::fflush(stdout);
            return 0;
        }
    }
    // End of input: leave without releasing, as a crashing host would.
    std::_Exit(0);
}
