#include "platform/dynamic_library.h"

#include <dlfcn.h>
#include <elf.h>
#include <sys/stat.h>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>

#include "platform/bundle.h"

namespace platform {

namespace {

bool IsRegularFile(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// Class and machine of an ELF file's header; false when it is not an ELF file.
bool ReadElfIdentity(const std::string& path, unsigned char* elfClass, uint16_t* machine) {
  FILE* file = fopen(path.c_str(), "rbe");
  if (file == nullptr) return false;
  // e_machine follows e_ident (16 bytes) and e_type (2 bytes) in both classes.
  unsigned char header[EI_NIDENT + 4] = {};
  const size_t got = fread(header, 1, sizeof header, file);
  fclose(file);
  if (got != sizeof header || memcmp(header, ELFMAG, SELFMAG) != 0) return false;
  *elfClass = header[EI_CLASS];
  const bool littleEndian = header[EI_DATA] == ELFDATA2LSB;
  const unsigned char* field = header + EI_NIDENT + 2;
  *machine = littleEndian ? static_cast<uint16_t>(field[0] | field[1] << 8)
                          : static_cast<uint16_t>(field[0] << 8 | field[1]);
  return true;
}

template <typename Ehdr, typename Phdr>
bool SegmentsFitIn(FILE* file, off_t size) {
  Ehdr header;
  if (fseeko(file, 0, SEEK_SET) != 0 || fread(&header, sizeof header, 1, file) != 1) return false;
  if (header.e_phentsize != sizeof(Phdr)) return false;
  for (unsigned i = 0; i < header.e_phnum; ++i) {
    Phdr segment;
    const off_t at = static_cast<off_t>(header.e_phoff + i * sizeof(Phdr));
    if (fseeko(file, at, SEEK_SET) != 0 || fread(&segment, sizeof segment, 1, file) != 1) return false;
    if (segment.p_type == PT_LOAD && segment.p_offset + segment.p_filesz > static_cast<uint64_t>(size)) return false;
  }
  return true;
}

// The loader answers a name it has loaded with the object it already has, without looking at the
// file now at that path: after an update replaced the extension while another instance still runs
// the old one, the path would give the old code. So a file replaced while its object is loaded is
// loaded under a new spelling of the same path ("<dir>/./<name>", one more "./" each time), which
// keeps the library's own folder as its $ORIGIN and writes nothing beside it. A spelling is used
// again for the same file, and once its object is gone.
struct Loaded {
  void* library;
  dev_t device;
  ino_t inode;
};
std::recursive_mutex g_spellingsMutex;  // a library's constructor may load another
std::map<std::string, Loaded> g_spellings;  // each spelling used, with the object and file loaded under it

// Whether the object loaded under `spelling` is still loaded under it.
bool StillLoaded(const std::string& spelling, void* library) {
  void* loaded = dlopen(spelling.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (loaded != nullptr) dlclose(loaded);
  return loaded != nullptr && loaded == library;
}

// A spelling still in use names the file it was loaded from: the file at the path now, whose object
// the loader then shares, or an older one, which needs another spelling. (A loaded file's inode is
// not reused while the object maps it.)
void* LoadUnderFreeSpelling(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const std::string folder = path.substr(0, slash + 1), name = path.substr(slash + 1);
  struct stat file {};
  const bool known = stat(path.c_str(), &file) == 0;
  std::lock_guard<std::recursive_mutex> lock(g_spellingsMutex);
  std::string spelling = path;
  for (std::string dots = "./";; dots += "./") {
    const auto used = g_spellings.find(spelling);
    if (used == g_spellings.end() || !StillLoaded(spelling, used->second.library)) break;
    if (known && used->second.device == file.st_dev && used->second.inode == file.st_ino) break;
    spelling = folder + dots + name;
  }
  void* library = dlopen(spelling.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library != nullptr) g_spellings[spelling] = {library, file.st_dev, file.st_ino};
  return library;
}

}  // namespace

bool IsCompleteElfFile(const std::string& path) {
  FILE* file = fopen(path.c_str(), "rbe");
  if (file == nullptr) return false;
  struct stat info;
  unsigned char ident[EI_NIDENT] = {};
  bool complete = fstat(fileno(file), &info) == 0 && fread(ident, 1, sizeof ident, file) == sizeof ident &&
                  memcmp(ident, ELFMAG, SELFMAG) == 0;
  if (complete) {
    complete = ident[EI_CLASS] == ELFCLASS64 ? SegmentsFitIn<Elf64_Ehdr, Elf64_Phdr>(file, info.st_size)
                                             : SegmentsFitIn<Elf32_Ehdr, Elf32_Phdr>(file, info.st_size);
  }
  fclose(file);
  return complete;
}

std::string BundleExecutablePath(const std::string& bundle_path) {
  if (bundle_path.empty()) return "";
  std::string bundle = bundle_path;
  while (bundle.size() > 1 && bundle.back() == '/') bundle.pop_back();
  const std::string name =
      BundleExecutableName(BundleInfoString(bundle, "CFBundleExecutable"), bundle.substr(bundle.find_last_of('/') + 1));
  const std::string executable = bundle + "/Contents/MacOS/" + name;
  return IsRegularFile(executable) ? executable : "";
}

bool ExecutableMatchesOwnArchitecture(const std::string& executable) {
  unsigned char ownClass = 0, otherClass = 0;
  uint16_t ownMachine = 0, otherMachine = 0;
  const std::string self = ModulePathOf(reinterpret_cast<const void*>(&ExecutableMatchesOwnArchitecture));
  if (!ReadElfIdentity(self, &ownClass, &ownMachine)) return false;
  if (!ReadElfIdentity(executable, &otherClass, &otherMachine)) return false;
  return ownClass == otherClass && ownMachine == otherMachine;
}

void* OpenLibrary(const std::string& path, std::string* error) {
  if (path.empty()) {
    if (error != nullptr) *error = "empty path";
    return nullptr;
  }
  if (!IsCompleteElfFile(path)) {
    if (error != nullptr) *error = "not a complete ELF shared object";
    return nullptr;
  }
  dlerror();
  void* library = LoadUnderFreeSpelling(path);
  if (library == nullptr && error != nullptr) {
    const char* message = dlerror();
    *error = message ? message : "unknown loader error";
  }
  return library;
}

void* LibrarySymbol(void* library, const char* name) {
  if (library == nullptr || name == nullptr) return nullptr;
  return dlsym(library, name);
}

void CloseLibrary(void* library) {
  if (library != nullptr) dlclose(library);
}

}  // namespace platform
