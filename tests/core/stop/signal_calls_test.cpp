// Wharfy sends SIGTERM and nothing else. This reads every source file and
// fails on any call that can deliver a signal to a process unless SIGTERM is
// written into the call itself, so a variable or another signal cannot slip
// through. A program's own abort() is not a signal to anyone else.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace {

std::string withoutComments(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size();) {
        if (text.compare(i, 2, "//") == 0) {
            i = text.find('\n', i);
            if (i == std::string::npos) break;
        } else if (text.compare(i, 2, "/*") == 0) {
            size_t end = text.find("*/", i + 2);
            if (end == std::string::npos) break;
            i = end + 2;
        } else {
            out += text[i++];
        }
    }
    return out;
}

bool isIdentChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

std::vector<std::string> identifiers(const std::string& text) {
    std::vector<std::string> out;
    for (size_t i = 0; i < text.size();) {
        if (!isIdentChar(text[i])) {
            ++i;
            continue;
        }
        size_t j = i;
        while (j < text.size() && isIdentChar(text[j]))
            ++j;
        out.push_back(text.substr(i, j - i));
        i = j;
    }
    return out;
}

bool isSignalName(const std::string& id) {
    return id.size() > 3 && id.starts_with("SIG") &&
           std::all_of(id.begin() + 3, id.end(), [](char c) {
               return std::isupper(static_cast<unsigned char>(c)) ||
                      std::isdigit(static_cast<unsigned char>(c));
           });
}

// Each call that can deliver a signal whose arguments do not name SIGTERM
// alone, as "call(arguments)".
std::vector<std::string> offendingCalls(const std::string& source) {
    static const std::set<std::string> calls{
        "kill",   "killpg", "tkill", "tgkill", "sigqueue", "pthread_kill", "pidfd_send_signal",
        "syscall"};
    static const std::set<std::string> signalSyscalls{"SYS_kill",
                                                      "SYS_tkill",
                                                      "SYS_tgkill",
                                                      "SYS_pidfd_send_signal",
                                                      "SYS_rt_sigqueueinfo",
                                                      "SYS_rt_tgsigqueueinfo"};
    std::vector<std::string> out;
    std::string text = withoutComments(source);
    for (size_t i = 0; i < text.size();) {
        if (!isIdentChar(text[i]) || (i > 0 && isIdentChar(text[i - 1]))) {
            ++i;
            continue;
        }
        size_t j = i;
        while (j < text.size() && isIdentChar(text[j]))
            ++j;
        std::string name = text.substr(i, j - i);
        size_t open = text.find_first_not_of(" \t\n", j);
        i = j;
        if (!calls.contains(name) || open == std::string::npos || text[open] != '(') continue;
        size_t close = open + 1;
        for (int depth = 1; close < text.size() && depth > 0; ++close) {
            depth += text[close] == '(' ? 1 : text[close] == ')' ? -1 : 0;
        }
        std::string args = text.substr(open + 1, close - open - 1);
        auto ids = identifiers(args);
        auto has = [&](auto pred) { return std::any_of(ids.begin(), ids.end(), pred); };
        if (name == "syscall" &&
            !has([](const std::string& id) { return signalSyscalls.contains(id); }))
            continue;
        bool sigterm = has([](const std::string& id) { return id == "SIGTERM"; });
        bool other = has([](const std::string& id) { return isSignalName(id) && id != "SIGTERM"; });
        if (!sigterm || other) out.push_back(name + "(" + args);
    }
    return out;
}

TEST(SignalCallsTest, TheCheckCatchesEverySignalOtherThanSigterm) {
    struct Case {
        const char* source;
        bool offends;
    };
    const Case cases[] = {
        {"::kill(pid, SIGTERM);", false},
        {"::syscall(SYS_pidfd_send_signal, fd, SIGTERM, nullptr, 0);", false},
        {"// falls back to kill(2)\n", false},
        {"/* kill(pid, SIGKILL) */", false},
        {"skill(pid, 9);", false},
        {"::kill(pid, SIGKILL);", true},
        {"kill(pid, sig);", true},
        {"kill(pid,\n     9);", true},
        {"::syscall(SYS_tgkill, tgid, tid, SIGINT);", true},
        {"syscall(SYS_pidfd_send_signal, fd, signal, nullptr, 0)", true},
        {"pthread_kill(t, SIGTERM | SIGKILL);", true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(!offendingCalls(c.source).empty(), c.offends) << c.source;
    }
}

TEST(SignalCallsTest, NoSourceCanSendAnythingButSigterm) {
    size_t files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(WHARFY_SOURCE_DIR)) {
        auto ext = entry.path().extension();
        if (ext != ".cpp" && ext != ".h" && ext != ".mm") continue;
        std::ifstream in(entry.path());
        std::stringstream text;
        text << in.rdbuf();
        ++files;
        for (const auto& offence : offendingCalls(text.str())) {
            ADD_FAILURE() << entry.path() << ": " << offence;
        }
    }
    EXPECT_GT(files, 20u) << "the sources were not found at " << WHARFY_SOURCE_DIR;
}

}  // namespace
