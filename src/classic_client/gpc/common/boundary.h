// Where the plug-in meets callers written in C (the browser's NPAPI calls, the extension's services,
// the trace functions, the event loop's and libcurl's callbacks) no exception may pass. A function
// there is a function-try-block that ends in GPC_BOUNDARY_CATCH: whatever escapes its body
// (allocation failure, in practice) is logged and answered with the function's failure value.
//
//   NPError NPP_SetWindow(NPP instance, NPWindow* window) try {
//     ...
//   }
//   GPC_BOUNDARY_CATCH(NPERR_OUT_OF_MEMORY_ERROR)
#pragma once

namespace gpc {

// Logs the exception being handled as stopped at `where`. Call it only from a catch handler. It
// never throws: a log line that cannot be made is dropped.
void LogStoppedException(const char* where) noexcept;

}  // namespace gpc

#define GPC_BOUNDARY_CATCH(failure)       \
  catch (...) {                           \
    ::gpc::LogStoppedException(__func__); \
    return failure;                       \
  }

#define GPC_BOUNDARY_CATCH_VOID           \
  catch (...) {                           \
    ::gpc::LogStoppedException(__func__); \
  }
