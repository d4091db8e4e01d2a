#include "common/gpctimerproxy.h"

#include <cmath>
#include <glib.h>

#include "common/boundary.h"

// Owns the GLib source. The source repeats until cleanUp removes it (clearing its id and the
// listener), so a callback that deletes its proxy never reaches it again.
class GPCTimerImp {
 public:
  GPCTimerImp(double intervalSeconds, GPCTimerProxy* listener) : myListener(listener) {
    double ms = std::ceil(intervalSeconds * 1000.0);
    guint interval = ms < 1.0 ? 1u : ms > 4e9 ? 4000000000u : static_cast<guint>(ms);
    myTimer = g_timeout_add_full(G_PRIORITY_DEFAULT, interval, &GPCTimerImp::onTimer, this, nullptr);
  }
  ~GPCTimerImp() { cleanUp(); }

  void cleanUp() {
    myListener = nullptr;
    if (myTimer != 0) {
      guint id = myTimer;
      myTimer = 0;
      g_source_remove(id);
    }
  }

 private:
  // Called by GLib: nothing thrown in the callback goes on into the event loop.
  static gboolean onTimer(gpointer data) try {
    GPCTimerImp* self = static_cast<GPCTimerImp*>(data);
    // The listener may delete the proxy, and with it this object: touch nothing afterwards.
    if (self->myListener) self->myListener->invoke();
    return G_SOURCE_CONTINUE;
  }
  GPC_BOUNDARY_CATCH(G_SOURCE_CONTINUE)
  guint myTimer = 0;
  GPCTimerProxy* myListener = nullptr;
};

GPCTimerProxy::GPCTimerProxy(double intervalSeconds, TimerProc callback, void* context)
    : m_pCallback(callback), m_pContext(context) {
  if (!(intervalSeconds > 0)) return;
  m_pImp = new GPCTimerImp(intervalSeconds, this);
}

GPCTimerProxy::~GPCTimerProxy() { cleanUp(); }

void GPCTimerProxy::invoke() {
  if (m_pCallback) m_pCallback(this, m_pContext);
}

void GPCTimerProxy::cleanUp() {
  if (!m_pImp) return;
  GPCTimerImp* imp = m_pImp;
  m_pImp = nullptr;
  delete imp;
}
