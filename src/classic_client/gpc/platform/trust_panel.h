// The certificate-trust panel: the one question the plug-in may put to the user when a signing
// certificate cannot be trusted on its own (not yet valid, self-signed outside every anchor list,
// and the like).
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace platform {

// What the panel shows about the certificate in question.
struct TrustPanelRequest {
  std::string subject;             // the leaf's subject, one line
  std::string issuer;              // the leaf's issuer, one line
  std::string commonName;          // the leaf's subject common name; may be empty
  uint32_t leafStatus = 0;         // the leaf's status bits from the evaluation
  int result = 0;                  // the evaluation result (1 to 7)
  std::string alternateButtonTitle = "Cancel";
};

// Shows the modal panel with no message and waits for the user. Returns true when the user
// chose the default (continue) button, false when the user cancelled. A build without a way to
// ask anyone answers false ("Cancel"), which is what happens unless a handler is set.
bool DisplayTrustPanel(const TrustPanelRequest& request);

// Installs `handler` as the panel: it receives each request and gives the user's answer (true:
// continue). Tests and hosts with a user interface set it; an empty function restores the
// default answer, "Cancel".
void SetTrustPanelHandler(std::function<bool(const TrustPanelRequest&)> handler);

}  // namespace platform
