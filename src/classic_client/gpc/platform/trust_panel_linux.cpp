#include "platform/trust_panel.h"

#include <utility>

namespace platform {

namespace {

std::function<bool(const TrustPanelRequest&)>& PanelHandler() {
  static std::function<bool(const TrustPanelRequest&)> handler;
  return handler;
}

}  // namespace

bool DisplayTrustPanel(const TrustPanelRequest& request) {
  // The plug-in runs inside the browser without a window toolkit of its own, so unless a host
  // has installed a panel, nobody can be asked and the answer is "Cancel".
  const auto& handler = PanelHandler();
  if (!handler) return false;
  return handler(request);
}

void SetTrustPanelHandler(std::function<bool(const TrustPanelRequest&)> handler) {
  PanelHandler() = std::move(handler);
}

}  // namespace platform
