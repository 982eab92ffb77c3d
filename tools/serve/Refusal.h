#pragma once

#include <stdexcept>
#include <string>

namespace Serve {

/// A request that cannot be answered; what() is the sentence.
class Refusal : public std::runtime_error {
 public:
  Refusal(int status, const std::string& sentence)
      : std::runtime_error(sentence), m_status(status) {}

  int Status() const { return m_status; }

 private:
  int m_status;
};

}  // namespace Serve
