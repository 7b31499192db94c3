// A small program the real-machine tests drive: it opens the sockets it is
// told to, optionally forks workers that share them, and reports on stdout
// one line "ready <port>... pids <pid>..." before it sleeps.
//
//   --listen ADDR:PORT   TCP listener (IPv6 in brackets, port 0 = any free)
//   --udp ADDR:PORT      UDP socket
//   --connected          a connected TCP pair to a private listener (closed)
//   --workers N          fork N workers that inherit every socket
//   --fork-on-usr1       fork one more worker on each SIGUSR1; exited workers are reaped
//   --zombie             fork a child that exits at once and is never reaped
//   --ignore-term        ignore SIGTERM
//   --exit-on-term       (default) exit 0 on SIGTERM
//   --busy               spin on the CPU instead of sleeping
//   --busy-child         fork one child that spins on the CPU (listed after the workers)
//   --uid N              drop to uid/gid N first (needs root)
//   --name NAME          set the kernel command name
//   --keep-workers       workers outlive the parent (the test must kill them)
//   --respawn            supervise: the first --listen socket is held by a child;
//                        on SIGTERM the child hands the port to a new child, then exits
//   --stdin TEXT         standard input of the --spawn program
//   --spawn PROG ARGS... (last) start PROG in a new process group and sleep;
//                        PROG prints the ready line
//   --stderr-bytes N     write N bytes to standard error first
//   --exit CODE          print "out" and exit with CODE instead of sleeping
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

namespace {

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "test-process: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(2);
}

int openSocket(const std::string& where, int type) {
    auto colon = where.rfind(':');
    if (colon == std::string::npos) die("bad address " + where);
    std::string host = where.substr(0, colon);
    int port = std::atoi(where.c_str() + colon + 1);
    bool v6 = host.size() >= 2 && host.front() == '[';
    if (v6) host = host.substr(1, host.size() - 2);
    int fd = ::socket(v6 ? AF_INET6 : AF_INET, type, 0);
    if (fd < 0) die("socket");
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (v6) {
        int only = (host == "::" || host.rfind("::ffff:", 0) == 0) ? 0 : 1;
        ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &only, sizeof only);
        sockaddr_in6 a{};
        a.sin6_family = AF_INET6;
        a.sin6_port = htons(static_cast<uint16_t>(port));
        if (::inet_pton(AF_INET6, host.c_str(), &a.sin6_addr) != 1) die("address " + host);
        if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) die("bind " + where);
    } else {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        if (::inet_pton(AF_INET, host.c_str(), &a.sin_addr) != 1) die("address " + host);
        if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) die("bind " + where);
    }
    if (type == SOCK_STREAM && ::listen(fd, 16) != 0) die("listen");
    return fd;
}

int boundPort(int fd) {
    sockaddr_storage s{};
    socklen_t len = sizeof s;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&s), &len);
    if (s.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&s)->sin6_port);
    return ntohs(reinterpret_cast<sockaddr_in*>(&s)->sin_port);
}

void onTerm(int) {
    _exit(0);
}

// A supervised child's descriptors, for its SIGTERM handler.
int gListen = -1, gNotify = -1, gGo = -1;

// Closes the port, asks the supervisor for a successor and exits only once
// the successor listens, so whoever watches sees the port reopened.
void handOff(int) {
    ::close(gListen);
    char c = 'x';
    if (::write(gNotify, &c, 1) != 1) _exit(3);
    while (::read(gGo, &c, 1) < 0 && errno == EINTR) {
    }
    _exit(0);
}

struct Supervised {
    pid_t pid;
    int go;
};

/// fork(), with the child killed when this process dies (also if it died
/// before the child could ask). Returns 0 in the child.
pid_t forkTiedChild() {
    pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid < 0) die("fork");
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) _exit(0);
    }
    return pid;
}

Supervised startSupervised(int listenFd, int notifyFd) {
    int go[2];
    if (::pipe(go) != 0) die("pipe");
    pid_t pid = forkTiedChild();
    if (pid == 0) {
        ::close(go[1]);
        gListen = listenFd;
        gNotify = notifyFd;
        gGo = go[0];
        ::signal(SIGTERM, handOff);
        for (;;)
            ::pause();
    }
    ::close(go[0]);
    ::close(listenFd);
    return {pid, go[1]};
}

[[noreturn]] void supervise(const std::string& where, int listenFd) {
    int notify[2];
    if (::pipe(notify) != 0) die("pipe");
    int port = boundPort(listenFd);
    std::string again = where.substr(0, where.rfind(':') + 1) + std::to_string(port);
    Supervised child = startSupervised(listenFd, notify[1]);
    std::printf("ready %d pids %d\n", port, child.pid);
    std::fflush(stdout);
    for (;;) {
        char c;
        if (::read(notify[0], &c, 1) != 1) continue;
        Supervised next = startSupervised(openSocket(again, SOCK_STREAM), notify[1]);
        if (::write(child.go, &c, 1) != 1) die("write");
        ::waitpid(child.pid, nullptr, 0);
        ::close(child.go);
        child = next;
    }
}

[[noreturn]] void spawnAndSleep(const std::vector<std::string>& command, const std::string* input) {
    ::setpgid(0, 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    int in[2] = {-1, -1};
    if (input) {
        if (::pipe(in) != 0) die("pipe");
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        posix_spawn_file_actions_addclose(&actions, in[1]);
    }
    std::vector<char*> argv;
    for (const auto& a : command)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) die("spawn");
    posix_spawn_file_actions_destroy(&actions);
    if (input) {
        ::close(in[0]);
        if (::write(in[1], input->data(), input->size()) < 0) die("write");
        ::close(in[1]);
    }
    ::signal(SIGTERM, onTerm);
    for (;;)
        ::pause();
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    int workers = 0;
    bool zombie = false, busy = false, ignoreTerm = false, connected = false;
    bool busyChild = false;
    bool keepWorkers = false, respawn = false, forkOnUsr1 = false;
    std::vector<int> listeners;
    std::vector<std::string> listenSpecs;
    std::string input;
    bool hasInput = false;
    long stderrBytes = 0;
    int exitCode = -1;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= args.size()) die("missing value for " + a);
            return args[++i];
        };
        if (a == "--uid") {
            auto id = static_cast<unsigned>(std::atoi(next().c_str()));
            if (::setgid(id) != 0 || ::setuid(id) != 0) die("drop privileges");
        } else if (a == "--listen") {
            listenSpecs.push_back(next());
            listeners.push_back(openSocket(listenSpecs.back(), SOCK_STREAM));
        } else if (a == "--udp")
            openSocket(next(), SOCK_DGRAM);
        else if (a == "--connected")
            connected = true;
        else if (a == "--workers")
            workers = std::atoi(next().c_str());
        else if (a == "--zombie")
            zombie = true;
        else if (a == "--ignore-term")
            ignoreTerm = true;
        else if (a == "--exit-on-term")
            ignoreTerm = false;
        else if (a == "--busy")
            busy = true;
        else if (a == "--busy-child")
            busyChild = true;
        else if (a == "--name")
            ::prctl(PR_SET_NAME, next().c_str(), 0, 0, 0);
        else if (a == "--keep-workers")
            keepWorkers = true;
        else if (a == "--fork-on-usr1")
            forkOnUsr1 = true;
        else if (a == "--respawn")
            respawn = true;
        else if (a == "--stdin") {
            input = next();
            hasInput = true;
        } else if (a == "--spawn") {
            if (i + 1 >= args.size()) die("missing program for --spawn");
            spawnAndSleep({args.begin() + static_cast<long>(i) + 1, args.end()},
                          hasInput ? &input : nullptr);
        } else if (a == "--stderr-bytes")
            stderrBytes = std::atol(next().c_str());
        else if (a == "--exit")
            exitCode = std::atoi(next().c_str());
        else
            die("unknown option " + a);
    }
    if (stderrBytes > 0) {
        std::string block(65536, 'e');
        for (long left = stderrBytes; left > 0;) {
            auto n = static_cast<size_t>(std::min<long>(left, 65536));
            if (::write(STDERR_FILENO, block.data(), n) < 0) die("write");
            left -= static_cast<long>(n);
        }
    }
    if (exitCode >= 0) {
        std::printf("out\n");
        return exitCode;
    }
    if (connected) {
        int server = openSocket("127.0.0.1:0", SOCK_STREAM);
        int client = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(boundPort(server)));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(client, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) die("connect");
        int accepted = ::accept(server, nullptr, nullptr);
        if (accepted < 0) die("accept");
        ::close(server);  // only the connected pair stays
    }
    if (respawn) {
        if (listeners.empty()) die("--respawn needs --listen");
        supervise(listenSpecs.front(), listeners.front());
    }
    ::signal(SIGTERM, ignoreTerm ? SIG_IGN : onTerm);

    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    if (forkOnUsr1) {
        ::signal(SIGCHLD, SIG_IGN);  // a killed worker's pid is free at once
        ::sigprocmask(SIG_BLOCK, &usr1, nullptr);
    }
    auto startWorker = [&] {
        pid_t pid = ::fork();
        if (pid < 0) die("fork");
        if (pid == 0) {
            if (!keepWorkers) ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;)
                ::pause();
        }
        return pid;
    };
    std::vector<pid_t> children;
    for (int w = 0; w < workers; ++w)
        children.push_back(startWorker());
    if (busyChild) {
        pid_t pid = forkTiedChild();
        if (pid == 0) {
            volatile unsigned long spin = 0;
            for (;;)
                spin = spin + 1;
        }
        children.push_back(pid);
    }
    if (zombie) {
        pid_t pid = ::fork();
        if (pid == 0) _exit(0);
        // Report ready only once it is a zombie: until it exits it still
        // holds every inherited socket. WNOWAIT leaves it unreaped.
        siginfo_t info{};
        ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
        children.push_back(pid);
    }

    std::printf("ready");
    for (int fd : listeners)
        std::printf(" %d", boundPort(fd));
    std::printf(" pids");
    for (pid_t c : children)
        std::printf(" %d", c);
    std::printf("\n");
    std::fflush(stdout);

    while (forkOnUsr1) {
        int signal = 0;
        if (::sigwait(&usr1, &signal) == 0) startWorker();
    }
    if (busy) {
        volatile unsigned long spin = 0;
        for (;;)
            spin = spin + 1;
    }
    for (;;)
        ::pause();
}
