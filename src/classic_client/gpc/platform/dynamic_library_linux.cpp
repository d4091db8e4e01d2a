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
  FILE* file = fopen(path.c_str(), "rb");
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


// The file each name was loaded from. The loader answers a name it has loaded with the object it
// already has, without looking at the file now at that path: after an update replaced the
// extension while another instance still runs the old one, the new file must be loaded under a
// name of its own.
struct FileId {
  dev_t device;
  ino_t inode;
  bool operator==(const FileId& other) const { return device == other.device && inode == other.inode; }
};
std::mutex loadedNamesMutex;
std::map<std::string, FileId>& LoadedNames() {
  static auto* names = new std::map<std::string, FileId>;  // never destroyed: unload order is unknown
  return *names;
}

bool IsNameLoaded(const std::string& name) {
  void* loaded = dlopen(name.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (loaded != nullptr) dlclose(loaded);
  return loaded != nullptr;
}

// A name under which `path`, the file `id`, can be loaded: the path itself, or a hidden name
// beside it when the path's name is taken by an older file still loaded. Empty when none is left.
std::string NameToLoad(const std::string& path, const FileId& id) {
  const size_t slash = path.find_last_of('/');
  const std::string folder = path.substr(0, slash + 1), base = path.substr(slash + 1);
  for (int n = 0; n < 16; ++n) {
    const std::string name = n == 0 ? path : folder + "." + base + ".load" + std::to_string(n);
    if (!IsNameLoaded(name)) return name;
    const auto known = LoadedNames().find(name);
    if (known == LoadedNames().end() || known->second == id) return name;
  }
  return "";
}

void* LoadUnderName(const std::string& path, const std::string& name, const FileId& id) {
  const bool alias = name != path && !IsNameLoaded(name);
  if (alias) {
    unlink(name.c_str());  // left by a process that stopped half-way
    if (link(path.c_str(), name.c_str()) != 0) return nullptr;
  }
  void* library = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (alias) unlink(name.c_str());
  if (library != nullptr) LoadedNames()[name] = id;
  return library;
}

}  // namespace

bool IsCompleteElfFile(const std::string& path) {
  FILE* file = fopen(path.c_str(), "rb");
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
  std::string name = BundleInfoString(bundle, "CFBundleExecutable");
  if (name.empty() || name.find('/') != std::string::npos) {
    name = bundle.substr(bundle.find_last_of('/') + 1);
    const size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > 0) name.erase(dot);
  }
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
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    if (error != nullptr) *error = strerror(errno);
    return nullptr;
  }
  const FileId id{info.st_dev, info.st_ino};
  std::lock_guard<std::mutex> lock(loadedNamesMutex);
  const std::string name = NameToLoad(path, id);
  if (name.empty()) {
    if (error != nullptr) *error = "too many older copies of this file are still loaded";
    return nullptr;
  }
  dlerror();
  void* library = LoadUnderName(path, name, id);
  if (library == nullptr && error != nullptr) {
    const char* message = dlerror();
    *error = message ? message : "cannot link " + name + ": " + strerror(errno);
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
