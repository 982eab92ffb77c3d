#pragma once

#include "HxPlatformExport.h"

/// A point in time as days and fractions of a day since 1970-01-01 00:00 UTC.
class HX_PLATFORM_API PelmTime {
 public:
  PelmTime() = default;
  /// The time `days` after the epoch.
  explicit PelmTime(double days) : m_days(days) {}

  /// Takes the system's current time; returns this object.
  PelmTime& GetCurTime();

  /// Days since the epoch. A double resolves this to about 0.3 microseconds today.
  double GetTime() const { return m_days; }

 private:
  double m_days = 0;
};
