// gpc-host --native-messaging: the browser side of any number of embeds, driven by a browser
// extension through native messaging on standard input and output. docs/native-messaging.md
// describes the messages.
#pragma once
#include "host_options.h"

// Loads the module once, then serves the extension's messages until standard input ends.
// Returns the process's exit code: 0 at the end of input, 1 when the module cannot be loaded.
int RunNativeMessaging(const HostOptions& options);
