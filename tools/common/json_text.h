// JSON text for the tools' output: gpc-host's event lines and native messages, tlvtracer's --json.
#pragma once

#include <string>
#include <string_view>

namespace gpctools {

// `text` with every byte that does not belong to a well-formed UTF-8 sequence replaced by U+FFFD:
// a browser refuses a native message that is not UTF-8, and a trace record may hold any bytes.
std::string ValidUtf8(std::string_view text);

// `text` made valid UTF-8, with line breaks and tabs written "\n", "\r", "\t" and each other
// character below U+00A0 that `spell` spells (appending to `out`, true) in that spelling. Control
// characters, C1 ones too, must be spelled: a terminal acts on them.
std::string EscapeText(std::string_view text, bool (*spell)(unsigned code, std::string* out));

// `text` made valid UTF-8 and escaped for the inside of a JSON string (quotes not added).
std::string JsonEscape(std::string_view text);

}  // namespace gpctools
