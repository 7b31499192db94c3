#include <pwd.h>

#include <cstdio>
#include <string>

#include "app/terminal_text.h"
#include "process/listening_sockets.h"
#include "process/process_reader.h"

namespace {

using namespace nemarro::process;
using wharfy::app::terminalSafe;
using wharfy::app::TextTable;

std::string userName(uint32_t uid) {
    if (const passwd* pw = ::getpwuid(uid)) return pw->pw_name;
    return std::to_string(uid);
}

std::string hostPort(const ListeningSocket& s) {
    return s.family == 10 /* AF_INET6 */ ? "[" + s.address + "]:" + std::to_string(s.port)
                                         : s.address + ":" + std::to_string(s.port);
}

int printListeners() {
    TextTable table({"PID", "USER", "NAME", "ADDRESS", "CLASS"});
    for (const auto& socket : ListeningSockets::read()) {
        auto info = ProcessReader::bsdInfo(socket.pid);
        if (!info || info->isZombie()) continue;
        table.add({std::to_string(socket.pid), terminalSafe(userName(info->uid)),
                   terminalSafe(info->name), terminalSafe(hostPort(socket)),
                   rawValue(socket.addressClass)});
    }
    std::fputs(table.render().c_str(), stdout);
    return 0;
}

}  // namespace

int main() { return printListeners(); }
