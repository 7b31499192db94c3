// Wharfy sends SIGTERM and nothing else. This reads every source file and
// fails on any call that can deliver a signal to a process unless SIGTERM is
// written into the call itself, so a variable or another signal cannot slip
// through. A program's own abort() is not a signal to anyone else.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
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

// Each call that can deliver a signal whose arguments do not name SIGTERM
// alone, as "call(arguments)".
std::vector<std::string> offendingCalls(const std::string& source) {
    static const std::regex call(
        R"((?:^|[^A-Za-z0-9_])(kill|killpg|tkill|tgkill|sigqueue|pthread_kill|pidfd_send_signal|syscall)\s*\()");
    static const std::regex signalSyscall(
        R"(SYS_(kill|tkill|tgkill|pidfd_send_signal|rt_sigqueueinfo|rt_tgsigqueueinfo)\b)");
    static const std::regex otherSignal(R"(\bSIG(?!TERM\b)[A-Z0-9]+\b)");
    std::vector<std::string> out;
    std::string text = withoutComments(source);
    for (std::sregex_iterator it(text.begin(), text.end(), call), end; it != end; ++it) {
        size_t open = static_cast<size_t>(it->position(0) + it->length(0));
        size_t close = open;
        for (int depth = 1; close < text.size() && depth > 0; ++close) {
            depth += text[close] == '(' ? 1 : text[close] == ')' ? -1 : 0;
        }
        std::string args = text.substr(open, close - open);
        std::string name = (*it)[1];
        if (name == "syscall" && !std::regex_search(args, signalSyscall)) continue;
        bool ok =
            args.find("SIGTERM") != std::string::npos && !std::regex_search(args, otherSignal);
        if (!ok) out.push_back(name + "(" + args);
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
        {"kill(-group, SIGTERM)", false},
        {"::syscall(SYS_pidfd_send_signal, fd, SIGTERM, nullptr, 0);", false},
        {"// falls back to kill(2)\n", false},
        {"/* kill(pid, SIGKILL) */", false},
        {"::syscall(SYS_getdents64, fd, buf, n);", false},
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
