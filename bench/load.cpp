#include "load.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

extern char** environ;

namespace wharfy::bench {
namespace {

pid_t loadPid = -1;
int loadStdin = -1;

void stopLoad() {
    if (loadPid <= 0) return;
    ::close(loadStdin);  // end of stdin stops the generator and its children
    ::waitpid(loadPid, nullptr, 0);
    loadPid = -1;
}

}  // namespace

bool runTool(const std::string& executable, const std::vector<std::string>& arguments) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> argv{const_cast<char*>(executable.c_str())};
    for (const auto& a : arguments)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    int rc = ::posix_spawn(&pid, executable.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return false;
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string wharfyPath() {
    return WHARFY_EXE_PATH;
}

void startLoadFromEnvironment() {
    const char* request = std::getenv("WHARFY_BENCH_LOAD");
    if (!request) return;
    std::string s = request;
    for (char& c : s)
        if (c == ':') c = ' ';
    std::vector<std::string> parts;
    size_t pos = 0;
    while (pos < s.size()) {
        size_t end = s.find(' ', pos);
        if (end == std::string::npos) end = s.size();
        parts.push_back(s.substr(pos, end - pos));
        pos = end + 1;
    }
    if (parts.size() != 3) {
        std::fprintf(stderr, "WHARFY_BENCH_LOAD must be N:L:F\n");
        std::exit(2);
    }
    int in[2], out[2];
    if (::pipe(in) != 0 || ::pipe(out) != 0) std::exit(2);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, in[1]);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    std::string path = WHARFY_LOAD_PATH;
    std::vector<char*> argv{path.data(), parts[0].data(), parts[1].data(), parts[2].data(),
                            nullptr};
    if (::posix_spawn(&loadPid, path.c_str(), &actions, nullptr, argv.data(), environ) != 0)
        std::exit(2);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    loadStdin = in[1];
    char line[128] = {};
    ssize_t n = ::read(out[0], line, sizeof line - 1);
    ::close(out[0]);
    std::fprintf(stderr, "load (%s): %.*s", request, static_cast<int>(n > 0 ? n : 0), line);
    std::atexit(stopLoad);
}

}  // namespace wharfy::bench
