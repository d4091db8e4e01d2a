// 7z archives through GpcDecompressFile7z, extracted into a fresh folder of a fresh run folder: whatever
// the archive holds, nothing may land beside the destination and no link inside it may lead out of it.
#include <cstdlib>
#include <filesystem>
#include <string>

#include "fuzz_support.h"
#include "lib7zip/lib7zip.h"

namespace fs = std::filesystem;

// libarchive is linked as lib7zip.so links it, each piece it allocates bounded. liblzma, shared, still
// sizes its dictionary by what an archive's coder claims (up to 4 GiB, touched only as data fills
// it) and gives up cleanly when malloc refuses: as on a machine without that memory, 2000 MiB or
// more is refused rather than reported.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1:max_allocation_size_mb=2000";
}

namespace {

std::string g_scratch;  // its real path: the destination is compared with real paths
unsigned g_runs = 0;

// Removes an extraction whatever modes its folders came with.
void RemoveExtraction(const fs::path& run) {
  std::error_code error;
  fs::permissions(run, fs::perms::owner_all, fs::perm_options::add, error);
  for (fs::recursive_directory_iterator it(run, error), end; !error && it != end; it.increment(error)) {
    std::error_code ignored;
    if (!it->is_symlink(ignored)) fs::permissions(it->path(), fs::perms::owner_all,
                                                  fs::perm_options::add, ignored);
  }
  fuzz::RemoveTree(run.string());
}

void CheckExtraction(const fs::path& run, const fs::path& destination) {
  std::error_code error;
  for (fs::directory_iterator it(run, error), end; !error && it != end; it.increment(error)) {
    if (it->path() != destination) fuzz::Fail("%s was written beside the destination", it->path().c_str());
  }
  if (!fs::exists(fs::symlink_status(destination))) return;
  if (fs::canonical(destination, error) != destination) fuzz::Fail("the destination itself became a link");
  fs::recursive_directory_iterator it(destination, error), end;
  for (; !error && it != end; it.increment(error)) {
    const fs::path target = fs::read_symlink(it->path(), error);
    if (error) continue;  // no link
    if (target.is_absolute()) fuzz::Fail("link %s leads to the absolute %s", it->path().c_str(),
                                         target.c_str());
    // Where the link leads as far as the disk can tell; a loop of links leads nowhere.
    const fs::path resolved = fs::weakly_canonical(it->path().parent_path() / target, error);
    const fs::path relative = resolved.lexically_relative(destination);
    if (!error && (relative.empty() || *relative.begin() == "..")) {
      fuzz::Fail("link %s leads out of the destination, to %s", it->path().c_str(), resolved.c_str());
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("GPC_7Z_MAX_ENTRIES", "64", 1);  // low limits keep a run short
  setenv("GPC_7Z_MAX_BYTES", "1048576", 1);
  g_scratch = fs::canonical(fuzz::MakeScratchFolder("sevenzip")).string();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string archive = g_scratch + "/input.7z";
  fuzz::WriteFile(archive, data, size);
  // A fresh name each time: a run folder that could not be removed never meets the next run.
  const std::string run = g_scratch + "/run" + std::to_string(g_runs++ % 1000), destination = run + "/dest";
  RemoveExtraction(run);
  fuzz::MakeFolder(run);
  const int32_t result = GpcDecompressFile7z(archive.c_str(), destination.c_str());
  if (result < kGpc7zSuccess || result > kGpc7zInternalFailure) fuzz::Fail("unknown result %d", result);
  CheckExtraction(run, destination);
  RemoveExtraction(run);
  return 0;
}
