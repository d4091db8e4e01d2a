#include "pack_options.h"

#include <cstring>

#include "common/hardening.h"

const char kPackHelp[] =
    "usage: gpc-pack pack --key KEY.pem --cert SIGNER.pem [--chain CA.pem]... [--hash sha1|sha256]\n"
    "                     [--out DIR] [--format json|html|both] [--force] [--plugin DIR] BUNDLE_DIR\n"
    "       gpc-pack verify --package FILE (--params JSON_FILE | --param NAME=VALUE...) [--plugin DIR]\n"
    "\n"
    "pack    writes DIR/<name>.bundle.7z from the folder <name>.bundle, signs its digest and prints\n"
    "        the embed parameters a page needs (an HTML <embed> element and/or one JSON object).\n"
    "  --key KEY.pem      the signer's unencrypted PEM RSA private key\n"
    "  --cert SIGNER.pem  the signer's certificate (PEM or DER)\n"
    "  --chain CA.pem     CA certificates of the signer's chain, in the order given (repeatable)\n"
    "  --hash METHOD      digest of the package: sha256 (default) or sha1 (not in a hardened build)\n"
    "  --out DIR          where the package goes (default: the current folder)\n"
    "  --format FORMAT    what to print: json, html or both (default)\n"
    "  --force            replace an existing package\n"
    "verify  checks a package and its parameters as the plug-in will; prints \"ok\", or the check\n"
    "        that fails with the message number the user would see; exit 0 only when accepted.\n"
    "  --package FILE     the package\n"
    "  --params FILE      the parameters as one JSON object (what pack --format json prints)\n"
    "  --param NAME=VALUE one parameter (repeatable; wins over the same name in --params)\n"
    "both    --plugin DIR   the plug-in bundle (talvo-gpc64.plugin) whose Contents/Resources/Anchors\n"
    "                       a hardened build trusts; a hardened gpc-pack needs it unless it lies\n"
    "                       in that bundle; the default build trusts the system's anchors and the\n"
    "                       chain, and ignores it\n"
    "\n"
    "Exit codes: 0 done or accepted, 1 failure or refusal, 2 bad command line.\n";

namespace {

bool Fail(std::string* error, const std::string& text) {
  *error = text;
  return false;
}

// Options that take a value, for each command.
bool TakeValue(const std::string& name, const std::string& value, PackOptions* options, std::string* error) {
  const bool pack = options->command == PackCommand::kPack;
  if (pack && name == "--key") {
    options->key = value;
  } else if (pack && name == "--cert") {
    options->cert = value;
  } else if (pack && name == "--chain") {
    options->chain.push_back(value);
  } else if (pack && name == "--hash") {
    if (value != "sha1" && value != "sha256") return Fail(error, "--hash must be sha1 or sha256");
    if (value == "sha1" && gpc::GpcHardened()) return Fail(error, "--hash sha1: a hardened plug-in takes sha256 alone");
    options->hash = value;
  } else if (pack && name == "--out") {
    options->out = value;
  } else if (pack && name == "--format") {
    if (value != "json" && value != "html" && value != "both") return Fail(error, "--format must be json, html or both");
    options->format = value;
  } else if (name == "--plugin") {
    options->plugin = value;
  } else if (!pack && name == "--package") {
    options->package = value;
  } else if (!pack && name == "--params") {
    options->paramsFile = value;
  } else if (!pack && name == "--param") {
    const size_t equals = value.find('=');
    if (equals == std::string::npos || equals == 0) return Fail(error, "--param needs NAME=VALUE, not \"" + value + "\"");
    options->params.emplace_back(value.substr(0, equals), value.substr(equals + 1));
  } else {
    *error = "unknown option \"" + name + "\"";
    return false;
  }
  return true;
}

bool CheckComplete(const PackOptions& options, std::string* error) {
  if (options.command == PackCommand::kPack) {
    if (options.key.empty() || options.cert.empty()) return Fail(error, "pack needs --key and --cert");
    if (options.bundle.empty()) return Fail(error, "pack needs the bundle folder");
  } else {
    if (options.package.empty()) return Fail(error, "verify needs --package");
    if (options.paramsFile.empty() && options.params.empty()) return Fail(error, "verify needs --params or --param");
  }
  return true;
}

}  // namespace

bool ParsePackOptions(int argc, char** argv, PackOptions* options, std::string* error) {
  if (argc < 2) return Fail(error, "no command given");
  const std::string command = argv[1];
  if (command == "--help" || command == "-h" || command == "help") {
    options->command = PackCommand::kHelp;
    return true;
  }
  if (command == "pack") {
    options->command = PackCommand::kPack;
  } else if (command == "verify") {
    options->command = PackCommand::kVerify;
  } else {
    *error = "unknown command \"" + command + "\"";
    return false;
  }
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      options->command = PackCommand::kHelp;
      return true;
    }
    if (arg == "--force" && options->command == PackCommand::kPack) {
      options->force = true;
      continue;
    }
    if (arg.size() > 2 && arg.compare(0, 2, "--") == 0) {
      const size_t equals = arg.find('=');
      if (equals != std::string::npos) {
        if (!TakeValue(arg.substr(0, equals), arg.substr(equals + 1), options, error)) return false;
        continue;
      }
      if (i + 1 >= argc) {
        if (!TakeValue(arg, "", options, error)) return false;  // names an unknown option first
        *error = arg + " needs a value";
        return false;
      }
      if (!TakeValue(arg, argv[++i], options, error)) return false;
      continue;
    }
    if (options->command != PackCommand::kPack || !options->bundle.empty() || arg.empty() || arg[0] == '-') {
      *error = "unexpected argument \"" + arg + "\"";
      return false;
    }
    options->bundle = arg;
  }
  return CheckComplete(*options, error);
}
