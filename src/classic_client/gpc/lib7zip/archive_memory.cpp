// The memory libarchive may ask for in one piece, inside lib7zip.so.
//
// libarchive's 7z reader sizes its tables by the counts an archive's header claims before it
// reads what they count: a header of a few bytes claiming sixteen million folders has it allocate
// and fill 1.7 GB of folder records, in the browser's process, before the first entry. libarchive
// is linked into this library with its calls to malloc, calloc and realloc bound to the functions
// below (the linker's --wrap), which refuse any one piece larger than kMaxArchivePieceBytes.
// libarchive takes the refusal as it takes a machine without the memory: the archive is damaged,
// nothing is written. The code the decompressors share with the rest of the process (liblzma,
// zlib) is not bound here; what they allocate follows from data they really decompress, which the
// byte limit bounds.
#include <cstddef>

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* memory, size_t size);
}

namespace {

// Larger than anything a 7z archive made by the 7z tool needs at any level (its largest PPMd
// model is 192 MiB), and far below what a claimed count could reach.
constexpr size_t kMaxArchivePieceBytes = size_t{256} << 20;

bool TooLarge(size_t count, size_t size) {
  return size != 0 && count > kMaxArchivePieceBytes / size;
}

}  // namespace

extern "C" {

__attribute__((visibility("hidden"))) void* __wrap_malloc(size_t size) {
  return TooLarge(1, size) ? nullptr : __real_malloc(size);
}

__attribute__((visibility("hidden"))) void* __wrap_calloc(size_t count, size_t size) {
  return TooLarge(count, size) ? nullptr : __real_calloc(count, size);
}

// A refused growth leaves the old piece as it was, as realloc does when memory runs out.
__attribute__((visibility("hidden"))) void* __wrap_realloc(void* memory, size_t size) {
  return TooLarge(1, size) ? nullptr : __real_realloc(memory, size);
}

}  // extern "C"
