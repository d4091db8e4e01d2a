// gpc-host: drives an NPAPI plug-in module without a browser. See --help.
#include <csignal>
#include <cstdio>
#include <string>

#include "host_options.h"
#include "json_line.h"
#include "native_messaging.h"
#include "plugin_host.h"

int main(int argc, char** argv) {
  // A file-size limit is a full disk, as in a browser that ignores the signal: a write fails.
  signal(SIGXFSZ, SIG_IGN);
  HostOptions options;
  std::string error;
  if (!ParseHostOptions(argc, argv, &options, &error)) {
    std::fprintf(stderr, "gpc-host: %s\n(see gpc-host --help)\n", error.c_str());
    return 2;
  }
  if (options.help) {
    std::fputs(kHostHelp, stdout);
    return 0;
  }
  if (options.native_messaging) {
    int code = RunNativeMessaging(options);
    JsonLine("exit").Add("code", code).Add("reason", code == 0 ? "input-ended" : "load").Emit();
    return code;
  }

  int code = 0;
  std::string reason;
  {
    PluginHost host(options);
    if (!host.Load()) {
      code = 1;
      reason = "load";
    } else if (!host.CreateInstance()) {
      code = 1;
      reason = "instance";
    } else {
      host.Run();
      reason = host.exit_reason();
      if (!options.exit_on_navigate.empty() && !host.navigation_matched()) {
        code = 3;
        reason = "no-navigation";
      }
    }
    host.Unload();
  }
  JsonLine("exit").Add("code", code).Add("reason", reason).Emit();
  return code;
}
