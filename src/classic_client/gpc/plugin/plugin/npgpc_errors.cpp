// Error reporting: the error page of the hosting page and the reports to the logging service.
// Both go out as navigations through the instance's navigation queue.
#include <plist/plist.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "common/gpctracecatcher.h"
#include "common/hardening.h"
#include "common/localizedname.h"
#include "plugin/plugin/npgpc_text.h"
#include "platform/bundle.h"
#include "plugin/plugin/npgpcimp.h"
#include "common/trace.h"
#include "common/urlencode.h"

namespace {

// The message format: the table key and its English text alike.
const char kSetupFailedFormat[] =
    "Setup was unsuccessful. Please restart browser and try again.\n\n\nError [%d]";

// Selects the warnings and errors of the trace catcher.
const int kTraceReportCondition = 5;
const size_t kTraceReportSizeLimit = 3000;

bool HasMessageText(int id) {
  return id == 100 || id == 103 || id == 107 || id == 109 || id == 111;
}

// The text for `key` in the table file, or `key` itself when the file, the table or the entry
// cannot be had. The tables are XML (or binary) property lists of key to text.
std::string LookUpString(const std::string& tablePath, const char* key) {
  std::ifstream file(tablePath, std::ios::binary);
  if (!file) return key;
  const std::string data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::string text;
  return platform::PlistDictString(data, key, &text) ? text : key;
}

// Puts `number` in for each "%d" of `format` and turns "%%" into "%". Nothing else is
// interpreted, so a translated table cannot make the formatting read arguments it lacks.
std::string FormatWithNumber(const std::string& format, int number) {
  std::string out;
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] == '%' && i + 1 < format.size()) {
      if (format[i + 1] == 'd') {
        out += std::to_string(number);
        ++i;
        continue;
      }
      if (format[i + 1] == '%') {
        out += '%';
        ++i;
        continue;
      }
    }
    out += format[i];
  }
  return out;
}

// The recent warnings and errors since the previous report, and a fresh start for the next.
std::string TakeRecentTrace() {
  gpc::GPCTraceCatcher* catcher = gpc::GPCTraceCatcher::sharedInstance();
  std::string trace;
  if (catcher != nullptr) {
    trace = catcher->stringValueForAllTrace(catcher->filterAllTraceWithCondition(kTraceReportCondition),
                                            kTraceReportSizeLimit);
    catcher->removeAllTraceInfo();
  }
  return trace.empty() ? std::string("no%20error") : trace;
}

// The logging URL with the report's query joined to it; the values go in as they are.
std::string BuildReportUrl(const char* loggingUrl, const char* meetingId, const char* sessionId,
                           int code, const char* extra, const std::string& trace) {
  std::string query = std::string("ConfID=") + meetingId + "&SessionID=" + sessionId +
                      "&Module=1&ErrorCode=" + std::to_string(code);
  if (extra != nullptr) query += std::string("&OptInfo1=") + extra;
  query += "&OptInfo3=" + trace;
  std::string url;
  if (!GpcJoinQuery(loggingUrl, query, &url)) {
    MacErrorTrace("CGpcWindow::WriteErrorLog,LoggingURL is not right!");
  }
  return url;
}

}  // namespace

void CGpcWindow::ShowMessage(int code, const char* extra) {
  // The extra text is never passed on or shown.
  (void)extra;
  WriteErrorLog(code, nullptr);
  const std::string text = LoadResourceString(code);
  if (text.empty()) {
    MacErrorTrace("CGpcWindow::ShowMessage,get [%d] resource string failed!", code);
    return;
  }
  ShowMessage(text.c_str(), nullptr);
}

std::string CGpcWindow::LoadResourceString(int id) {
  if (!HasMessageText(id)) return std::string();
  const std::string language = localizedExtNameFromLanguageID(GetParameter("gpclocalsetting"));
  std::string format = kSetupFailedFormat;
  const std::string bundle = platform::PluginBundlePath();
  if (!bundle.empty()) {
    format = LookUpString(bundle + "/Contents/Resources/Localizable_" + language + ".strings",
                          kSetupFailedFormat);
  }
  if (format.empty()) {
    MacErrorTrace("CGpcWindow::LoadResourceString,invalid format string,nResourceId[%d]", id);
    return std::string();
  }
  return FormatWithNumber(format, id);
}

void CGpcWindow::ShowMessage(const char* text, const char* caption) {
  (void)caption;
  if (text == nullptr) return;
  const size_t size = std::string(text).size() * 6 + 1;
  // URLEncode may write one escape past its bound: room for size + 1 bytes.
  std::string encoded(size + 1, '\0');
  URLEncode(text, &encoded[0], static_cast<int>(size));
  encoded.resize(std::string(encoded.c_str()).size());

  const char* page = GetParameter("GpcErrorPageUrl");
  if (page == nullptr) {
    MacErrorTrace("CGpcWindow::ShowMessage: ErrorPageURL is nil.");
    return;
  }
  std::string url;
  if (!GpcJoinQuery(page, "ErrorType=1&ErrorMsg=" + encoded, &url)) {
    MacInfoTrace("CGpcWindow::ShowMessage: ErrorPageURL is not right.");
  }
  MacInfoTrace("CGpcWindow::ShowMessage,url is %s", url.c_str());
  MacInfoTrace("CGpcWindow::ChangeLocation");
  AddFrameTargetLocation("_top", url.c_str());
}

bool CGpcWindow::WriteErrorLog(int code, const char* extra) {
  MacInfoTrace("CGpcWindow::WriteErrorLog,errorcode =%d", code);
  const std::string trace = TakeRecentTrace();

  const char* loggingUrl = GetParameter("LoggingURL");
  const char* meetingId = GetParameter("MeetingID");
  const char* sessionId = GetParameter("SessionID");
  if (loggingUrl == nullptr) {
    MacErrorTrace("CGpcWindow::WriteErrorLog,LoggingURL is nil!");
    return false;
  }
  if (meetingId == nullptr) {
    MacErrorTrace("CGpcWindow::WriteErrorLog,MeetingID is nil!");
    return false;
  }
  if (sessionId == nullptr) {
    MacErrorTrace("CGpcWindow::WriteErrorLog,SessionID is nil!");
    return false;
  }
  MacInfoTrace("CGpcWindow::WriteErrorLog,JMF parameters: %s,%s,%s", loggingUrl, meetingId, sessionId);
  // A report carries the meeting, the session and the recent trace: the hardened build sends it
  // only to an approved site over https.
  if (gpc::GpcHardened() && !FApprovedDomain(loggingUrl, 0, rgslTrustedSites, kGpcTrustedSiteCount)) {
    MacErrorTrace("CGpcWindow::WriteErrorLog,LoggingURL is not approved!");
    return false;
  }

  std::string url;
  try {
    url = BuildReportUrl(loggingUrl, meetingId, sessionId, code, extra, trace);
  } catch (const std::exception&) {
    MacErrorTrace("CGpcWindow::WriteErrorLog,Write Log to server fails!");
    return false;
  }
  MacInfoTrace("CGpcWindow::ChangeLocation");
  AddFrameTargetLocation(nullptr, url.c_str());
  MacInfoTrace("CGpcWindow::WriteErrorLog,Save the error message log to [%s] is [%s]", url.c_str(),
               "SUCCESS");
  return true;
}
