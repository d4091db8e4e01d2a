// The queue of navigations of the hosting page: strictly one request at a time, head first.
#include "plugin/plugin/npgpc_text.h"
#include "plugin/plugin/npgpcimp.h"
#include "plugin/plugin/npplugin.h"
#include "common/trace.h"

namespace {

// One URL is asked for at most this many times: the first request and three retries.
const int32_t kMostLoadAttempts = 4;

}  // namespace

bool CGpcWindow::ChangeLocation(const char* target, const char* url) {
  MacInfoTrace("CGpcWindow::ChangeLocation");
  AddFrameTargetLocation(target, url);
  return true;
}

void CGpcWindow::AddFrameTargetLocation(const char* target, const char* url) {
  if (url == nullptr) {
    MacInfoTrace("CGpcWindow::AddFrameTargetLocation,url is nil!");
    return;
  }
  MacInfoTrace("CGpcWindow::AddFrameTargetLocation,Begin");
  MacInfoTrace("CGpcWindow::AddFrameTargetLocation,url=%s!", url);
  AppendOwned(&m_vectorFrameTarget, new CFrameTarget(target, url));
  MacInfoTrace("CGpcWindow::AddFrameTargetLocation,End");
}

CFrameTarget* CGpcWindow::GetNextFrameTargetLocation() {
  return m_vectorFrameTarget.empty() ? nullptr : m_vectorFrameTarget.front();
}

void CGpcWindow::RemoveNextFrameTargetLocation() {
  if (m_vectorFrameTarget.empty()) return;
  MacInfoTrace("CGpcWindow::RemoveNextFrameTargetLocation,need request url vector count is %d.",
               static_cast<int>(m_vectorFrameTarget.size()));
  delete m_vectorFrameTarget.front();
  m_vectorFrameTarget.erase(m_vectorFrameTarget.begin());
}

void CGpcWindow::CheckLocationChanging() {
  if (m_nppInstance == nullptr) {
    MacInfoTrace("CGpcWindow::CheckLocationChanging,m_nppInstance is nil!");
    return;
  }
  CFrameTarget* head = GetNextFrameTargetLocation();
  // A requested head waits for its notification; nothing behind it goes out meanwhile.
  if (head == nullptr || head->m_bRequested) return;

  // Copies: the browser may answer synchronously and empty the queue before the call returns.
  const std::string url = head->m_strUrl;
  const std::string frame = head->m_strTarget;
  const char* target = frame.empty() ? nullptr : frame.c_str();
  MacInfoTrace("CGpcWindow::CheckLocationChanging,need requesting url[%s]!", url.c_str());
  const NPError result = NPN_GetURLNotify(m_nppInstance, url.c_str(), target, head);
  if (result == NPERR_NO_ERROR) {
    if (target)
      MacInfoTrace("CGpcWindow::CheckLocationChanging,Requesting url[%s] at frame[%s] succeeded!",
                   url.c_str(), target);
    else
      MacInfoTrace("CGpcWindow::CheckLocationChanging,Requesting url[%s] succeeded!", url.c_str());
    if (GetNextFrameTargetLocation() == head) head->m_bRequested = true;
  } else if (target) {
    MacInfoTrace("CGpcWindow::CheckLocationChanging,Requesting url[%s] at frame[%s] failed!", url.c_str(),
                 target);
  } else {
    MacInfoTrace("CGpcWindow::CheckLocationChanging,Requesting url[%s] failed!", url.c_str());
  }
}

void CGpcWindow::OnGetUrlNotify(const char* url, NPReason reason) {
  if (url == nullptr) return;
  MacInfoTrace("CGpcWindow::OnGetUrlNotify,url : %s, reason : %d", url, reason);
  CFrameTarget* head = GetNextFrameTargetLocation();
  if (head == nullptr || head->m_strUrl.empty() || !GpcNamesEqual(head->m_strUrl.c_str(), url)) {
    MacInfoTrace(
        "CGpcWindow::OnGetUrlNotify,this request url maybe move on OnNppDestroyStream, current need "
        "request url vector count is %d.",
        static_cast<int>(m_vectorFrameTarget.size()));
    return;
  }
  head->m_bRequested = false;
  if (reason == NPRES_DONE) {
    RemoveNextFrameTargetLocation();
    return;
  }
  head->m_nRetries += 1;
  MacInfoTrace("CGpcWindow::OnGetUrlNotify,url[%s] failed, retry count : %d", url, head->m_nRetries);
  if (head->m_nRetries >= kMostLoadAttempts) {
    MacInfoTrace("CGpcWindow::OnGetUrlNotify,url[%s] failed after 3 times retry,remove this target!", url);
    RemoveNextFrameTargetLocation();
  }
}

NPError CGpcWindow::OnNppDestroyStream(NPStream* stream, NPReason reason) {
  if (stream == nullptr || stream->url == nullptr) {
    MacInfoTrace("CGpcWindow::OnNppDestroyStream,stream or request url is nil!");
    return NPERR_NO_DATA;
  }
  MacInfoTrace("CGpcWindow::OnNppDestroyStream,request url is %s.", stream->url);
  CFrameTarget* head = GetNextFrameTargetLocation();
  if (head == nullptr || head->m_strUrl.empty()) return NPERR_NO_ERROR;
  const bool sameUrl = head->m_strUrl == stream->url;
  if (!sameUrl && stream->notifyData != head) return NPERR_NO_ERROR;
  head->m_bRequested = false;
  if (reason == NPRES_DONE) RemoveNextFrameTargetLocation();
  return NPERR_NO_ERROR;
}

void CGpcWindow::CleanupFrameTargets() {
  for (CFrameTarget* target : m_vectorFrameTarget) delete target;
  m_vectorFrameTarget.clear();
}
