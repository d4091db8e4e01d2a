// Where the plug-in writes its trace file, for the tools that read it.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/folders.h"

namespace gpctools {

// As the plug-in chooses it: $GPC_TRACE_FILE when it is an absolute path the plug-in takes (254
// bytes at most), else "tlvgpc.tvt" in the shared temporary folder.
inline std::string TraceFilePath() {
  const char* wanted = std::getenv("GPC_TRACE_FILE");
  if (wanted != nullptr && wanted[0] == '/' && std::strlen(wanted) <= 254) return wanted;
  return std::string(platform::kSharedTempFolder) + "/tlvgpc.tvt";
}

}  // namespace gpctools
