#include "app/suite_json_command.h"

#include <nlohmann/json.hpp>

#include <cmath>

#include "suite/suite_settings.h"
#include "suite/suite_state_machine.h"
#include "suite_ui/suite_participant.h"

namespace wharfy::app {
namespace {

using namespace nemarro::suite;

nlohmann::json valueJson(const MetricValue& value) {
    if (const auto* word = std::get_if<StateWord>(&value))
        return std::string(nemarro::suite::word(*word));
    const double number = std::get<double>(value);
    if (std::trunc(number) == number && std::fabs(number) < 1e15) return int64_t(number);
    return number;
}

nlohmann::json metricJson(const GlanceMetric& metric) {
    return {{"id", metric.id},
            {"label", metric.label},
            {"value", valueJson(metric.value)},
            {"unit", metric.unit},
            {"level", std::string(word(metric.level))}};
}

nlohmann::json rowJson(const SuiteRow& row) {
    if (const auto* gone = std::get_if<NotRunningRow>(&row))
        return {{"app", std::string(id(gone->app))}, {"state", "notRunning"}};
    const GlanceRecord& record = std::get<RunningRow>(row).record;
    nlohmann::json metrics = nlohmann::json::array();
    for (const GlanceMetric& metric : record.metrics)
        metrics.push_back(metricJson(metric));
    return {{"app", std::string(id(record.app))},
            {"state", std::string(word(record.state))},
            {"hosting", record.hosting},
            {"level", std::string(word(record.level))},
            {"metrics", metrics}};
}

}  // namespace

nlohmann::json suiteJson(const std::vector<SuiteFolder>& folders, double now) {
    SuiteStateMachine machine;
    machine.update(nemarro::suite_ui::readSuiteRecords(folders), now);
    const SuiteSettings settings =
        folders.empty() ? SuiteSettings{} : SuiteSettings::read(folders.front());

    nlohmann::json rows = nlohmann::json::array();
    for (const SuiteRow& row : machine.rows())
        rows.push_back(rowJson(row));
    nlohmann::json values = nlohmann::json::array();
    for (const auto& [ref, metric] : machine.menuBarValues(settings.menuBarValues)) {
        nlohmann::json value = metricJson(metric);
        value.erase("id");
        value["app"] = std::string(id(ref.app));
        value["metric"] = ref.metric;
        values.push_back(std::move(value));
    }
    return {{"isActive", machine.isActive},
            {"rows", rows},
            {"worstLevel", std::string(word(machine.worstLevel()))},
            {"menuBarValues", values}};
}

}  // namespace wharfy::app
