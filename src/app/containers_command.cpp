#include "app/containers_command.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <system_error>
#include <thread>

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
        total = f.allocatedBytes > UINT64_MAX - total ? UINT64_MAX : total + f.allocatedBytes;
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

std::vector<RuntimeReport> readRuntimes(MachineReader& reader) {
    const auto candidates = reader.findRuntimes();
    // Each runtime is asked and read on its own thread, so that one engine's
    // silence never holds back another's containers.
    std::vector<RuntimeReport> reports(candidates.size());
    auto read = [&](size_t i) {
        RuntimeReading reading = reader.readRuntime(candidates[i]);
        RuntimeReport& report = reports[i];
        report.runtime = std::move(reading.runtime);
        report.diskFiles = std::move(reading.diskFiles);
        if (!report.runtime.isMeasurable()) return;
        if (reading.error) {
            report.error = "Could not read the runtime (" + *reading.error + ").";
            return;
        }
        report.containers = std::move(reading.containers);
        auto sizes = reader.readSizes(report.runtime, false);
        if (sizes)
            report.sizes = std::move(sizes).value();
        else
            report.sizesError = "Could not read sizes (" + sizes.error() + ").";
    };
    std::vector<std::thread> threads;
    for (size_t i = 0; i < candidates.size(); ++i) {
        try {
            threads.emplace_back(read, i);
        } catch (const std::system_error&) {
            read(i);  // no thread to be had: every request still has its deadline
        }
    }
    for (auto& t : threads)
        t.join();
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
        o["state"] = r.runtime.stateName();
        if (r.runtime.remoteEndpoint) o["remoteEndpoint"] = *r.runtime.remoteEndpoint;
        if (r.runtime.socketPath) o["socket"] = *r.runtime.socketPath;
        if (r.runtime.isMeasurable()) {
            if (r.error) {
                o["error"] = *r.error;
            } else {
                ContainerCounts counts{r.containers};
                o["running"] = counts.running();
                o["stopped"] = counts.stopped();
            }
            if (r.sizesError) o["sizesError"] = *r.sizesError;
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
        if (r.runtime.socketPath) out += "  " + terminalSafe(*r.runtime.socketPath);
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
        if (r.sizesError) out += "  " + terminalSafe(*r.sizesError) + "\n";
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
