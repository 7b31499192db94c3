#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>

namespace wharfy {

/// A day of the proleptic Gregorian calendar.
struct CivilDate {
    int year = 1970;
    int month = 1;
    int day = 1;

    bool operator==(const CivilDate&) const = default;
    auto operator<=>(const CivilDate&) const = default;

    /// The date when the three numbers form one (month 1-12, a day the month has).
    static std::optional<CivilDate> make(int year, int month, int day);
    /// The date `days` days after 1970-01-01 (before it when negative).
    static CivilDate fromDaysSinceEpoch(int64_t days);
    /// Days since 1970-01-01.
    int64_t daysSinceEpoch() const;
    CivilDate addingDays(int64_t days) const { return fromDaysSinceEpoch(daysSinceEpoch() + days); }
    /// "%04d-%02d-%02d", e.g. "2026-03-07".
    std::string text() const;
};

/// Cuts time into the user's local days. The history's days are the days of
/// this calendar, so that a file holds what happened on one day as the user
/// lived it.
class HistoryCalendar {
  public:
    virtual ~HistoryCalendar() = default;
    /// The local date at `time` (seconds since 1970).
    virtual CivilDate date(double time) const = 0;

    /// The first second of `day`: usually local midnight, later when the
    /// clocks skip midnight. Found from `date` alone, so it holds across any
    /// change of the UTC offset.
    double startOfDay(CivilDate day) const;
};

/// The calendar of the process's time zone (TZ, else the system's), through localtime_r.
class LocalCalendar final : public HistoryCalendar {
  public:
    LocalCalendar();
    CivilDate date(double time) const override;
};

}  // namespace wharfy
