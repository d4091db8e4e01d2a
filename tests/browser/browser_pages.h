// What both browser suites serve: the pages the plug-in is sent to, which show what they were sent,
// so a test reads it as a person would.
#pragma once

#include <string>

namespace browsertest {

constexpr char kDonePath[] = "/page/done.html?";
constexpr char kErrorPath[] = "/page/error.html?ErrorType=1&ErrorMsg=";

constexpr char kDonePage[] =
    "<html><head><title>done</title></head><body><p id='t'></p><script>"
    "document.getElementById('t').textContent = 'The extension ran: ' + location.search.substring(1);"
    "</script></body></html>";
constexpr char kErrorPage[] =
    "<html><head><title>error</title></head><body><p id='t'></p><script>"
    "var m = /ErrorMsg=([^&]*)/.exec(location.search);"
    "document.getElementById('t').textContent = 'Stopped: ' + decodeURIComponent(m ? m[1] : '');"
    "</script></body></html>";

// `text` as an HTML attribute value.
inline std::string HtmlEscaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '&') out += "&amp;";
    else if (c == '"') out += "&quot;";
    else if (c == '<') out += "&lt;";
    else out += c;
  }
  return out;
}

}  // namespace browsertest
