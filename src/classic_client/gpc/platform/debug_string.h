// The debug-string sink and the resource-file value that the entry points hand to the host system.
#pragma once
#include <cstdint>
#include <functional>
#include <string>

namespace platform {

// Hands one length-prefixed string (first byte = length) to the sink. Silent by default.
void DebugStr(const unsigned char* pascal_string);

// Installs a sink that receives each string's text; an empty function restores silence.
void SetDebugStrSink(std::function<void(const std::string&)> sink);

// Builds the length-prefixed form of `text` (cut to 255 bytes) into `out` (256 bytes).
void MakePascalString(const char* text, unsigned char out[256]);

// The current resource-file reference; on this system only a stored value.
int16_t CurResFile();

}  // namespace platform
