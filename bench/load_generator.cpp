// Load for the benchmarks: forks N sleeping processes, L of them listening
// on TCP, each holding F extra descriptors, then waits until told to stop.
//
//   wharfy_load N L F      prints "ready <pid>" once every child is set up;
//                          SIGTERM or SIGINT (or end of stdin) stops all.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

volatile sig_atomic_t stopping = 0;
void onStop(int) {
    stopping = 1;
}

[[noreturn]] void child(bool listening, int extra, int readyFd) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::signal(SIGTERM, SIG_DFL);
    ::signal(SIGINT, SIG_DFL);
    for (int i = 0; i < extra; ++i)
        ::open("/dev/null", O_RDONLY);
    if (listening) {
        // Alternate address families so the load has both tables.
        static int turn = 0;
        int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(turn++ % 2 ? INADDR_LOOPBACK : INADDR_ANY);
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
            ::listen(fd, 4) != 0)
            _exit(3);
    }
    char ok = 1;
    if (::write(readyFd, &ok, 1) != 1) _exit(4);
    ::close(readyFd);
    for (;;)
        ::pause();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: wharfy_load PROCESSES LISTENERS EXTRA_FDS\n");
        return 2;
    }
    const int n = std::atoi(argv[1]), listeners = std::atoi(argv[2]), extra = std::atoi(argv[3]);
    struct sigaction sa {};
    sa.sa_handler = onStop;
    ::sigaction(SIGTERM, &sa, nullptr);
    ::sigaction(SIGINT, &sa, nullptr);

    int ready[2];
    if (::pipe(ready) != 0) return 1;
    std::vector<pid_t> children;
    for (int i = 0; i < n; ++i) {
        pid_t pid = ::fork();
        if (pid < 0) {
            std::perror("fork");
            break;
        }
        if (pid == 0) {
            ::close(ready[0]);
            child(i < listeners, extra, ready[1]);
        }
        children.push_back(pid);
    }
    ::close(ready[1]);
    size_t got = 0;
    char c;
    while (got < children.size() && ::read(ready[0], &c, 1) == 1)
        ++got;
    std::printf("ready %d processes=%zu\n", static_cast<int>(::getpid()), got);
    std::fflush(stdout);

    while (!stopping) {
        pollfd in{STDIN_FILENO, POLLIN, 0};
        if (::poll(&in, 1, 200) > 0) {
            char buf[64];
            if (::read(STDIN_FILENO, buf, sizeof buf) <= 0) break;
        }
    }
    for (pid_t pid : children)
        ::kill(pid, SIGTERM);
    for (pid_t pid : children)
        ::waitpid(pid, nullptr, 0);
    return got == children.size() ? 0 : 1;
}
