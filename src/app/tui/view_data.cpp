#include "app/tui/view_data.h"

namespace wharfy::app::tui {

ViewData ViewData::from(const AppModel& model) {
    ViewData data;
    data.ports = model.filteredPorts();
    data.totalPorts = model.ports().size();
    data.runtimes = model.runtimes();
    data.runtimeAnswered = model.runtimeAnswered();
    data.sessions = model.sessions();
    data.statuses = model.statuses();
    data.counts = model.suiteCounts();
    data.lastRefresh = model.lastRefresh();
    data.history = model.historySummary();
    data.pending = model.pending();
    data.notice = model.notice();
    data.isWorking = model.isWorking();
    data.lastContainerReport = model.lastContainerReport();
    data.memoryThresholdGB = model.memoryThresholdGB();
    data.alertSettings = model.alertSettings();
    data.isPrimary = model.isPrimary();
    return data;
}

}  // namespace wharfy::app::tui
