// lib7zip.so through its one entry, loaded from the built bundle as the plug-in loads it, on
// archives made by the 7z tool: what lands in the destination, what is refused, and that a
// refused archive writes nothing anywhere.
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lib7zip/lib7zip.h"
#include "scoped_env.h"
#include "security_test_tools.h"
#include "util_test_folder.h"

namespace {

namespace fs = std::filesystem;
using securitytest::ReadFile;
using securitytest::RunTool;

using DecompressProc = int32_t (*)(const char* archive, const char* destinationFolder);

DecompressProc LoadShippedEntry() {
  static void* library =
      dlopen(GPC_BUNDLE_DIR "/Contents/Frameworks/lib7zip.so", RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return nullptr;
  return reinterpret_cast<DecompressProc>(dlsym(library, "GpcDecompressFile7z"));
}

// The 7-Zip command: "7z", or "7zz" as older Debian packages name it.
const std::string& SevenZip() {
  static const std::string tool = [] {
    std::string path;
    RunTool("command -v 7z || command -v 7zz", &path);
    path.erase(std::remove(path.begin(), path.end(), '\n'), path.end());
    return path;
  }();
  return tool;
}

std::string Quoted(const std::string& text) { return "'" + text + "'"; }

std::string Text(const std::string& path) {
  const std::vector<unsigned char> bytes = ReadFile(path);
  return std::string(bytes.begin(), bytes.end());
}

std::string LinkTarget(const std::string& path) {
  std::error_code error;
  return fs::read_symlink(path, error).string();
}

mode_t ModeBits(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

time_t ModificationTime(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 ? info.st_mtime : 0;
}

// Every name below `folder` with its link target or size, links not followed.
std::vector<std::string> Snapshot(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end;
       it.increment(error)) {
    std::string line = it->path().string();
    if (it->is_symlink()) line += " -> " + LinkTarget(line);
    else if (it->is_regular_file()) line += " " + std::to_string(it->file_size());
    names.push_back(line);
  }
  std::sort(names.begin(), names.end());
  return names;
}

class Lib7zipTest : public ::testing::Test {
 protected:
  void SetUp() override {
    decompress_ = LoadShippedEntry();
    ASSERT_NE(decompress_, nullptr) << dlerror();
    ASSERT_FALSE(SevenZip().empty()) << "the 7z tool (Debian package 7zip) is missing";
    ASSERT_FALSE(work_.path().empty());
    ASSERT_FALSE(box_.path().empty());
    source_ = work_.Folder("src");
  }

  // Archives `items` of the source folder, links kept as links, into a new archive.
  std::string Pack(const std::string& items, const std::string& options = "") {
    const std::string archive = work_ / ("a" + std::to_string(++archives_) + ".7z");
    const std::string command = "cd " + Quoted(source_) + " && " + SevenZip() + " a -snl " +
                                options + " " + Quoted(archive) + " " + items + " >/dev/null 2>&1";
    EXPECT_TRUE(RunTool(command)) << command;
    return archive;
  }

  // Renames an entry inside the archive, to names the tool would not take from a disk.
  void Rename(const std::string& archive, const std::string& from, const std::string& to) {
    const std::string command = SevenZip() + " rn " + Quoted(archive) + " " + Quoted(from) + " " +
                                Quoted(to) + " >/dev/null 2>&1";
    EXPECT_TRUE(RunTool(command)) << command;
  }

  std::string Link(const std::string& name, const std::string& target) {
    fs::create_directories(fs::path(work_ / ("src/" + name)).parent_path());
    return work_.Link("src/" + name, target);
  }

  int32_t Extract(const std::string& archive, const std::string& destination) {
    return decompress_(archive.c_str(), destination.c_str());
  }

  std::string Out() const { return box_ / "out"; }

  ScratchFolder work_;  // sources and archives
  ScratchFolder box_;   // the destination "out" and whatever an escape would reach
  std::string source_;
  DecompressProc decompress_ = nullptr;
  int archives_ = 0;
};

TEST_F(Lib7zipTest, ExtractsANestedBundleIntoAFolderItCreates) {
  work_.Write("src/A.bundle/Contents/Info.plist", "plist");
  work_.Write("src/A.bundle/Contents/MacOS/run", "#!/bin/sh\n");
  work_.Write("src/A.bundle/Contents/Resources/R\xC3\xA9sum\xC3\xA9.strings", "strings");
  work_.Folder("src/A.bundle/Empty");
  Link("A.bundle/Current", "Contents/Info.plist");
  Link("A.bundle/Contents/Resources/Tool", "../MacOS/run");
  chmod((source_ + "/A.bundle/Contents/Info.plist").c_str(), 0664);  // beyond a usual umask
  chmod((source_ + "/A.bundle/Contents/MacOS/run").c_str(), 0751);
  chmod((source_ + "/A.bundle/Contents/MacOS").c_str(), 0750);
  chmod((source_ + "/A.bundle/Contents/Resources/R\xC3\xA9sum\xC3\xA9.strings").c_str(), 0644);
  chmod((source_ + "/A.bundle/Empty").c_str(), 0755);
  const struct timeval times[2] = {{1000000000, 0}, {1000000000, 0}};
  utimes((source_ + "/A.bundle/Contents/MacOS/run").c_str(), times);
  const std::string archive = Pack("A.bundle");

  const std::string destination = Out() + "/not/yet/there";
  ASSERT_EQ(Extract(archive, destination), kGpc7zSuccess);

  struct Expected {
    const char* name;
    const char* text;  // file content, or null for a folder or link
    const char* link;  // link target, or null
    mode_t mode;       // permission bits, or 0 for a link
  };
  const Expected expected[] = {
      {"A.bundle/Contents/Info.plist", "plist", nullptr, 0664},
      {"A.bundle/Contents/MacOS/run", "#!/bin/sh\n", nullptr, 0751},
      {"A.bundle/Contents/MacOS", nullptr, nullptr, 0750},
      {"A.bundle/Contents/Resources/R\xC3\xA9sum\xC3\xA9.strings", "strings", nullptr, 0644},
      {"A.bundle/Empty", nullptr, nullptr, 0755},
      {"A.bundle/Current", nullptr, "Contents/Info.plist", 0},
      {"A.bundle/Contents/Resources/Tool", nullptr, "../MacOS/run", 0},
  };
  for (const Expected& entry : expected) {
    SCOPED_TRACE(entry.name);
    const std::string path = destination + "/" + entry.name;
    ASSERT_TRUE(Exists(path));
    if (entry.link != nullptr) {
      EXPECT_EQ(LinkTarget(path), entry.link);
      continue;
    }
    if (entry.text != nullptr) {
      EXPECT_EQ(Text(path), entry.text);
    }
    EXPECT_EQ(ModeBits(path), entry.mode);
  }
  EXPECT_EQ(ModificationTime(destination + "/A.bundle/Contents/MacOS/run"), 1000000000);
}

TEST_F(Lib7zipTest, ReplacesFilesThatExistWithoutWritingThroughTheirOtherNames) {
  work_.Write("src/A.bundle/Info.plist", "new");
  const std::string archive = Pack("A.bundle");
  // The old file is also known under a name outside the destination.
  const std::string outside = box_.Write("outside", "old");
  fs::create_directories(Out() + "/A.bundle");
  ASSERT_EQ(link(outside.c_str(), (Out() + "/A.bundle/Info.plist").c_str()), 0);

  ASSERT_EQ(Extract(archive, Out()), kGpc7zSuccess);

  EXPECT_EQ(Text(Out() + "/A.bundle/Info.plist"), "new");
  EXPECT_EQ(Text(outside), "old");
}

TEST_F(Lib7zipTest, RefusesEntriesThatLeaveTheDestinationAndWritesNothing) {
  struct Hostile {
    const char* what;
    std::function<std::string()> makeArchive;
    std::function<void()> prepareDestination;
  };
  const std::string escape = box_ / "escape";
  const Hostile cases[] = {
      {"a ../ entry",
       [&] {
         work_.Write("escape", "x");
         return Pack("../escape", "-spf");
       },
       nullptr},
      {"an absolute entry",
       [&] {
         work_.Write("src/escape", "x");
         const std::string archive = Pack("escape");
         Rename(archive, "escape", escape);
         return archive;
       },
       nullptr},
      {"an absolute link",
       [&] {
         Link("Contents/escape", escape);
         return Pack("Contents");
       },
       nullptr},
      {"a relative link that climbs out",
       [&] {
         Link("Contents/escape", "../../escape");
         return Pack("Contents");
       },
       nullptr},
      {"a link that steps back out of another link",
       [&] {
         Link("x/up", "..");  // alone it points at the destination itself
         Link("escape", "x/up/..");
         return Pack("x escape");
       },
       nullptr},
      {"an entry below a link of the archive",
       [&] {
         Link("inner", "x");
         work_.Write("src/staged/file", "x");
         const std::string archive = Pack("inner staged/file");
         Rename(archive, "staged/file", "inner/file");
         return archive;
       },
       nullptr},
      {"an entry below a link already in the destination",
       [&] {
         work_.Write("src/ext/file", "x");
         return Pack("ext/file");
       },
       [&] {
         fs::create_directories(Out());
         fs::create_directories(escape);
         symlink("../escape", (Out() + "/ext").c_str());
       }},
      {"a link through a link already in the destination",
       [&] {
         Link("mine", "ext/file");
         return Pack("mine");
       },
       [&] {
         fs::create_directories(Out());
         fs::create_directories(escape);
         symlink("../escape", (Out() + "/ext").c_str());
       }},
  };
  for (const Hostile& hostile : cases) {
    SCOPED_TRACE(hostile.what);
    fs::remove_all(source_);
    fs::remove_all(Out());
    fs::remove_all(escape);
    fs::create_directories(source_);
    const std::string archive = hostile.makeArchive();
    if (hostile.prepareDestination) hostile.prepareDestination();
    const std::vector<std::string> before = Snapshot(box_.path());

    EXPECT_EQ(Extract(archive, Out()), kGpc7zUnsafeEntry);

    EXPECT_EQ(Snapshot(box_.path()), before);
  }
}

TEST_F(Lib7zipTest, FailsOnBadArgumentsAndArchivesItCannotRead) {
  work_.Write("src/A.bundle/Info.plist", std::string(4000, 'p'));
  const std::string good = Pack("A.bundle");
  const std::vector<unsigned char> bytes = ReadFile(good);
  const std::string half = work_ / "half.7z";
  securitytest::WriteFile(half, std::vector<unsigned char>(bytes.begin(), bytes.begin() + bytes.size() / 2));
  const std::string signatureOnly = work_ / "signature.7z";
  securitytest::WriteFile(signatureOnly, std::vector<unsigned char>(bytes.begin(), bytes.begin() + 32));
  const std::string zip = work_ / "a.zip";
  ASSERT_TRUE(RunTool("cd " + Quoted(source_) + " && " + SevenZip() + " a -tzip " + Quoted(zip) +
                      " A.bundle >/dev/null 2>&1"));
  const std::string file = box_.Write("file", "x");
  const std::string out = Out();
  const std::string missing = work_ / "missing.7z";

  struct Bad {
    const char* what;
    const char* archive;
    const char* destination;
    int32_t expected;
  };
  const Bad cases[] = {
      {"no archive", nullptr, out.c_str(), kGpc7zBadArguments},
      {"no destination", good.c_str(), nullptr, kGpc7zBadArguments},
      {"an empty archive path", "", out.c_str(), kGpc7zBadArguments},
      {"an empty destination path", good.c_str(), "", kGpc7zBadArguments},
      {"a missing archive", missing.c_str(), out.c_str(),
       kGpc7zCannotReadArchive},
      {"a zip archive", zip.c_str(), out.c_str(), kGpc7zCannotReadArchive},
      {"a 7z archive cut in half", half.c_str(), out.c_str(), kGpc7zCannotReadArchive},
      {"a 7z signature header alone", signatureOnly.c_str(), out.c_str(),
       kGpc7zCannotReadArchive},
      {"a destination that is a file", good.c_str(), file.c_str(), kGpc7zWriteFailed},
  };
  const std::vector<std::string> before = Snapshot(box_.path());
  for (const Bad& bad : cases) {
    SCOPED_TRACE(bad.what);
    EXPECT_EQ(decompress_(bad.archive, bad.destination), bad.expected);
    EXPECT_EQ(Snapshot(box_.path()), before);
  }
}

TEST_F(Lib7zipTest, StopsAtTheEntryAndByteLimits) {
  // Three entries (a folder and two files) holding 1200 bytes.
  work_.Write("src/d/a", std::string(600, 'a'));
  work_.Write("src/d/b", std::string(600, 'b'));
  const std::string archive = Pack("d");

  struct Limit {
    const char* entries;
    const char* bytes;
    int32_t expected;
  };
  const Limit cases[] = {
      {"3", "1200", kGpc7zSuccess},
      {"2", nullptr, kGpc7zLimitExceeded},
      {nullptr, "1199", kGpc7zLimitExceeded},
  };
  for (const Limit& limit : cases) {
    SCOPED_TRACE(std::string(limit.entries ? limit.entries : "-") + " entries, " +
                 (limit.bytes ? limit.bytes : "-") + " bytes");
    fs::remove_all(Out());
    ScopedEnv entries("GPC_7Z_MAX_ENTRIES", limit.entries);
    ScopedEnv bytes("GPC_7Z_MAX_BYTES", limit.bytes);

    EXPECT_EQ(Extract(archive, Out()), limit.expected);

    EXPECT_EQ(Exists(Out() + "/d/b"), limit.expected == kGpc7zSuccess);
  }
}

}  // namespace
