// gpc-pack: the vendor's packaging tool. `pack` turns an extension bundle folder into a signed
// package and prints the embed parameters a page needs; `verify` checks a package and its
// parameters as the plug-in will.
#include <sys/stat.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "commands.h"
#include "common/hardening.h"
#include "common/packagecheck.h"
#include "pack_options.h"
#include "platform/bundle.h"

// gpc-pack traces nowhere: creating the trace file would start anew that of a running browser.
extern "C" const bool gpc_program_keeps_no_trace_file = true;

namespace {

// A hardened build trusts only the anchors a plug-in bundle ships: those of the bundle named with
// --plugin, else of the one gpc-pack lies in. Empty when they can be read, else why not.
std::string AnchorsRefusal(const PackOptions& options) {
  if (!options.plugin.empty()) platform::SetPluginBundlePathOverride(options.plugin);
  if (!gpc::GpcHardened()) return "";
  const std::string anchors = ShippedAnchorsFolder();
  if (anchors.empty()) {
    return "this hardened build trusts only the anchors a plug-in bundle ships: name the bundle with --plugin";
  }
  struct stat info;
  if (stat(anchors.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    return anchors + " is no folder: this hardened build would trust no signer";
  }
  return "";
}

int Run(int argc, char** argv) {
  PackOptions options;
  std::string error;
  if (!ParsePackOptions(argc, argv, &options, &error)) {
    fprintf(stderr, "gpc-pack: %s\n(gpc-pack --help shows the usage)\n", error.c_str());
    return kExitUsage;
  }
  const std::string refusal = options.command == PackCommand::kHelp ? "" : AnchorsRefusal(options);
  if (!refusal.empty()) {
    fprintf(stderr, "gpc-pack: %s\n", refusal.c_str());
    return kExitFailed;
  }
  switch (options.command) {
    case PackCommand::kHelp:
      fputs(kPackHelp, stdout);
      return kExitOk;
    case PackCommand::kPack:
      return RunPack(options);
    case PackCommand::kVerify:
      return RunVerify(options);
    case PackCommand::kNone:
      break;
  }
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  // File names are taken as UTF-8, as the plug-in's unpacker writes them, whatever the user's
  // locale; in the "C" locale libarchive could store no name outside ASCII.
  if (setlocale(LC_CTYPE, "C.UTF-8") == nullptr) setlocale(LC_CTYPE, "C.utf8");
  // A file-size limit is a full disk: a write fails and is reported, and nothing half-written stays.
  signal(SIGXFSZ, SIG_IGN);
  try {
    return Run(argc, argv);
  } catch (const std::exception& failure) {
    fprintf(stderr, "gpc-pack: %s\n", failure.what());
  } catch (...) {
    fprintf(stderr, "gpc-pack: unexpected failure\n");
  }
  return kExitFailed;
}
