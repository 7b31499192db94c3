#include "app/containers_command.h"

#include <cstdio>

#include "app/terminal_text.h"
#include "core/containers/container_actions.h"

namespace wharfy::app {
namespace {

using nlohmann::json;

uint64_t nonNegative(int64_t v) {
    return v < 0 ? 0 : static_cast<uint64_t>(v);
}

std::optional<uint64_t> allocatedTotal(const std::vector<DiskFile>& files) {
    if (files.empty()) return std::nullopt;
    uint64_t total = 0;
    for (const auto& f : files)
        total += f.allocatedBytes;
    return total;
}

std::string portsText(const ContainerInfo& c) {
    std::string out;
    for (const auto& p : c.ports) {
        if (!p.publicPort) continue;
        if (!out.empty()) out += ", ";
        if (p.ip && !p.ip->empty())
            out += (p.ip->find(':') != std::string::npos ? "[" + *p.ip + "]" : *p.ip) + ":";
        out += std::to_string(*p.publicPort) + "->" + std::to_string(p.privatePort) + "/" + p.type;
    }
    return out;
}

}  // namespace

RuntimeReport readRuntime(const RuntimeInfo& runtime, ContainerService* service) {
    RuntimeReport report{
        runtime, {}, std::nullopt, VMDiskMeter::measure(runtime.diskImagePaths), std::nullopt};
    if (!runtime.isMeasurable() || service == nullptr) return report;
    auto containers = service->containers();
    if (!containers) {
        report.error = "Could not read containers (" + containers.error().description() + ").";
        return report;
    }
    report.containers = std::move(containers).value();
    auto sizes = service->sizes(false);
    if (!sizes) {
        report.error = "Could not read sizes (" + sizes.error().description() + ").";
        return report;
    }
    report.sizes = std::move(sizes).value();
    return report;
}

std::vector<RuntimeReport> readRuntimes(const std::string& home,
                                        const std::optional<std::string>& xdgRuntimeDir) {
    RuntimeDetector detector(home, xdgRuntimeDir, std::make_shared<LiveDetectorFileSystem>());
    std::vector<RuntimeReport> reports;
    for (const auto& runtime : detector.detect()) {
        if (runtime.isMeasurable()) {
            auto service = ContainerService::forSocket(*runtime.socketPath);
            reports.push_back(readRuntime(runtime, &service));
        } else {
            reports.push_back(readRuntime(runtime, nullptr));
        }
    }
    return reports;
}

json containersJson(const std::vector<RuntimeReport>& reports) {
    json runtimes = json::array();
    for (const auto& r : reports) {
        json o = json::object();
        o["runtime"] = r.runtime.displayName;
        if (!r.runtime.diskImagePaths.empty()) {
            json files = json::array();
            for (const auto& f : r.diskFiles)
                files.push_back({{"path", f.path},
                                 {"allocatedBytes", f.allocatedBytes},
                                 {"nominalBytes", f.nominalBytes}});
            o["diskFiles"] = std::move(files);
            if (auto total = allocatedTotal(r.diskFiles)) o["macDiskBytes"] = *total;
        }
        if (r.runtime.remoteEndpoint) {
            o["state"] = "remote";
            o["remoteEndpoint"] = *r.runtime.remoteEndpoint;
        } else if (!r.runtime.isMeasurable()) {
            o["state"] = "notRunning";
        } else {
            o["socket"] = *r.runtime.socketPath;
            if (r.error) o["error"] = *r.error;
            if (!r.error || r.sizes) {
                ContainerCounts counts{r.containers};
                o["running"] = counts.running();
                o["stopped"] = counts.stopped();
            }
            if (r.sizes) {
                const DiskUsage& u = r.sizes->usage;
                o["imagesBytes"] = nonNegative(u.imagesSize());
                o["imageCount"] = u.images.size();
                o["volumesBytes"] = nonNegative(u.volumesSize());
                o["volumeCount"] = u.volumes.size();
                o["unusedVolumes"] = u.unusedVolumes().size();
                o["reclaimableBuildCacheBytes"] = nonNegative(u.reclaimableBuildCache());
                o["danglingImages"] = r.sizes->danglingImageIDs.size();
            }
        }
        runtimes.push_back(std::move(o));
    }
    return json{{"runtimes", std::move(runtimes)}};
}

std::string containersText(const std::vector<RuntimeReport>& reports) {
    std::string out = "Container runtimes\n";
    if (reports.empty()) return out + "  " + kNoRuntimeFoundText + "\n";
    for (const auto& r : reports) {
        out += terminalSafe(r.runtime.displayName);
        if (r.runtime.isMeasurable()) out += "  " + terminalSafe(*r.runtime.socketPath);
        out += "\n";
        if (auto state = r.runtime.stateText()) out += "  " + terminalSafe(*state) + "\n";
        if (r.error) out += "  " + terminalSafe(*r.error) + "\n";
        if (r.runtime.isMeasurable() && !r.error.has_value() && r.containers.empty())
            out += "  No containers.\n";
        if (!r.containers.empty()) {
            TextTable table({"NAME", "IMAGE", "STATE", "STATUS", "PORTS"});
            for (const auto& c : r.containers)
                table.add({terminalSafe(c.name()), terminalSafe(c.image), terminalSafe(c.state),
                           terminalSafe(c.status), terminalSafe(portsText(c))});
            out += table.render("  ");
        }
        if (r.sizes) {
            const DiskUsage& u = r.sizes->usage;
            out += "  Images " + formatBytes(nonNegative(u.imagesSize())) + " (" +
                   std::to_string(u.images.size()) + ", " +
                   std::to_string(r.sizes->danglingImageIDs.size()) + " dangling), volumes " +
                   formatBytes(nonNegative(u.volumesSize())) + " (" +
                   std::to_string(u.volumes.size()) + ", " +
                   std::to_string(u.unusedVolumes().size()) + " unused), reclaimable build cache " +
                   formatBytes(nonNegative(u.reclaimableBuildCache())) + "\n";
        }
        if (auto total = allocatedTotal(r.diskFiles)) {
            out += "  Disk images on this computer " + formatBytes(*total) + "\n";
            for (const auto& f : r.diskFiles)
                out += "    " + terminalSafe(f.path) + "  " + formatBytes(f.allocatedBytes) +
                       " of " + formatBytes(f.nominalBytes) + "\n";
            out += "  " + std::string(diskImageNote()) + "\n";
        }
    }
    return out;
}

std::vector<ContainerInfo> allContainers(const std::vector<RuntimeReport>& reports) {
    std::vector<ContainerInfo> out;
    for (const auto& r : reports)
        out.insert(out.end(), r.containers.begin(), r.containers.end());
    return out;
}

}  // namespace wharfy::app
