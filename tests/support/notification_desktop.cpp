#include "notification_desktop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>

#include "system/command_runner.h"

namespace wharfy::testing {
namespace {

constexpr const char* kDbusDaemon = "/usr/bin/dbus-daemon";
constexpr const char* kXvfb = "/usr/bin/Xvfb";
constexpr const char* kDunst = "/usr/bin/dunst";
constexpr const char* kDunstctl = "/usr/bin/dunstctl";
constexpr const char* kDbusSend = "/usr/bin/dbus-send";
constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
    return static_cast<bool>(out.flush());
}

std::optional<std::string> missingTool(std::initializer_list<const char*> tools) {
    for (const char* tool : tools)
        if (!isExecutable(tool))
            return std::string(tool) + " is missing (scripts/install-deps --test installs it)";
    return std::nullopt;
}

}  // namespace

bool isExecutable(const std::string& path) {
    return ::access(path.c_str(), X_OK) == 0;
}

std::unique_ptr<PrivateBus> PrivateBus::start(std::string& whyNot) {
    if (auto missing = missingTool({kDbusDaemon})) {
        whyNot = *missing;
        return nullptr;
    }
    std::unique_ptr<PrivateBus> bus(new PrivateBus());
    const std::string& dir = bus->dir_.path();
    for (const char* sub : {"/home", "/run", "/config"})
        ::mkdir((dir + sub).c_str(), 0700);
    // No <servicedir>: nothing is started on demand, so the bus has exactly
    // the servers that a test starts.
    const std::string config =
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
        "<busconfig>\n"
        "  <type>session</type>\n"
        "  <listen>unix:path=" +
        dir +
        "/bus</listen>\n"
        "  <auth>EXTERNAL</auth>\n"
        "  <policy context=\"default\">\n"
        "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
        "    <allow eavesdrop=\"true\"/>\n"
        "    <allow own=\"*\"/>\n"
        "  </policy>\n"
        "</busconfig>\n";
    if (dir.empty() || !writeFile(dir + "/bus.conf", config)) {
        whyNot = "could not prepare the bus's folder";
        return nullptr;
    }
    bus->daemon_ = SpawnedProcess::start(
        {kDbusDaemon, "--config-file=" + dir + "/bus.conf", "--nofork", "--print-address"},
        {{"PATH", kPath}}, dir + "/dbus.log");
    auto address = bus->daemon_ ? bus->daemon_->readLine(10) : std::nullopt;
    if (!address || address->empty()) {
        whyNot = "dbus-daemon did not start: " + readTextFile(dir + "/dbus.log").substr(0, 500);
        return nullptr;
    }
    bus->address_ = *address;
    return bus;
}

std::map<std::string, std::string> PrivateBus::environment() const {
    return {{"DBUS_SESSION_BUS_ADDRESS", address_},
            {"HOME", dir_.path() + "/home"},
            {"XDG_RUNTIME_DIR", dir_.path() + "/run"},
            {"XDG_CONFIG_HOME", dir_.path() + "/config"},
            {"PATH", kPath}};
}

std::unique_ptr<DunstDesktop> DunstDesktop::start(const PrivateBus& bus, std::string& whyNot) {
    if (auto missing = missingTool({kXvfb, kDunst, kDunstctl, kDbusSend})) {
        whyNot = *missing;
        return nullptr;
    }
    std::unique_ptr<DunstDesktop> desktop(new DunstDesktop(bus));
    const std::string& dir = bus.folder();
    desktop->xvfb_ = SpawnedProcess::start(
        {kXvfb, "-displayfd", "1", "-nolisten", "tcp", "-screen", "0", "640x480x24"},
        {{"PATH", kPath}, {"HOME", dir + "/home"}}, dir + "/xvfb.log");
    auto display = desktop->xvfb_ ? desktop->xvfb_->readLine(20) : std::nullopt;
    if (!display || display->empty()) {
        whyNot = "Xvfb did not start: " + readTextFile(dir + "/xvfb.log").substr(0, 500);
        return nullptr;
    }
    // Markup on, as in Debian's default configuration, whatever /etc/xdg says.
    if (!writeFile(dir + "/dunstrc", "[global]\n    markup = full\n    history_length = 50\n")) {
        whyNot = "could not write dunstrc";
        return nullptr;
    }
    auto env = bus.environment();
    env["DISPLAY"] = ":" + *display;
    desktop->dunst_ =
        SpawnedProcess::start({kDunst, "-config", dir + "/dunstrc"}, env, dir + "/dunst.log");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (desktop->dunst_ && !desktop->dunstctl("is-paused")) {
        if (std::chrono::steady_clock::now() >= deadline) {
            whyNot = "dunst did not come up on the private bus: " +
                     readTextFile(dir + "/dunst.log").substr(0, 500);
            return nullptr;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return desktop;
}

std::optional<std::string> DunstDesktop::dunstctl(const std::string& command) {
    SystemActionRunner runner(10.0);
    auto result = runner.run(kDunstctl, {command}, bus_.environment());
    if (result.status != 0) return std::nullopt;
    return result.output;
}

std::optional<std::vector<nlohmann::json>> DunstDesktop::received() {
    if (!dunstctl("close-all")) return std::nullopt;
    auto text = dunstctl("history");
    if (!text) return std::nullopt;
    auto history = nlohmann::json::parse(*text, nullptr, false);
    if (history.is_discarded() || !history.contains("data") || !history["data"].is_array() ||
        history["data"].empty() || !history["data"][0].is_array())
        return std::nullopt;
    // dunst lists its history newest first.
    std::vector<nlohmann::json> notifications(history["data"][0].rbegin(),
                                              history["data"][0].rend());
    return notifications;
}

std::unique_ptr<FakeNotificationServer> FakeNotificationServer::start(const std::string& busAddress,
                                                                      Mode mode,
                                                                      std::string& whyNot) {
    std::unique_ptr<FakeNotificationServer> server(new FakeNotificationServer());
    if (sd_bus_new(&server->bus_) < 0 || sd_bus_set_address(server->bus_, busAddress.c_str()) < 0 ||
        sd_bus_set_bus_client(server->bus_, 1) < 0 || sd_bus_start(server->bus_) < 0 ||
        sd_bus_request_name(server->bus_, kService, 0) < 0) {
        whyNot = "the fake server could not take " + std::string(kService);
        return nullptr;
    }
    if (mode == Mode::silent) return server;
    server->stopEvent_ = ::eventfd(0, EFD_CLOEXEC);
    if (server->stopEvent_ < 0 ||
        sd_bus_add_filter(server->bus_, &server->filter_, onMessage, server.get()) < 0) {
        whyNot = "the fake server could not listen";
        return nullptr;
    }
    server->thread_ = std::thread([s = server.get()] { s->serve(); });
    return server;
}

FakeNotificationServer::~FakeNotificationServer() {
    if (thread_.joinable()) {
        std::uint64_t one = 1;
        if (::write(stopEvent_, &one, sizeof one) != sizeof one) std::abort();
        thread_.join();
    }
    if (stopEvent_ >= 0) ::close(stopEvent_);
    sd_bus_slot_unref(filter_);
    sd_bus_close_unref(bus_);
}

std::vector<FakeNotificationServer::Received> FakeNotificationServer::received() const {
    std::lock_guard lock(mutex_);
    return received_;
}

void FakeNotificationServer::serve() {
    for (;;) {
        int r = sd_bus_process(bus_, nullptr);
        if (r < 0) return;
        if (r > 0) continue;
        pollfd fds[2] = {{sd_bus_get_fd(bus_), static_cast<short>(sd_bus_get_events(bus_)), 0},
                         {stopEvent_, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
        if (fds[1].revents != 0) return;
    }
}

int FakeNotificationServer::onMessage(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* self = static_cast<FakeNotificationServer*>(userdata);
    if (sd_bus_message_is_method_call(message, kService, "GetServerInformation"))
        return sd_bus_reply_method_return(message, "ssss", "fake", "wharfy tests", "1", "1.2");
    if (sd_bus_message_is_method_call(message, kService, "GetCapabilities"))
        return sd_bus_reply_method_return(message, "as", 2, "body", "actions");
    if (!sd_bus_message_is_method_call(message, kService, "Notify")) return 0;

    Received got;
    const char *appName = "", *icon = "", *summary = "", *body = "";
    if (sd_bus_message_read(message, "susss", &appName, &got.replacesId, &icon, &summary, &body) <
            0 ||
        sd_bus_message_skip(message, "as") < 0 ||
        sd_bus_message_enter_container(message, 'a', "{sv}") < 0)
        return -EINVAL;
    got.appName = appName;
    got.summary = summary;
    got.body = body;
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
        const char* key = "";
        const char* value = "";
        if (sd_bus_message_read(message, "s", &key) < 0) return -EINVAL;
        if (sd_bus_message_read(message, "v", "s", &value) >= 0)
            got.hints[key] = value;
        else if (sd_bus_message_skip(message, "v") < 0)
            return -EINVAL;
        sd_bus_message_exit_container(message);
    }
    std::uint32_t id = 0;
    {
        std::lock_guard lock(self->mutex_);
        self->received_.push_back(got);
        id = static_cast<std::uint32_t>(self->received_.size());
    }
    return sd_bus_reply_method_return(message, "u", id);
}

}  // namespace wharfy::testing
