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

std::unique_ptr<LoadGenerator> environmentLoad;

void stopEnvironmentLoad() {
    environmentLoad.reset();
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

std::string loadGeneratorPath() {
    return WHARFY_LOAD_PATH;
}

std::unique_ptr<LoadGenerator> LoadGenerator::start(const std::string& executable, int processes,
                                                    int listeners, int extraDescriptors) {
    int in[2], out[2];
    if (::pipe(in) != 0) return nullptr;
    if (::pipe(out) != 0) {
        ::close(in[0]);
        ::close(in[1]);
        return nullptr;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, in[1]);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    std::string path = executable, n = std::to_string(processes), l = std::to_string(listeners),
                f = std::to_string(extraDescriptors);
    std::vector<char*> argv{path.data(), n.data(), l.data(), f.data(), nullptr};
    std::unique_ptr<LoadGenerator> load(new LoadGenerator);
    int rc = ::posix_spawn(&load->pid_, path.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    load->stdin_ = in[1];
    if (rc != 0) {
        load->pid_ = -1;
        ::close(out[0]);
        return nullptr;
    }
    char line[128];
    ssize_t got = ::read(out[0], line, sizeof line);
    ::close(out[0]);
    if (got <= 0) return nullptr;  // the destructor stops what did start
    load->readyLine_.assign(line, static_cast<size_t>(got));
    return load;
}

LoadGenerator::~LoadGenerator() {
    if (stdin_ >= 0) ::close(stdin_);  // end of input stops the generator and its children
    if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
}

void startLoadFromEnvironment() {
    const char* request = std::getenv("WHARFY_BENCH_LOAD");
    if (!request) return;
    int n = 0, l = 0, f = 0;
    if (std::sscanf(request, "%d:%d:%d", &n, &l, &f) != 3) {
        std::fprintf(stderr, "WHARFY_BENCH_LOAD must be N:L:F\n");
        std::exit(2);
    }
    environmentLoad = LoadGenerator::start(loadGeneratorPath(), n, l, f);
    if (!environmentLoad) {
        std::fprintf(stderr, "could not start the load generator\n");
        std::exit(2);
    }
    std::fprintf(stderr, "load (%s): %s", request, environmentLoad->readyLine().c_str());
    std::atexit(stopEnvironmentLoad);
}

}  // namespace wharfy::bench
