#include "common/gpctracecatcher.h"

#include <glib.h>

#include <climits>
#include <cmath>

#include "common/tlvtrace/tlvtraceu.h"
#include "common/trace.h"
#include "common/urlencode.h"

namespace gpc {

namespace {

std::mutex g_globalMutex;
GPCTraceCatcher* g_pGlobalCatcher = nullptr;

constexpr int kFilterCondition = 5;
constexpr size_t kAnswerLimit = 3000;
constexpr char kNoError[] = "no%20error";

// Length in UTF-16 units, as the encoding buffer is sized per character.
size_t CharacterCount(std::string_view text) {
  size_t count = 0;
  for (unsigned char c : text) {
    if ((c & 0xC0) != 0x80) ++count;     // each lead byte starts a character
    if (c >= 0xF0) ++count;              // past U+FFFF: a surrogate pair
  }
  return count;
}

// A number as a level; values out of int's range give a level that is neither written nor
// filtered out.
int LevelFromNumber(double number) {
  if (!(number >= INT_MIN && number <= INT_MAX)) return INT_MIN;
  return static_cast<int>(number);
}

void WriteToTraceFile(int level, const std::string& content) {
  switch (level) {
    case GPC_TRACE_DEBUG: TLVDEBUG(content.c_str()); break;
    case GPC_TRACE_INFO: TLVINFO(content.c_str()); break;
    case GPC_TRACE_WARNING: TLVWARN(content.c_str()); break;
    case GPC_TRACE_ERROR: TLVERROR(content.c_str()); break;
    default: break;  // kept in the list only
  }
}

}  // namespace

int traceLevel(const GPCUserInfo& entry) {
  const std::optional<double> level = entry.GetNumber(GPC_TRACE_LEVEL_KEY);
  return level ? LevelFromNumber(*level) : -1;
}

std::string traceContent(const GPCUserInfo& entry) {
  return entry.GetString(GPC_TRACE_CONTENT_KEY).value_or(std::string());
}

bool IsValidUtf8(std::string_view text) {
  // GLib's check: no overlong forms, surrogates, code points past U+10FFFF, nor NUL bytes.
  return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr);
}

GPCTraceCatcher* GPCTraceCatcher::sharedInstance() {
  std::lock_guard<std::mutex> lock(g_globalMutex);
  if (g_pGlobalCatcher == nullptr) g_pGlobalCatcher = create();
  return g_pGlobalCatcher;
}

void GPCTraceCatcher::initGlobal() {
  std::lock_guard<std::mutex> lock(g_globalMutex);
  if (g_pGlobalCatcher == nullptr) {
    g_pGlobalCatcher = create();
  } else {
    g_pGlobalCatcher->retain();
  }
}

void GPCTraceCatcher::releaseGlobal() {
  GPCTraceCatcher* catcher;
  {
    std::lock_guard<std::mutex> lock(g_globalMutex);
    catcher = g_pGlobalCatcher;
    g_pGlobalCatcher = nullptr;
  }
  if (catcher == nullptr) return;
  catcher->stopObserving();
  catcher->release();
}

GPCTraceCatcher* GPCTraceCatcher::create() {
  GPCTraceCatcher* catcher = new GPCTraceCatcher();
  catcher->m_pSelf = std::shared_ptr<GPCTraceCatcher>(catcher, [](GPCTraceCatcher* gone) { delete gone; });
  try {
    catcher->startObserving();
  } catch (...) {
    // No half-registered catcher stays behind when the failure goes on.
    catcher->stopObserving();
    catcher->m_pSelf.reset();
    throw;
  }
  return catcher;
}

GPCTraceCatcher::GPCTraceCatcher() : myAllTraceInfo(std::make_unique<TraceList>()) {}

void GPCTraceCatcher::startObserving() {
  GPCNotificationCenter& center = GPCNotificationCenter::defaultCenter();
  const std::weak_ptr<GPCTraceCatcher> weak = m_pSelf;
  m_nTraceObserver = center.addObserver(GPC_TRACE_NOTIFICATION, [weak](const GPCNotification& n) {
    if (std::shared_ptr<GPCTraceCatcher> catcher = weak.lock()) catcher->_traceCatcherEntery(n);
  });
  m_nQueryObserver = center.addObserver(GPC_QUERY_WARNINGS_NOTIFICATION, [weak](const GPCNotification& n) {
    if (std::shared_ptr<GPCTraceCatcher> catcher = weak.lock()) catcher->handleQueryTraces(n);
  });
}

void GPCTraceCatcher::retain() { m_nRetainCount.fetch_add(1); }

void GPCTraceCatcher::release() {
  if (m_nRetainCount.fetch_sub(1) != 1) return;
  removeAllTraceInfo();
  MacInfoTrace("Gpctracecatcher dealloc");
  stopObserving();
  // Freed here, or by the last delivery still under way on another thread.
  std::shared_ptr<GPCTraceCatcher> last = std::move(m_pSelf);
}

void GPCTraceCatcher::stopObserving() {
  GPCNotificationCenter::ObserverId trace;
  GPCNotificationCenter::ObserverId query;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    trace = m_nTraceObserver;
    query = m_nQueryObserver;
    m_nTraceObserver = m_nQueryObserver = 0;
  }
  GPCNotificationCenter& center = GPCNotificationCenter::defaultCenter();
  if (trace != 0) center.removeObserver(trace);
  if (query != 0) center.removeObserver(query);
}

void GPCTraceCatcher::_traceCatcherEntery(const GPCNotification& notification) {
  const std::shared_ptr<GPCUserInfo>& entry = notification.userInfo;
  if (!entry) return;
  const std::optional<double> level = entry->GetNumber(GPC_TRACE_LEVEL_KEY);
  const std::optional<std::string> content = entry->GetString(GPC_TRACE_CONTENT_KEY);
  if (!level || !content || !entry->Has(GPC_TRACE_MODULE_KEY) || !IsValidUtf8(*content)) return;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (myAllTraceInfo) myAllTraceInfo->push_back(entry);
  }
  // The module is not passed on: every record of the file carries "GPCPlugin".
  WriteToTraceFile(LevelFromNumber(*level), *content);
}

GPCTraceCatcher::TraceList GPCTraceCatcher::filterAllTraceWithCondition(int /*condition*/) const {
  TraceList kept;
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!myAllTraceInfo) return kept;
  for (const std::shared_ptr<GPCUserInfo>& entry : *myAllTraceInfo) {
    const int level = traceLevel(*entry);
    if (level != GPC_TRACE_DEBUG && level != GPC_TRACE_INFO) kept.push_back(entry);
  }
  return kept;
}

std::string GPCTraceCatcher::stringValueForAllTrace(const TraceList& list, size_t sizeLimit) const {
  std::string all;
  std::vector<char> encoded;
  for (auto entry = list.rbegin(); entry != list.rend(); ++entry) {
    if (!*entry) continue;
    const std::optional<std::string> content = (*entry)->GetString(GPC_TRACE_CONTENT_KEY);
    if (!content || content->empty() || !IsValidUtf8(*content)) continue;
    const size_t limit = std::min<size_t>(6 * CharacterCount(*content), INT_MAX - 1);
    encoded.assign(limit + 1, '\0');
    URLEncode(content->c_str(), encoded.data(), static_cast<int>(limit));
    std::string next(encoded.data());
    // The walk ends at the first entry that does not fit, even if an older one would.
    if (next.size() + all.size() >= sizeLimit) return all;
    if (!all.empty()) next += '\n';
    next += all;
    all.swap(next);
    if (all.size() >= sizeLimit) return all;
  }
  return all;
}

void GPCTraceCatcher::handleQueryTraces(const GPCNotification& notification) {
  const std::shared_ptr<GPCUserInfo>& query = notification.userInfo;
  if (!query || !query->IsMutable()) return;
  const bool reset = query->GetBool(GPC_RESET_TRACES_KEY, false);
  std::string answer = stringValueForAllTrace(filterAllTraceWithCondition(kFilterCondition), kAnswerLimit);
  if (answer.empty()) answer = kNoError;
  if (reset) removeAllTraceInfo();
  query->SetString(GPC_QUERY_TRACES_KEY, answer);
}

GPCTraceCatcher::TraceList GPCTraceCatcher::allTraceInfo() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return myAllTraceInfo ? *myAllTraceInfo : TraceList();
}

void GPCTraceCatcher::setAllTraceInfo(const TraceList* list) {
  std::lock_guard<std::mutex> lock(m_mutex);
  myAllTraceInfo = list != nullptr ? std::make_unique<TraceList>(*list) : nullptr;
}

void GPCTraceCatcher::removeAllTraceInfo() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (myAllTraceInfo) myAllTraceInfo->clear();
}

}  // namespace gpc
