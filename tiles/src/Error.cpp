#include "hx/error.h"

#include <new>

#include "Failure.h"

namespace hx {

Error::Error(const Zarn::ZrError& error)
    : std::runtime_error(Zarn::ZrErrorText(error)),
      m_error(std::make_shared<const Zarn::ZrError>(error)) {}

Status Status::last() noexcept {
  const Zarn::ZrError& error = Zarn::ZrLastError();
  return {error.result, error.cause, error.systemError};
}

void Throw() {
  if (Zarn::ZrLastError().cause == Cause::kNoMemory) throw std::bad_alloc();
  throw Error(Zarn::ZrLastError());
}

void Throw(const Status& status) {
  if (status.cause() == Cause::kNoMemory) throw std::bad_alloc();
  Throw();
}

void Expect(unsigned int result) {
  if (result != Zarn::ZrResult::kOk) Throw();
}

}  // namespace hx
