// The unpacking library's one entry, as the plug-in looks it up by name.
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Results of GpcDecompressFile7z; every failure has a value of its own.
enum {
  kGpc7zSuccess = 0,
  kGpc7zBadArguments = 1,       // an argument is null or empty
  kGpc7zCannotReadArchive = 2,  // missing, unreadable, truncated, encrypted or not a 7z archive
  kGpc7zUnsafeEntry = 3,        // an entry would land or point outside the destination
  kGpc7zWriteFailed = 4,        // a folder or file could not be created or written
  kGpc7zLimitExceeded = 5,      // too many entries or too many extracted bytes
  kGpc7zInternalFailure = 6,    // out of memory
};

// Extracts every entry of the 7z archive at `archive` below the folder `destinationFolder`.
// The folder and any folders below it are created as needed; files that exist are replaced;
// permission bits (less set-id and sticky bits) and modification times are kept.
// Returns 0 on success, a non-zero code above on failure. An archive with an unsafe entry is
// refused before anything is written; other failures may leave a partial extraction behind.
__attribute__((visibility("default"))) int32_t GpcDecompressFile7z(const char* archive,
                                                                   const char* destinationFolder);

#ifdef __cplusplus
}
#endif
