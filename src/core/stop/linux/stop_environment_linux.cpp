#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "core/stop/stop_environment.h"
#include "process/listening_sockets.h"

namespace wharfy {

using nemarro::process::ListenerTable;
using nemarro::process::ListeningSockets;
using nemarro::process::ProcessIdentity;
using nemarro::process::ProcessReader;

std::vector<int32_t> LiveStopEnvironment::allPIDs() {
    return ProcessReader::allPIDs();
}

std::optional<nemarro::process::BSDInfo> LiveStopEnvironment::process(int32_t pid) {
    return ProcessReader::bsdInfo(pid);
}

std::optional<std::string> LiveStopEnvironment::executablePath(int32_t pid) {
    return ProcessReader::executablePath(pid);
}

std::optional<std::vector<std::string>> LiveStopEnvironment::arguments(int32_t pid) {
    return ProcessReader::arguments(pid);
}

PortHolders LiveStopEnvironment::holders(uint16_t port) {
    ListenerTable onPort;
    for (auto& listener : ListeningSockets::table()) {
        if (listener.port == port) onPort.emplace(listener.socketID, listener);
    }
    PortHolders out;
    if (onPort.empty()) return out;
    std::set<uint64_t> attributed;
    for (int32_t pid : ProcessReader::allPIDs()) {
        for (const auto& socket : ListeningSockets::read(pid, onPort)) {
            out.pids.insert(pid);
            attributed.insert(socket.socketID);
        }
    }
    out.hidden = attributed.size() < onPort.size();
    return out;
}

ListenerRole LiveStopEnvironment::role(int32_t pid, std::optional<uint16_t> port) {
    return role_(pid, port);
}

// The pidfd names one process for as long as it is held, whatever happens to
// its pid. The start time is read after the handle is open: if it still
// matches, the process behind the pid was the planned one when the handle was
// taken (it existed before and still exists), so the signal sent through the
// handle can only reach it. There is no window between check and signal.
int LiveSignalSender::terminate(const ProcessIdentity& target) {
    long fd = ::syscall(SYS_pidfd_open, target.pid, 0);
    if (fd < 0) {
        int err = errno;
        if (err != ENOSYS) return err;
        // Kernels before 5.3 have no pidfd. The best left is a check right
        // before kill(2), which leaves the short window pidfds close.
        if (ProcessIdentity::current(target.pid) != target) return ESRCH;
        return ::kill(target.pid, SIGTERM) == 0 ? 0 : errno;
    }
    int err = 0;
    if (ProcessIdentity::current(target.pid) != target) {
        err = ESRCH;
    } else if (::syscall(SYS_pidfd_send_signal, static_cast<int>(fd), SIGTERM, nullptr, 0) != 0) {
        err = errno;
    }
    ::close(static_cast<int>(fd));
    return err;
}

}  // namespace wharfy
