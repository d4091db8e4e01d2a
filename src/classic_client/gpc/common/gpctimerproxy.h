// A repeating timer on the main thread's GLib loop that calls a plain function with a context.
// It keeps firing while a nested loop runs (a blocking HTTP request, a modal dialog of the host),
// because every loop on the thread dispatches the default main context.
#pragma once

class GPCTimerImp;

class GPCTimerProxy {
 public:
  typedef void (*TimerProc)(GPCTimerProxy* timer, void* context);

  // Arms a timer firing every `intervalSeconds`. An interval of 0 or below makes a proxy that never
  // fires and owns no implementation.
  GPCTimerProxy(double intervalSeconds, TimerProc callback, void* context);
  // Disarms the timer. Safe from inside the proxy's own callback.
  virtual ~GPCTimerProxy();

  GPCTimerProxy(const GPCTimerProxy&) = delete;
  GPCTimerProxy& operator=(const GPCTimerProxy&) = delete;

  // Calls the callback with this proxy and its context, if there is a callback.
  void invoke();
  // Disarms and releases the implementation; the proxy never fires again.
  void cleanUp();

  bool IsArmed() const { return m_pImp != nullptr; }

 private:
  GPCTimerImp* m_pImp = nullptr;
  TimerProc m_pCallback = nullptr;
  void* m_pContext = nullptr;
};
