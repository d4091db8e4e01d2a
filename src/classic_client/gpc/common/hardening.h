// The hardened build (cmake -DGPC_HARDENED=ON) closes the doors that the default behaviour
// leaves open to a hostile page (SECURITY.md lists them): the "gpcsitelock" escape, trust in the
// page's own certificates and in expired ones, loose common names, unverified TLS on direct
// downloads, dot segments in the server root, downgrades, a gap without any extension while a
// new one is unpacked, a refused host page that runs on, and a parameter file written outside
// its folder. Code asks GpcHardened() where the two builds differ.
#pragma once

namespace gpc {

// True in the hardened build. Tests may switch it to run both behaviours in one program.
bool GpcHardened();

// Makes GpcHardened() answer `hardened`; a negative value restores the build's own answer.
void SetHardenedForTesting(int hardened);

}  // namespace gpc
