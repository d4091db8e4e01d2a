// The embed parameters of a package: printed as an HTML <embed> element or one JSON object, read
// back from such an object or from NAME=VALUE arguments, and looked up as the plug-in does.
#pragma once

#include <string>
#include <utility>
#include <vector>

// Names and values in page order.
typedef std::vector<std::pair<std::string, std::string>> EmbedParams;

// `<embed type="application/x-talvo-gpc" NAME="VALUE" ...>`, one attribute a line, values
// HTML-escaped; ends with a line feed.
std::string EmbedHtml(const EmbedParams& params);

// One JSON object on one line, keys in order; ends with a line feed.
std::string EmbedJson(const EmbedParams& params);

// Appends the members of the JSON object `text` (string values only) to `params`. False with a
// message in `error` for anything else.
bool ParseEmbedJson(const std::string& text, EmbedParams* params, std::string* error);

// The value the plug-in sees for `name`: the first parameter of that name, compared without
// regard to case; an empty value counts as absent. Empty when absent.
std::string ParamValue(const EmbedParams& params, const char* name);

// `text` as the inside of an HTML attribute value in double quotes.
std::string HtmlEscape(const std::string& text);
