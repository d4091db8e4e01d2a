// gpc-pack: the vendor's packaging tool. `pack` turns an extension bundle folder into a signed
// package and prints the embed parameters a page needs; `verify` checks a package and its
// parameters as the plug-in will.
#include <cstdio>
#include <exception>
#include <string>

#include "commands.h"
#include "pack_options.h"

namespace {

int Run(int argc, char** argv) {
  PackOptions options;
  std::string error;
  if (!ParsePackOptions(argc, argv, &options, &error)) {
    fprintf(stderr, "gpc-pack: %s\n(gpc-pack --help shows the usage)\n", error.c_str());
    return kExitUsage;
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
  try {
    return Run(argc, argv);
  } catch (const std::exception& failure) {
    fprintf(stderr, "gpc-pack: %s\n", failure.what());
  } catch (...) {
    fprintf(stderr, "gpc-pack: unexpected failure\n");
  }
  return kExitFailed;
}
