// The two commands of gpc-pack, and the one judgement they share: would the plug-in install this
// package for a page with these parameters?
#pragma once

#include <cstdint>
#include <string>

#include "embed_params.h"
#include "pack_options.h"
#include "common/packagecheck.h"

// Exit codes.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

struct PackageJudgement {
  GpcPackageVerdict verdict;  // the plug-in's own decision
  std::string refusal;        // empty when the package would be installed, else why not
};

// Checks the package at `path` against the page `params` as the plug-in does on a system of
// `systemVersion` (CheckPackage), then that the archive is a 7z whose single top folder is
// "<GpcExtName>.bundle" (the plug-in's default name when none is given) and, when "GpcExtVersion"
// is given, that its bundle shows the plug-in that version once installed; and, when
// "GpcCompressMethod" is given, that it is "7zip".
PackageJudgement JudgePackage(const std::string& path, const EmbedParams& params, uint32_t systemVersion);

// `gpc-pack pack`: returns the exit code; messages go to stderr, the parameters to stdout.
int RunPack(const PackOptions& options);

// `gpc-pack verify`: prints "ok" or the refusal; returns the exit code.
int RunVerify(const PackOptions& options);
