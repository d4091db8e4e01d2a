// The command line of gpc-pack: `pack` and `verify`, each with its options.
#pragma once

#include <string>
#include <utility>
#include <vector>

enum class PackCommand { kNone, kHelp, kPack, kVerify };

struct PackOptions {
  PackCommand command = PackCommand::kNone;
  // pack
  std::string key, cert, bundle;
  std::vector<std::string> chain;
  std::string hash = "sha256";
  std::string out = ".";
  std::string format = "both";  // json, html or both
  bool force = false;
  // both: the plug-in bundle whose anchors a hardened build trusts
  std::string plugin;
  // verify
  std::string package, paramsFile;
  std::vector<std::pair<std::string, std::string>> params;  // from --param, in order
};

// Parses argv into `options`. False with a message in `error` on a bad command line.
bool ParsePackOptions(int argc, char** argv, PackOptions* options, std::string* error);

extern const char kPackHelp[];
