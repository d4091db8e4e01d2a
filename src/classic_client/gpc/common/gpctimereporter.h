// Milestone time stamps of a session: a property list per product version (root key "JMTRoot"),
// tied to one meeting identifier, and a text form appended to the parameter file. The plug-in
// only writes them; every failure is silent and loses the stamp.
#pragma once

#include <string>

// Milestones the plug-in records.
inline constexpr const char tmr_gpc_check_extension[] = "gpc_check_extension";
inline constexpr const char tmr_gpc_start_update_extension[] = "gpc_start_update_extension";
inline constexpr const char tmr_gpc_finish_download_extension[] = "gpc_finish_download_extension";
inline constexpr const char tmr_gpc_finish_update_extension[] = "gpc_finish_update_extension";
inline constexpr const char tmr_gpc_load_extension[] = "gpc_load_extension";

// Milestones of the extension itself (the plug-in never records them).
inline constexpr const char tmr_gpc_extension_start_download_inifile[] =
    "gpc_extension_start_download_inifile";
inline constexpr const char tmr_gpc_extension_finish_download_inifile[] =
    "gpc_extension_finish_download_inifile";
inline constexpr const char tmr_gpc_extension_parse_inifile[] = "gpc_extension_parse_inifile";
inline constexpr const char tmr_gpc_extension_finish_parse_inifile[] =
    "gpc_extension_finish_parse_inifile";
inline constexpr const char tmr_gpc_extension_start_prepareinstall[] =
    "gpc_extension_start_prepareinstall";
inline constexpr const char tmr_gpc_extension_finish_prepareinstall[] =
    "gpc_extension_finish_prepareinstall";
inline constexpr const char tmr_gpc_extension_start_update_file[] = "gpc_extension_start_update_file";
inline constexpr const char tmr_gpc_extension_receive_first_file[] =
    "gpc_extension_receive_first_file";
inline constexpr const char tmr_gpc_extension_receive_last_file[] = "gpc_extension_receive_last_file";
inline constexpr const char tmr_gpc_extension_finish_update_file[] =
    "gpc_extension_finish_update_file";
inline constexpr const char tmr_gpc_extension_init_instance[] = "gpc_extension_init_instance";
inline constexpr const char tmr_gpc_extension_try_launch_app[] = "gpc_extension_try_launch_app";
inline constexpr const char tmr_gpc_extension_success_launch_app[] =
    "gpc_extension_success_launch_app";

class gpctimereporter {
 public:
  // <application support>/Talvo Folder<version>Info.plist (the version text carries its own
  // separators). Empty when there is no application-support folder or no version.
  static std::string getPathOfPlistFileWithProductVersion(const char* version);

  // When the file at `path` is a writable file whose "JMTRoot" names another meeting, empties
  // "JMTRoot", keeps only `meetingId` in it and writes the file back atomically.
  static void clearTimeStampsIfMeetingIdNotMatch(const char* meetingId, const std::string& path);

  // Records `key` = now (absolute time) and "meetingid" = `meetingId` in the version's file,
  // after discarding the stamps of another meeting; creates the file when missing. `value` is
  // accepted and not stored.
  static void appendTimeStamp(const char* version, const char* meetingId, const char* key,
                              const char* value);
  static void appendTimeStamp(const char* version, const char* meetingId, const char* key);

  // The text form: appends "[NAME]-=-<key>-=-[VALUE]-=-<now>-=-\r" to the version's parameter
  // file, only when that file already exists and is writable; never creates it.
  static void appendTimeStamp(const char* version, const char* key);
};

// The text form, for plain callers.
void appendTimeStamp(const char* version, const char* name);
