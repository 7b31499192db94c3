// A container engine that misbehaves, for the tests of Wharfy's engine
// reading: it serves a unix socket, prints "ready" once it listens, and
// answers every connection in the chosen mode until it is killed.
//
//   --socket PATH     where to listen (required)
//   --mode MODE       answer   a tiny well-behaved engine (the default)
//                     drip     a status line, then one byte per --interval-ms
//                     huge     a 200 MB body, sent as fast as it is read
//                     headers  a status line, then header lines without end
//                     many     a well-formed answer of 30 MB of "{}," (ten
//                              million JSON values)
//                     silent   reads the request and never answers
//   --ping-ok         answer "/_ping" well whatever the mode
//   --interval-ms N   the drip's pace (default 1000)
//   --for S           drip, headers and silent give up after S seconds and
//                     close (default: never)
//   --delay-ms N      answer mode waits this long before answering
//   --log FILE        append each request target to FILE
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::string socket;
    std::string mode = "answer";
    bool pingOk = false;
    int intervalMs = 1000;
    double forSeconds = -1;
    int delayMs = 0;
    std::string log;
};

Options options;
std::mutex logMutex;

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "hostile-engine: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(2);
}

bool sendAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool sendText(int fd, const std::string& text) {
    return sendAll(fd, text.data(), text.size());
}

std::string response(int status, const std::string& body) {
    return "HTTP/1.1 " + std::to_string(status) +
           " X\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

/// The calm engine: one running and one exited container, one 2 MB image.
std::string calmAnswer(const std::string& target) {
    if (target == "/_ping") return response(200, "OK");
    if (target == "/version") return response(200, R"({"Version":"hostile","ApiVersion":"1.41"})");
    if (target == "/v1.41/containers/json?all=1")
        return response(200, R"([{"Id":"aaaaaaaaaaaa","Names":["/calm"],"State":"running"},)"
                             R"({"Id":"bbbbbbbbbbbb","Names":["/done"],"State":"exited"}])");
    if (target == "/v1.41/system/df")
        return response(200, R"({"Images":[{"Id":"sha256:i","Size":2000000,"Containers":1}]})");
    if (target.starts_with("/v1.41/images/json")) return response(200, "[]");
    return response(404, R"({"message":"not found"})");
}

bool expired(Clock::time_point start) {
    return options.forSeconds >= 0 &&
           Clock::now() - start >= std::chrono::duration<double>(options.forSeconds);
}

void serve(int client) {
    const auto start = Clock::now();
    std::string request;
    char buffer[4096];
    while (request.find("\r\n\r\n") == std::string::npos && request.size() < 65536) {
        ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        request.append(buffer, static_cast<size_t>(n));
    }
    std::string target;
    if (request.starts_with("GET ")) target = request.substr(4, request.find(' ', 4) - 4);
    if (!options.log.empty()) {
        std::lock_guard lock(logMutex);
        std::ofstream(options.log, std::ios::app) << target << "\n";
    }

    const std::string& mode = options.mode;
    if (mode == "answer" || (options.pingOk && target == "/_ping")) {
        if (mode == "answer" && options.delayMs > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(options.delayMs));
        sendText(client, calmAnswer(target));
    } else if (mode == "drip") {
        if (sendText(client, "HTTP/1.1 200 OK\r\n")) {
            while (!expired(start) && sendText(client, "x"))
                std::this_thread::sleep_for(std::chrono::milliseconds(options.intervalMs));
        }
    } else if (mode == "huge") {
        constexpr size_t kBody = 200u * 1000 * 1000;
        static const std::string block(65536, 'x');
        if (sendText(client,
                     "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kBody) + "\r\n\r\n")) {
            for (size_t sent = 0; sent < kBody; sent += block.size())
                if (!sendAll(client, block.data(), std::min(block.size(), kBody - sent))) break;
        }
    } else if (mode == "many") {
        std::string body = "[{}";
        while (body.size() < 30u * 1000 * 1000)
            body += ",{}";
        sendText(client, response(200, body + "]"));
    } else if (mode == "headers") {
        static const std::string line = "X-Filler: " + std::string(100, 'h') + "\r\n";
        if (sendText(client, "HTTP/1.1 200 OK\r\n")) {
            while (!expired(start) && sendText(client, line)) {
            }
        }
    } else {  // silent
        while (!expired(start))
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ::close(client);
}

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) die("missing value for " + a);
            return argv[++i];
        };
        if (a == "--socket")
            o.socket = value();
        else if (a == "--mode")
            o.mode = value();
        else if (a == "--ping-ok")
            o.pingOk = true;
        else if (a == "--interval-ms")
            o.intervalMs = std::atoi(value().c_str());
        else if (a == "--for")
            o.forSeconds = std::atof(value().c_str());
        else if (a == "--delay-ms")
            o.delayMs = std::atoi(value().c_str());
        else if (a == "--log")
            o.log = value();
        else
            die("unknown option " + a);
    }
    if (o.socket.empty() || o.socket.size() >= sizeof(sockaddr_un{}.sun_path)) die("bad --socket");
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    options = parse(argc, argv);
    ::signal(SIGPIPE, SIG_IGN);

    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) die("socket");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, options.socket.data(), options.socket.size());
    ::unlink(options.socket.c_str());
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) die("bind");
    if (::listen(fd, 64) != 0) die("listen");
    std::printf("ready\n");
    std::fflush(stdout);

    while (true) {
        int client = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            die("accept");
        }
        std::thread(serve, client).detach();
    }
}
