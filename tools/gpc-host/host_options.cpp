#include "host_options.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>

const char kHostHelp[] =
    "Usage: gpc-host [options]\n"
    "\n"
    "Loads an NPAPI plug-in module the way a Linux browser does (NP_GetMIMEDescription,\n"
    "NP_Initialize with both tables, NP_GetValue), creates one embedded instance of\n"
    "\"application/x-talvo-gpc\", gives it a window, serves its URL requests with libcurl on a\n"
    "GLib main loop, and prints one JSON object per event on standard output.\n"
    "\n"
    "Options:\n"
    "  --plugin PATH            module to load (default: the bundle's Contents/MacOS/libnpgpc.so\n"
    "                           next to the build)\n"
    "  --param NAME=VALUE       an embed parameter; repeatable, order kept\n"
    "  --params FILE            embed parameters from FILE, one NAME=VALUE per line (split at the\n"
    "                           first \"=\", value kept byte for byte; empty and \"#\" lines skipped)\n"
    "  --page-url URL           deliver URL as the host-page stream (notifyData 100)\n"
    "  --run-ms N               end the run after N milliseconds of loop time (default 10000)\n"
    "  --exit-on-navigate TEXT  end the run at the first navigation whose URL contains TEXT\n"
    "  --models                 answer true to the Core Graphics and Cocoa event model queries\n"
    "  --window WxH             size of the window given to SetWindow (default 640x480)\n"
    "  --native-messaging       serve embeds for a browser extension over native messaging on\n"
    "                           standard input and output (docs/native-messaging.md); --param,\n"
    "                           --page-url, --run-ms and --exit-on-navigate do not apply\n"
    "  --help                   this text\n"
    "\n"
    "Requests with a target are navigations: recorded, not fetched, and reported back to the\n"
    "plug-in with NPP_URLNotify (NPRES_DONE) when it asked for a notification. Requests without\n"
    "a target are fetched and delivered as streams (NPP_NewStream, NPP_WriteReady, NPP_Write,\n"
    "NPP_DestroyStream), followed by NPP_URLNotify: NPRES_DONE on success, NPRES_NETWORK_ERR on an\n"
    "HTTP status of 400 or more (no stream is opened then) or a network failure. As a browser's\n"
    "URL parser does, tabs and line breaks are dropped from a URL before it is fetched; the\n"
    "plug-in still sees the URL it asked for. A redirected request's stream carries the URL the\n"
    "redirects ended at (stream_url); its notification carries the URL asked for. Up to 10\n"
    "redirects are followed; a chain that breaks off opens no stream (NPRES_NETWORK_ERR).\n"
    "\n"
    "Events: load, entry, instance, page_url, set_window, request, navigate, stream_start,\n"
    "stream_end, fetch_end, url_notify, get_value, set_value, status, destroy, shutdown, exit.\n"
    "Each line is\n"
    "{\"event\":NAME,...}.\n"
    "\n"
    "Exit status: 0 for a clean run; 1 when the module cannot be loaded or refuses to start;\n"
    "2 for a bad command line; 3 when --exit-on-navigate was given and no navigation matched.\n"
    "\n"
    "Environment: GPC_SYSTEM_VERSION (hex) is read by the plug-in itself; http_proxy,\n"
    "https_proxy and no_proxy are honoured by the fetches.\n";

namespace {

bool SplitParam(const std::string& text, std::pair<std::string, std::string>* out) {
  size_t equals = text.find('=');
  if (equals == std::string::npos || equals == 0) return false;
  *out = {text.substr(0, equals), text.substr(equals + 1)};
  return true;
}

bool ParseWindow(const char* text, unsigned* width, unsigned* height) {
  char* end = nullptr;
  unsigned long w = std::strtoul(text, &end, 10);
  if (end == text || *end != 'x') return false;
  const char* rest = end + 1;
  unsigned long h = std::strtoul(rest, &end, 10);
  if (end == rest || *end != '\0' || w == 0 || h == 0 || w > 65535 || h > 65535) return false;
  *width = static_cast<unsigned>(w);
  *height = static_cast<unsigned>(h);
  return true;
}

// Chromium's "chrome-extension://<id>/", or Firefox's manifest path ("....json") and add-on id
// ("name@domain" or "{uuid}").
bool IsBrowserArgument(const std::string& word) {
  const bool manifest = word.size() > 5 && word.compare(word.size() - 5, 5, ".json") == 0;
  return word.rfind("chrome-extension://", 0) == 0 || manifest || word.find('@') != std::string::npos ||
         word[0] == '{';
}

}  // namespace

bool ReadParamsFile(const std::string& path, std::vector<std::pair<std::string, std::string>>* params,
                    std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot read " + path + ": " + std::strerror(errno);
    return false;
  }
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (line.empty() || line[0] == '#') continue;
    std::pair<std::string, std::string> param;
    if (!SplitParam(line, &param)) {
      *error = path + ":" + std::to_string(number) + ": expected NAME=VALUE";
      return false;
    }
    params->push_back(std::move(param));
  }
  if (in.bad()) {  // a folder, or a read that failed half-way
    *error = "cannot read " + path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

bool ParseHostOptions(int argc, char** argv, HostOptions* out, std::string* error) {
#ifdef GPC_DEFAULT_PLUGIN
  out->plugin = GPC_DEFAULT_PLUGIN;
#endif
  for (int i = 1; i < argc; ++i) {
    std::string option = argv[i];
    if (option == "--help" || option == "-h") {
      out->help = true;
      continue;
    }
    if (option == "--models") {
      out->models = true;
      continue;
    }
    if (option == "--native-messaging") {
      out->native_messaging = true;
      continue;
    }
    // What a browser adds when it starts a native-messaging host (Chromium: the caller's origin;
    // Firefox: the manifest's path and the extension's id). A host manifest's "path" cannot carry
    // options, so these select the native-messaging mode and are otherwise ignored. Any other
    // word is a mistake (a NAME=VALUE without its --param, say), not a reason to change mode.
    if (!option.empty() && option[0] != '-') {
      if (!IsBrowserArgument(option)) {
        *error = "unexpected argument " + option;
        return false;
      }
      out->native_messaging = true;
      continue;
    }
    if (i + 1 >= argc) {
      *error = option == "--plugin" || option == "--param" || option == "--params" ||
                       option == "--page-url" || option == "--run-ms" ||
                       option == "--exit-on-navigate" || option == "--window"
                   ? option + " needs a value"
                   : "unknown option " + option;
      return false;
    }
    const char* value = argv[++i];
    if (option == "--plugin") {
      out->plugin = value;
    } else if (option == "--param") {
      std::pair<std::string, std::string> param;
      if (!SplitParam(value, &param)) {
        *error = std::string("--param expects NAME=VALUE, got ") + value;
        return false;
      }
      out->params.push_back(std::move(param));
    } else if (option == "--params") {
      if (!ReadParamsFile(value, &out->params, error)) return false;
    } else if (option == "--page-url") {
      out->page_url = value;
    } else if (option == "--run-ms") {
      char* end = nullptr;
      long ms = std::strtol(value, &end, 10);
      // The loop's timer counts milliseconds in an unsigned int: a larger number would be cut down.
      if (end == value || *end != '\0' || ms < 0 || static_cast<unsigned long>(ms) > UINT_MAX) {
        *error = std::string("--run-ms expects a number of milliseconds, got ") + value;
        return false;
      }
      out->run_ms = ms;
    } else if (option == "--exit-on-navigate") {
      out->exit_on_navigate = value;
    } else if (option == "--window") {
      if (!ParseWindow(value, &out->width, &out->height)) {
        *error = std::string("--window expects WIDTHxHEIGHT, got ") + value;
        return false;
      }
    } else {
      *error = "unknown option " + option;
      return false;
    }
  }
  if (!out->help && out->plugin.empty()) {
    *error = "no --plugin given";
    return false;
  }
  if (out->params.size() > static_cast<size_t>(INT16_MAX)) {  // the browser's count is 16 bits
    *error = std::to_string(out->params.size()) + " parameters; a page gives the plug-in at most 32767";
    return false;
  }
  return true;
}
