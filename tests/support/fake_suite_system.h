#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "suite_ui/suite_participant.h"

namespace wharfy::testing {

/// Folder watches the test fires by hand.
class FakeFolderWatches {
  public:
    nemarro::suite_ui::FolderWatchFactory factory() {
        return [this](const std::vector<std::string>& folders, std::function<void()> changed) {
            watched = folders;
            auto callback = std::make_shared<std::function<void()>>(std::move(changed));
            callbacks_.push_back(callback);
            return std::make_unique<Watch>(callback);
        };
    }
    /// Plays "a file changed" to every watch still alive.
    void fire() {
        for (const auto& weak : callbacks_)
            if (auto callback = weak.lock()) (*callback)();
    }
    size_t alive() const {
        size_t n = 0;
        for (const auto& weak : callbacks_)
            n += weak.expired() ? 0 : 1;
        return n;
    }

    std::vector<std::string> watched;

  private:
    struct Watch final : nemarro::suite_ui::FolderWatch {
        explicit Watch(std::shared_ptr<std::function<void()>> c) : callback(std::move(c)) {}
        std::shared_ptr<std::function<void()>> callback;
    };
    std::vector<std::weak_ptr<std::function<void()>>> callbacks_;
};

/// Open requests that stay in the test: requests are recorded, and `arrive`
/// plays a request to the listening app.
class FakeOpenRequests {
  public:
    nemarro::suite_ui::OpenRequestsFactory factory() {
        return [this](nemarro::suite::SuiteApp app, std::function<void()> onOpen) {
            auto listener = std::make_shared<std::function<void()>>(std::move(onOpen));
            listeners_[app] = listener;
            return std::make_unique<Channel>(this, listener);
        };
    }
    /// Whether `app` was listening.
    bool arrive(nemarro::suite::SuiteApp app) {
        auto it = listeners_.find(app);
        auto listener = it == listeners_.end() ? nullptr : it->second.lock();
        if (listener) (*listener)();
        return listener != nullptr;
    }

    std::vector<nemarro::suite::SuiteApp> requested;

  private:
    struct Channel final : nemarro::suite_ui::OpenRequests {
        Channel(FakeOpenRequests* o, std::shared_ptr<std::function<void()>> l)
            : owner(o), listener(std::move(l)) {}
        void requestOpen(nemarro::suite::SuiteApp app) override { owner->requested.push_back(app); }
        FakeOpenRequests* owner;
        std::shared_ptr<std::function<void()>> listener;
    };
    std::map<nemarro::suite::SuiteApp, std::weak_ptr<std::function<void()>>> listeners_;
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
