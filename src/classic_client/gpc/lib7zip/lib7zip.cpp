// lib7zip.so: extracts a 7z archive below one folder, on libarchive.
//
// How a hostile archive is kept inside the destination:
// - A first pass reads every header (libarchive skips the data of a 7z entry it is not asked for
//   without decompressing it) and refuses the whole archive when any entry is unsafe, so such an
//   archive writes nothing, not even the destination folder. Unsafe are: an absolute name or one
//   with a ".." part; a type other than file, folder or link; a symbolic link whose target is
//   absolute or climbs out when followed part by part from the link's folder; a hard link to a
//   name outside or to a link; a name below a link, whether the link comes with the archive or
//   already lies in the destination. A target is followed as the system will follow it, through
//   the archive's own links to their targets (at most 40 of them), and may not pass through a
//   link already on disk, whose target nobody checked.
// - The second pass writes the entries the first pass approved, with the destination prefixed,
//   and stops when the archive no longer matches them (it changed between the passes).
//   libarchive's ARCHIVE_EXTRACT_SECURE_NODOTDOT and ARCHIVE_EXTRACT_SECURE_SYMLINKS check the
//   same rules again against the disk as it is at that moment.
// - The destination is made absolute and free of links with realpath(), because libarchive
//   refuses a link anywhere along the path it is given. No full path may reach PATH_MAX: past it
//   libarchive chdir()s into deep folders, which a multi-threaded browser process cannot afford.
//   Nothing here changes the working folder.
//
// Decompression bombs: more than kMaxEntries entries, or more than kMaxExtractedBytes bytes as
// the headers declare them, are refused in the first pass, before anything is written. The
// second pass counts the bytes it really writes and stops at the same limit, leaving behind
// what it had written so far.
#include "lib7zip/lib7zip.h"
#include "lib7zip/link_target.h"

#include "platform/folders.h"
#include "platform/thread_locale.h"

#include <archive.h>
#include <archive_entry.h>
#include <limits.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <cerrno>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int64_t kMaxEntries = 100000;
constexpr int64_t kMaxExtractedBytes = int64_t{4} << 30;  // 4 GiB
// Tests lower the limits through these variables; a value can only tighten a limit.
constexpr char kMaxEntriesVariable[] = "GPC_7Z_MAX_ENTRIES";
constexpr char kMaxBytesVariable[] = "GPC_7Z_MAX_BYTES";

constexpr size_t kReadBlockBytes = 64 * 1024;
constexpr int kExtractFlags = ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME |
                              ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_SECURE_SYMLINKS;
// Permission bits are kept; set-id and sticky bits have no use in a package.
constexpr mode_t kKeptModeBits = 0777;

struct Limits {
  int64_t entries;
  int64_t bytes;
};

int64_t TightenedLimit(int64_t limit, const char* variable) {
  const char* text = getenv(variable);
  if (text == nullptr || *text == '\0') return limit;
  char* end = nullptr;
  errno = 0;
  const long long value = strtoll(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < 0) return limit;
  return value < limit ? value : limit;
}

Limits CurrentLimits() {
  return {TightenedLimit(kMaxEntries, kMaxEntriesVariable),
          TightenedLimit(kMaxExtractedBytes, kMaxBytesVariable)};
}

enum class Kind { kFile, kFolder, kSymlink, kHardlink };

// One entry as the first pass approved it.
struct Entry {
  std::string name;  // below the destination, without empty, "." or ".." parts; empty: the destination
  Kind kind = Kind::kFile;
  std::string link;  // a symbolic link's target as stored, or the name a hard link points at

  bool operator==(const Entry& other) const {
    return name == other.name && kind == other.kind && link == other.link;
  }
};

using Parts = std::vector<std::string>;

// Splits a relative path into its parts, dropping empty and "." parts. False for an absolute
// path or one with a ".." part.
bool SplitSafeName(const std::string& path, Parts* parts) {
  parts->clear();
  if (!path.empty() && path[0] == '/') return false;
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    if (slash == std::string::npos) slash = path.size();
    std::string part = path.substr(start, slash - start);
    if (part == "..") return false;
    if (!part.empty() && part != ".") parts->push_back(std::move(part));
    start = slash + 1;
  }
  return true;
}

// The first `count` parts joined with "/".
std::string JoinParts(const Parts& parts, size_t count) {
  std::string joined;
  for (size_t i = 0; i < count && i < parts.size(); ++i) {
    if (i > 0) joined += '/';
    joined += parts[i];
  }
  return joined;
}

struct ReaderFree {
  void operator()(archive* reader) const { archive_read_free(reader); }
};
using Reader = std::unique_ptr<archive, ReaderFree>;
struct WriterFree {
  void operator()(archive* writer) const { archive_write_free(writer); }
};
using Writer = std::unique_ptr<archive, WriterFree>;
struct EntryFree {
  void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};
using EntryHandle = std::unique_ptr<archive_entry, EntryFree>;

// A reader of the 7z archive at `path`, or null when it cannot be opened as one.
Reader Open7z(const char* path) {
  Reader reader(archive_read_new());
  if (!reader) return nullptr;
  // No outer compression: a 7z archive compresses inside, and libarchive hands some outer forms
  // (lzop, lrzip, grzip) to a program of that name found on PATH.
  archive_read_support_format_7zip(reader.get());
  if (archive_read_open_filename(reader.get(), path, kReadBlockBytes) != ARCHIVE_OK) return nullptr;
  return reader;
}

// Names are taken in UTF-8; the locale's form only when that is missing.
const char* Utf8OrLocal(const char* utf8, const char* local) {
  return utf8 != nullptr ? utf8 : local;
}

// What the header says is to be written, or kGpc7zUnsafeEntry when it may not be written.
int32_t DescribeEntry(archive_entry* header, Entry* entry) {
  Parts parts;
  const char* name =
      Utf8OrLocal(archive_entry_pathname_utf8(header), archive_entry_pathname(header));
  if (name == nullptr || !SplitSafeName(name, &parts)) return kGpc7zUnsafeEntry;
  entry->name = JoinParts(parts, parts.size());
  entry->link.clear();
  const char* hardlink =
      Utf8OrLocal(archive_entry_hardlink_utf8(header), archive_entry_hardlink(header));
  const mode_t type = archive_entry_filetype(header);
  if (hardlink != nullptr) {
    Parts target;
    if (!SplitSafeName(hardlink, &target) || target.empty()) return kGpc7zUnsafeEntry;
    entry->kind = Kind::kHardlink;
    entry->link = JoinParts(target, target.size());
  } else if (type == AE_IFREG) {
    entry->kind = Kind::kFile;
  } else if (type == AE_IFDIR) {
    entry->kind = Kind::kFolder;
  } else if (type == AE_IFLNK) {
    const char* target =
        Utf8OrLocal(archive_entry_symlink_utf8(header), archive_entry_symlink(header));
    // No target of PATH_MAX bytes can be written: refused before it costs anything to follow.
    if (target == nullptr || *target == '\0' || strlen(target) >= PATH_MAX) return kGpc7zUnsafeEntry;
    entry->kind = Kind::kSymlink;
    entry->link = target;
  } else {
    return kGpc7zUnsafeEntry;  // devices, pipes and sockets have no place in a package
  }
  // Only a folder may stand for the destination itself.
  if (entry->name.empty() && entry->kind != Kind::kFolder) return kGpc7zUnsafeEntry;
  return kGpc7zSuccess;
}

// First pass: every entry described and checked on its own, and the limits applied.
int32_t ReadPlan(const char* archivePath, const Limits& limits, std::vector<Entry>* plan) {
  Reader reader = Open7z(archivePath);
  if (!reader) return kGpc7zCannotReadArchive;
  int64_t declaredBytes = 0;
  for (;;) {
    archive_entry* header = nullptr;
    const int status = archive_read_next_header(reader.get(), &header);
    if (status == ARCHIVE_EOF) return kGpc7zSuccess;
    if (status < ARCHIVE_WARN) return kGpc7zCannotReadArchive;
    if (static_cast<int64_t>(plan->size()) >= limits.entries) return kGpc7zLimitExceeded;
    if (archive_entry_is_encrypted(header)) return kGpc7zCannotReadArchive;
    Entry entry;
    const int32_t described = DescribeEntry(header, &entry);
    if (described != kGpc7zSuccess) return described;
    if (entry.kind == Kind::kFile && archive_entry_size_is_set(header)) {
      const int64_t size = archive_entry_size(header);
      if (size < 0 || size > limits.bytes - declaredBytes) return kGpc7zLimitExceeded;
      declaredBytes += size;
    }
    plan->push_back(std::move(entry));
  }
}

// The names below the destination as a tree of places: one per folder or file the archive names,
// and one per name looked up on disk where its folder is there. Each place holds one part of a
// name, so that walking a name costs its length and not the square of it; any other name is
// nowhere, for it is neither in the archive nor on disk. Links are those the archive brings (they
// will replace whatever lies there) and those already on disk.
class LinkIndex {
 public:
  typedef size_t Place;
  static constexpr Place kNowhere = 1;

  explicit LinkIndex(std::string destination) : m_destination(std::move(destination)) {
    struct stat info;
    const bool there = stat(m_destination.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
    m_places.push_back({0, "", nullptr, there ? Disk::kFolder : Disk::kAbsent, true});
    m_places.push_back({0, "", nullptr, Disk::kAbsent, false});  // kNowhere
  }

  // Gives every entry its place; false when two entries share a name, for then what the archive
  // leaves at that name is not what was checked.
  bool AddEntries(const std::vector<Entry>& plan) {
    for (const Entry& entry : plan) {
      Parts parts;
      SplitSafeName(entry.name, &parts);
      Place place = Top();
      for (const std::string& part : parts) place = Add(place, part);
      if (m_places[place].named && place != Top()) return false;
      m_places[place].named = true;
      if (entry.kind == Kind::kSymlink) m_places[place].archiveTarget = &entry.link;
    }
    return true;
  }

  Place Top() const { return 0; }

  Place Down(Place place, const std::string& part) {
    auto known = m_children.find({place, part});
    if (known != m_children.end()) return known->second;
    if (place == kNowhere || DiskState(place) != Disk::kFolder) return kNowhere;
    return Add(place, part);
  }

  // A link the archive brings is checked with the others, unless a folder already there keeps it
  // from being written; one already on disk is not checked.
  gpc7z::LinkAt At(Place place) {
    if (m_places[place].archiveTarget != nullptr) {
      return DiskState(place) == Disk::kFolder ? gpc7z::LinkAt::kUnchecked : gpc7z::LinkAt::kChecked;
    }
    return DiskState(place) == Disk::kLink ? gpc7z::LinkAt::kUnchecked : gpc7z::LinkAt::kNone;
  }

  const std::string& Target(Place place) const { return *m_places[place].archiveTarget; }

  // One more part walked; false once the walks of all links together took too many, as a small
  // archive of long links that lead through each other would.
  bool Step() { return ++m_steps <= kMaxSteps; }

  // The place of a name, and whether one of the folders that hold it is a link.
  Place Resolve(const std::string& name, bool* belowLink) {
    Parts parts;
    SplitSafeName(name, &parts);
    Place place = Top();
    for (const std::string& part : parts) {
      if (place != Top() && At(place) != gpc7z::LinkAt::kNone) *belowLink = true;
      place = Down(place, part);
    }
    return place;
  }

 private:
  static constexpr long kMaxSteps = 10000000;
  enum class Disk { kUnknown, kAbsent, kFolder, kLink, kOther };
  struct PlaceInfo {
    Place parent;
    std::string part;
    const std::string* archiveTarget;  // a link the archive brings: its target
    Disk disk;
    bool named;  // by an entry of the archive
  };

  Place Add(Place place, const std::string& part) {
    const auto [child, added] = m_children.emplace(std::make_pair(place, part), m_places.size());
    if (added) m_places.push_back({place, part, nullptr, Disk::kUnknown, false});
    return child->second;
  }

  // What lies at a place on disk; looked up only where its folder is there.
  Disk DiskState(Place place) {
    PlaceInfo& info = m_places[place];
    if (info.disk != Disk::kUnknown) return info.disk;
    if (DiskState(info.parent) != Disk::kFolder) return info.disk = Disk::kAbsent;
    struct stat status;
    if (lstat(PathOf(place).c_str(), &status) != 0) return info.disk = Disk::kAbsent;
    info.disk = S_ISLNK(status.st_mode) ? Disk::kLink : S_ISDIR(status.st_mode) ? Disk::kFolder : Disk::kOther;
    return info.disk;
  }

  std::string PathOf(Place place) const {
    std::string path;
    for (; place != Top(); place = m_places[place].parent) path = "/" + m_places[place].part + path;
    return m_destination + path;
  }

  std::string m_destination;
  std::vector<PlaceInfo> m_places;
  std::map<std::pair<Place, std::string>, Place> m_children;
  long m_steps = 0;
};

// True when `name` or one of the folders that hold it is a link.
bool IsOrLiesBelowLink(const std::string& name, LinkIndex* links) {
  bool belowLink = false;
  const LinkIndex::Place place = links->Resolve(name, &belowLink);
  return belowLink || links->At(place) != gpc7z::LinkAt::kNone;
}

// True when the target of the link `name`, followed from the link's folder with the links on its
// way, stays below the destination and passes through no link already on disk.
bool SymlinkStaysInside(const std::string& name, const std::string& target, LinkIndex* links) {
  Parts parts;
  SplitSafeName(name, &parts);
  std::vector<LinkIndex::Place> folder;
  for (size_t i = 0; i + 1 < parts.size(); ++i) {
    folder.push_back(links->Down(folder.empty() ? links->Top() : folder.back(), parts[i]));
  }
  return gpc7z::LinkTargetStaysInside(*links, folder, target);
}

// Checks of the entries against each other and against what already lies in the destination.
int32_t CheckLinks(const std::vector<Entry>& plan, const std::string& destination) {
  LinkIndex links(destination);
  if (!links.AddEntries(plan)) return kGpc7zUnsafeEntry;
  for (const Entry& entry : plan) {
    bool belowLink = false;
    links.Resolve(entry.name, &belowLink);
    if (belowLink) return kGpc7zUnsafeEntry;
    if (entry.kind == Kind::kSymlink && !SymlinkStaysInside(entry.name, entry.link, &links)) {
      return kGpc7zUnsafeEntry;
    }
    // Data written to a hard link to a link would go wherever that link leads.
    if (entry.kind == Kind::kHardlink && IsOrLiesBelowLink(entry.link, &links)) {
      return kGpc7zUnsafeEntry;
    }
  }
  return kGpc7zSuccess;
}

// The destination folder, created when missing, as an absolute path without links.
int32_t PrepareDestination(const std::string& folder, std::string* destination) {
  if (platform::MakeFolders(folder, 0777) != 0) return kGpc7zWriteFailed;
  char* real = realpath(folder.c_str(), nullptr);
  if (real == nullptr) return kGpc7zWriteFailed;
  *destination = real;
  free(real);
  if (destination->size() > 1 && destination->back() == '/') destination->pop_back();
  return kGpc7zSuccess;
}

// The real path `folder` will have once it is made: the real path of its deepest part already
// there, followed by the parts still missing. Missing parts hold no links, so the real path can
// only be shorter (a ".." among them), and checking lengths against this one needs no folder.
std::string RealPathToBe(std::string there) {
  std::string missing;
  for (;;) {
    while (there.size() > 1 && there.back() == '/') there.pop_back();
    char* real = realpath(there.c_str(), nullptr);
    if (real != nullptr) {
      std::string path = real;
      free(real);
      if (!missing.empty()) path += (path == "/" ? "" : "/") + missing;
      return path;
    }
    if (there == "." || there == "/") return there + "/" + missing;  // the folder check fails later
    const size_t slash = there.find_last_of('/');
    missing = there.substr(slash + 1) + (missing.empty() ? "" : "/" + missing);
    there = slash == std::string::npos ? "." : there.substr(0, slash == 0 ? 1 : slash);
  }
}

bool FitsPathMax(const std::string& destination, const std::string& name) {
  return destination.size() + 1 + name.size() < PATH_MAX;
}

int32_t CheckPathLengths(const std::vector<Entry>& plan, const std::string& destination) {
  for (const Entry& entry : plan) {
    if (!FitsPathMax(destination, entry.name)) return kGpc7zUnsafeEntry;
    if (entry.kind == Kind::kHardlink && !FitsPathMax(destination, entry.link)) {
      return kGpc7zUnsafeEntry;
    }
  }
  return kGpc7zSuccess;
}

// Copies the current entry's data, counting it against the byte limit.
int32_t CopyData(archive* reader, archive* writer, int64_t maxBytes, int64_t* written) {
  for (;;) {
    const void* block = nullptr;
    size_t size = 0;
    la_int64_t offset = 0;
    const int status = archive_read_data_block(reader, &block, &size, &offset);
    if (status == ARCHIVE_EOF) return kGpc7zSuccess;
    if (status < ARCHIVE_WARN) return kGpc7zCannotReadArchive;
    if (static_cast<int64_t>(size) > maxBytes - *written) return kGpc7zLimitExceeded;
    *written += static_cast<int64_t>(size);
    if (archive_write_data_block(writer, block, size, offset) < ARCHIVE_WARN) {
      return kGpc7zWriteFailed;
    }
  }
}

// Writes one approved entry below the destination. Only what the plan approved, the permission
// bits and the modification time are taken from the archive.
int32_t WriteEntry(archive* reader, archive* writer, archive_entry* header, const Entry& entry,
                   const std::string& destination, int64_t maxBytes, int64_t* written) {
  EntryHandle out(archive_entry_new());
  if (!out) return kGpc7zInternalFailure;
  archive_entry_copy_pathname(out.get(), (destination + "/" + entry.name).c_str());
  archive_entry_set_perm(out.get(), archive_entry_perm(header) & kKeptModeBits);
  if (archive_entry_mtime_is_set(header)) {
    archive_entry_set_mtime(out.get(), archive_entry_mtime(header),
                            archive_entry_mtime_nsec(header));
  }
  switch (entry.kind) {
    case Kind::kFile:
      archive_entry_set_filetype(out.get(), AE_IFREG);
      archive_entry_set_size(out.get(), archive_entry_size(header));
      break;
    case Kind::kFolder:
      archive_entry_set_filetype(out.get(), AE_IFDIR);
      break;
    case Kind::kSymlink:
      archive_entry_set_filetype(out.get(), AE_IFLNK);
      archive_entry_copy_symlink(out.get(), entry.link.c_str());
      break;
    case Kind::kHardlink:
      // The data of a hard link is its target's; nothing is written through it.
      archive_entry_set_filetype(out.get(), AE_IFREG);
      archive_entry_copy_hardlink(out.get(), (destination + "/" + entry.link).c_str());
      archive_entry_set_size(out.get(), 0);
      break;
  }
  if (archive_write_header(writer, out.get()) < ARCHIVE_WARN) return kGpc7zWriteFailed;
  if (entry.kind == Kind::kFile) {
    const int32_t copied = CopyData(reader, writer, maxBytes, written);
    if (copied != kGpc7zSuccess) return copied;
  }
  return archive_write_finish_entry(writer) < ARCHIVE_WARN ? kGpc7zWriteFailed : kGpc7zSuccess;
}

// Second pass: the approved entries written below the destination; the links written are listed
// in `links`.
int32_t WritePlan(const char* archivePath, const std::vector<Entry>& plan, const std::string& destination,
                  const Limits& limits, std::vector<std::string>* links) {
  Reader reader = Open7z(archivePath);
  if (!reader) return kGpc7zCannotReadArchive;
  Writer writer(archive_write_disk_new());
  if (!writer) return kGpc7zInternalFailure;
  archive_write_disk_set_options(writer.get(), kExtractFlags);
  int64_t written = 0;
  for (size_t index = 0;; ++index) {
    archive_entry* header = nullptr;
    const int status = archive_read_next_header(reader.get(), &header);
    if (status == ARCHIVE_EOF && index == plan.size()) break;
    if (status == ARCHIVE_EOF || status < ARCHIVE_WARN) return kGpc7zCannotReadArchive;
    // An archive that no longer matches the first pass changed on disk meanwhile.
    Entry entry;
    if (index >= plan.size() || DescribeEntry(header, &entry) != kGpc7zSuccess ||
        !(entry == plan[index])) {
      return kGpc7zCannotReadArchive;
    }
    if (entry.name.empty()) continue;  // the destination itself, already there
    // Listed before it is written: a link made by a write that then failed goes too.
    if (entry.kind == Kind::kSymlink) links->push_back(destination + "/" + entry.name);
    const int32_t result = WriteEntry(reader.get(), writer.get(), header, entry, destination,
                                      limits.bytes, &written);
    if (result != kGpc7zSuccess) return result;
  }
  // Closing sets the folders' modes and times, which wait until their contents are written.
  return archive_write_close(writer.get()) < ARCHIVE_WARN ? kGpc7zWriteFailed : kGpc7zSuccess;
}

// A failed extraction takes back the links it wrote: one leading through entries not written yet
// would dangle, and lead wherever a folder or link later made at that name leads.
int32_t ExtractPlan(const char* archivePath, const std::vector<Entry>& plan, const std::string& destination,
                    const Limits& limits) {
  std::vector<std::string> links;
  const int32_t result = WritePlan(archivePath, plan, destination, limits, &links);
  struct stat info;
  for (const std::string& link : result == kGpc7zSuccess ? std::vector<std::string>() : links) {
    if (lstat(link.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) unlink(link.c_str());
  }
  return result;
}

int32_t Decompress(const char* archivePath, const std::string& folder) {
  // 7z stores names in UTF-16, and libarchive drops a name it cannot convert to the locale's
  // character set, which in the "C" locale is any non-ASCII name. While this runs the calling
  // thread alone uses UTF-8, so names reach the disk in UTF-8 whatever the host's locale.
  const platform::ThreadLocale utf8(LC_CTYPE_MASK, {"C.UTF-8", "C.utf8", "en_US.UTF-8"});
  const Limits limits = CurrentLimits();
  std::vector<Entry> plan;
  int32_t result = ReadPlan(archivePath, limits, &plan);
  // Checked before the destination is made, so that this refusal too writes nothing; and again
  // once it is there, in case a link appeared along its path meanwhile.
  if (result == kGpc7zSuccess) result = CheckPathLengths(plan, RealPathToBe(folder));
  if (result == kGpc7zSuccess) result = CheckLinks(plan, folder);
  std::string destination;
  if (result == kGpc7zSuccess) result = PrepareDestination(folder, &destination);
  if (result == kGpc7zSuccess) result = CheckPathLengths(plan, destination);
  if (result == kGpc7zSuccess) result = ExtractPlan(archivePath, plan, destination, limits);
  return result;
}

}  // namespace

extern "C" int32_t GpcDecompressFile7z(const char* archive, const char* destinationFolder) {
  if (archive == nullptr || destinationFolder == nullptr || *archive == '\0' ||
      *destinationFolder == '\0') {
    return kGpc7zBadArguments;
  }
  try {
    return Decompress(archive, destinationFolder);
  } catch (...) {
    return kGpc7zInternalFailure;  // memory ran out
  }
}
