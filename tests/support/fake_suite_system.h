#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "suite_ui/suite_participant.h"

namespace wharfy::testing {

/// Folder watches the test fires by hand; a watch ends with its handle.
class FakeFolderWatches {
  public:
    nemarro::suite_ui::FolderWatchFactory factory() {
        return [this](const std::vector<std::string>& folders, std::function<void()> changed) {
            watched = folders;
            auto watch = std::make_unique<Watch>();
            watch->changed = std::make_shared<std::function<void()>>(std::move(changed));
            live_ = watch->changed;
            return watch;
        };
    }
    /// Plays "a file changed"; false when the watch has ended.
    bool fire() {
        auto changed = live_.lock();
        if (changed) (*changed)();
        return changed != nullptr;
    }

    std::vector<std::string> watched;

  private:
    struct Watch final : nemarro::suite_ui::FolderWatch {
        std::shared_ptr<std::function<void()>> changed;
    };
    std::weak_ptr<std::function<void()>> live_;
};

/// Open requests that stay in the test: requests sent are recorded, and
/// `arrive` plays one for the listening app.
class FakeOpenRequests {
  public:
    nemarro::suite_ui::OpenRequestsFactory factory() {
        return [this](nemarro::suite::SuiteApp, std::function<void()> onOpen) {
            auto channel = std::make_unique<Channel>(this);
            channel->onOpen = std::make_shared<std::function<void()>>(std::move(onOpen));
            listener_ = channel->onOpen;
            return channel;
        };
    }
    /// False when nobody listens any more.
    bool arrive() {
        auto onOpen = listener_.lock();
        if (onOpen) (*onOpen)();
        return onOpen != nullptr;
    }

    std::vector<nemarro::suite::SuiteApp> requested;

  private:
    struct Channel final : nemarro::suite_ui::OpenRequests {
        explicit Channel(FakeOpenRequests* o) : owner(o) {}
        void requestOpen(nemarro::suite::SuiteApp app) override { owner->requested.push_back(app); }
        FakeOpenRequests* owner;
        std::shared_ptr<std::function<void()>> onOpen;
    };
    std::weak_ptr<std::function<void()>> listener_;
};

/// Boot and monotonic clocks the test moves; `sleep` plays a suspend.
struct FakeClocks {
    std::shared_ptr<nemarro::suite_ui::ClockReading> now =
        std::make_shared<nemarro::suite_ui::ClockReading>(
            nemarro::suite_ui::ClockReading{100, 100});

    nemarro::suite_ui::SystemClocks clocks() const {
        return [now = now] { return *now; };
    }
    void sleep(double seconds) const { now->boottime += seconds; }
};

/// Shared readouts that record what they were shown.
class RecordingHosts {
  public:
    nemarro::suite_ui::SuiteHostFactory factory() {
        return [this](nemarro::suite_ui::SuiteParticipant&) {
            ++created;
            return std::make_unique<Host>(this);
        };
    }

    int created = 0;
    int alive = 0;
    std::vector<nemarro::suite_ui::SuiteReadout> shown;

  private:
    struct Host final : nemarro::suite_ui::SuiteHost {
        explicit Host(RecordingHosts* o) : owner(o) { ++owner->alive; }
        ~Host() override { --owner->alive; }
        void show(const nemarro::suite_ui::SuiteReadout& readout) override {
            owner->shown.push_back(readout);
        }
        RecordingHosts* owner;
    };
};

/// Preferences in memory; `failure` makes every store fail with that text.
class MemoryPreferences final : public nemarro::suite_ui::PreferenceStore {
  public:
    std::optional<bool> flag(std::string_view key) const override {
        auto it = flags.find(std::string(key));
        if (it == flags.end()) return std::nullopt;
        return it->second;
    }
    std::optional<std::string> setFlag(std::string_view key, bool value) override {
        if (failure) return failure;
        flags[std::string(key)] = value;
        return std::nullopt;
    }

    std::map<std::string, bool> flags;
    std::optional<std::string> failure;
};

}  // namespace wharfy::testing
