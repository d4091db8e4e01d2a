// The parameter file: every page parameter, written for the locally installed software of the
// same product version to read. The plug-in never reads it back.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <glib.h>

#include "common/gpcutil.h"
#include "common/hardening.h"
#include "plugin/plugin/npgpc_text.h"
#include "plugin/plugin/npgpcimp.h"
#include "platform/clock.h"
#include "platform/folders.h"
#include "common/trace.h"

namespace {

const char kParameterFileName[] = "talvoparameters.txt";

const char* ProductVersionOf(int argc, char** argn, char** argv) {
  for (int i = 0; i < argc; ++i) {
    if (GpcNamesEqual(argn[i], "gpcproductversion")) return argv[i];
  }
  return nullptr;
}

void AppendRecord(std::string* text, const char* name, const char* value) {
  *text += std::string("[NAME]-=-") + (name ? name : "") + "-=-[VALUE]-=-" + (value ? value : "") + "-=-\r";
}

// The current absolute time with six decimals, always with a decimal point whatever the
// browser's numeric locale.
std::string StartTimeText() {
  char text[G_ASCII_DTOSTR_BUF_SIZE];
  g_ascii_formatd(text, sizeof text, "%f", platform::AbsoluteTimeGetCurrent());
  return text;
}

}  // namespace

bool SaveParameters(int argc, char** argn, char** argv) {
  std::string path = TalvoFolderFor("SaveParameters");
  if (path.empty()) return false;
  if (int result = platform::MakeFolder(path, 0700); result != 0) {
    MacErrorTrace("SaveParameters,talvo folder,call FSPathMakeRef result code =%d", result);
    return false;
  }

  const char* version = ProductVersionOf(argc, argn, argv);
  if (version == nullptr || version[0] == '\0') {
    MacErrorTrace("SaveParameters,gpcproductversion is nil!");
    return false;
  }
  // The hardened build keeps the file in "Talvo Folder": the version names one folder there.
  if (gpc::GpcHardened() && !IsOneFolderName(version)) {
    MacErrorTrace("SaveParameters,%s,call FSPathMakeRef result code =%d", version, -EINVAL);
    return false;
  }
  path.push_back('/');
  path.append(version);
  if (int result = platform::MakeFolder(path, 0700); result != 0) {
    MacErrorTrace("SaveParameters,%s,call FSPathMakeRef result code =%d", version, result);
    return false;
  }

  path.push_back('/');
  path.append(kParameterFileName);
  std::string records;
  for (int i = 0; i < argc; ++i) AppendRecord(&records, argn[i], argv[i]);
  AppendRecord(&records, "gpcstartworktime", StartTimeText().c_str());
  // Replaced whole: the local software never reads half a file.
  const FileReplaced replaced = ReplaceFileWhole(path, records, 0644);
  if (replaced == FileReplaced::kNotCreated) {
    MacErrorTrace("SaveParameters,fopen %s failed!", path.c_str());
    return false;
  }
  // The file is advisory for the local software; a failed write (a full disk) does not stop the
  // instance. The last page's file goes, so that its meeting is not taken for this one's.
  if (replaced != FileReplaced::kWhole) {
    MacErrorTrace("SaveParameters,write %s failed: %s", path.c_str(), strerror(errno));
    unlink(path.c_str());
  }
  return true;
}
