#include "PelmTime.h"

#include <chrono>

PelmTime& PelmTime::GetCurTime() {
  using Days = std::chrono::duration<double, std::ratio<86400>>;
  m_days =
      std::chrono::duration_cast<Days>(std::chrono::system_clock::now().time_since_epoch()).count();
  return *this;
}
