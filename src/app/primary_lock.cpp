#include "app/primary_lock.h"

#include "suite/host_lock.h"
#include "system/private_files.h"

namespace wharfy::app {

PrimaryLock::PrimaryLock(std::string path, Log log) : path_(std::move(path)), log_(std::move(log)) {
    if (auto made = makePrivateFolder(parentFolder(path_)); !made && log_)
        log_(made.error().message());
    lock_ = std::make_unique<nemarro::suite::HostLock>(std::vector<std::string>{path_},
                                                       nemarro::suite::liveLockFiles(),
                                                       [log = log_](const std::string& message) {
                                                           if (log) log("primary lock: " + message);
                                                       });
}

PrimaryLock::~PrimaryLock() = default;

void PrimaryLock::start(std::function<void()> acquired) {
    lock_->start(std::move(acquired));
}

bool PrimaryLock::isHeld() const {
    return lock_->isHeld();
}

void PrimaryLock::release() {
    lock_->release();
}

}  // namespace wharfy::app
