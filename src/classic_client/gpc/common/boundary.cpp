#include "common/boundary.h"

#include <exception>

#include "common/trace.h"

namespace gpc {

void LogStoppedException(const char* where) noexcept {
  try {
    throw;  // the exception being handled, to name it
  } catch (const std::exception& error) {
    MacErrorTrace("%s,stopped an exception: %s", where, error.what());
  } catch (...) {
    MacErrorTrace("%s,stopped an exception", where);
  }
}

}  // namespace gpc
