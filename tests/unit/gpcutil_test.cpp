#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "gpcutil.h"
#include "platform/clock.h"
#include "util_test_folder.h"
#include "trace_capture.h"

namespace {

class UtilTest : public ::testing::Test {
 protected:
  void SetUp() override { ClearCapturedTraces(); }
  ScratchFolder dir_;
};

bool AssertLogged(const char* expression) {
  std::string wanted = std::string("ASSERT ") + expression + " failed at file src/classic_client/gpc/common/gpcutil, line ";
  return TraceContains(3, wanted);
}

// ---- Profile files ----

class ProfileTest : public UtilTest {
 protected:
  std::string Profile(const std::string& text) { return dir_.Write("settings.ini", text); }
  std::string Read(const char* section, const char* key, const char* def = "none", size_t size = 256) {
    char dest[256];
    size_t len = ZRGetPrivateProfileString(section, key, def, dest, size, path_.c_str());
    EXPECT_EQ(len, std::strlen(dest));
    return dest;
  }
  std::string path_;
};

TEST_F(ProfileTest, QuotedValueIsUnquotedAndTrimmedWithCaseFreeNames) {
  path_ = Profile("[Main]\nPath = 'x y' \n[Other]\n");
  EXPECT_EQ(Read("main", "PATH"), "x y");
  path_ = Profile("[ Main ]\r\nName=\" a b \"\r\nOdd='x\"\r\nOne=\"\r\n");
  EXPECT_EQ(Read("MAIN", "name"), "a b");
  EXPECT_EQ(Read("Main", "Odd"), "'x\"");  // quotes differ: kept
  EXPECT_EQ(Read("Main", "One"), "\"");    // a lone quote is no pair
}

TEST_F(ProfileTest, SectionBoundariesDecideWhatIsFound) {
  path_ = Profile("Key=early\n[A]\nother=1\n[B]\nKey=late\n");
  EXPECT_EQ(Read("A", "Key"), "none");  // only after the next section header
  EXPECT_EQ(Read("B", "Key"), "late");
  path_ = Profile("[A]\nlist=[1]\nKey=v\n");
  EXPECT_EQ(Read("A", "Key"), "none");  // a value with both brackets is a section line
  EXPECT_EQ(Read("A", "list"), "none");
  path_ = Profile("[A]\n;Key=commented\n#x = 2\nno equals here\n");
  EXPECT_EQ(Read("A", ";Key"), "commented");  // no comment syntax
  EXPECT_EQ(Read("A", "#x"), "2");
  EXPECT_EQ(Read("A", "Key"), "none");
}

TEST_F(ProfileTest, ReadingContinuesFromTheFilesPosition) {
  path_ = Profile("[A]\nk=1\n[A]\nk=2\n");
  FILE* file = fopen(path_.c_str(), "r");
  ASSERT_NE(file, nullptr);
  char dest[16];
  ASSERT_TRUE(ZRReadIni(file, "a", "K", dest, sizeof dest));
  EXPECT_STREQ(dest, "1");
  ASSERT_TRUE(ZRReadIni(file, "a", "K", dest, sizeof dest));
  EXPECT_STREQ(dest, "2");
  EXPECT_FALSE(ZRReadIni(file, "a", "K", dest, sizeof dest));
  fclose(file);
}

TEST_F(ProfileTest, LongLinesContinueAsTheNextRead) {
  // The first 2047 characters form one read without "=", the rest reads as a line of its own.
  path_ = Profile("[A]\n" + std::string(2047, 'x') + "Key=tail\n" + "Big=" + std::string(3000, 'v') + "\n");
  EXPECT_EQ(Read("A", "Key"), "tail");
  std::string big = Read("A", "Big");
  EXPECT_EQ(big, std::string(255, 'v'));  // bounded by the buffer, always terminated
}

TEST_F(ProfileTest, DefaultIsBoundedAndUsedForMissingFileOrKey) {
  path_ = dir_ / "missing.ini";
  EXPECT_EQ(Read("A", "Key", "abcdef", 4), "abc");
  EXPECT_EQ(Read("A", "Key", nullptr), "");
  path_ = Profile("[A]\nKey=abcdef\n");
  EXPECT_EQ(Read("A", "Key", "d", 4), "abc");
  EXPECT_EQ(Read("A", "Nope", "d"), "d");
}

TEST_F(ProfileTest, IntegersParseLeadingNumberOnly) {
  path_ = Profile("[A]\nn=12abc\nneg=  -7 \nword=abc\nempty=\nhuge=99999999999\n");
  EXPECT_EQ(ZRGetPrivateProfileInt("A", "n", 5, path_.c_str()), 12);
  EXPECT_EQ(ZRGetPrivateProfileInt("A", "neg", 5, path_.c_str()), -7);
  EXPECT_EQ(ZRGetPrivateProfileInt("A", "word", 5, path_.c_str()), 5);
  EXPECT_EQ(ZRGetPrivateProfileInt("A", "empty", 5, path_.c_str()), 5);
  EXPECT_EQ(ZRGetPrivateProfileInt("A", "huge", 5, path_.c_str()), 2147483647);
  EXPECT_EQ(ZRGetPrivateProfileInt("A", "absent", 5, path_.c_str()), 5);
  EXPECT_EQ(ZRGetPrivateProfileInt("A", "n", 5, (dir_ / "missing.ini").c_str()), 5);
}

// ---- Text helpers ----

TEST_F(UtilTest, TrimmingCutsBothEndsInPlace) {
  char blanks[] = " \t\r\n ";
  char* trimmed = ZRTrimString(blanks);
  EXPECT_STREQ(trimmed, "");
  EXPECT_EQ(blanks[0], '\0');
  char text[] = "\t a b \r\n";
  trimmed = ZRTrimStringA(text);
  EXPECT_STREQ(trimmed, "a b");
  EXPECT_EQ(trimmed, text + 2);
  EXPECT_TRUE(CapturedTracesSnapshot().empty());
  EXPECT_EQ(ZRTrimString(nullptr), nullptr);
  EXPECT_TRUE(AssertLogged("lpszString"));
}

TEST_F(UtilTest, DivideKeepsInnerEmptyPiecesAndDropsTrailingOne) {
  using V = std::vector<std::string>;
  EXPECT_EQ(divideStr("a,,b", ","), (V{"a", "", "b"}));
  EXPECT_EQ(divideStr(",a", ","), (V{"", "a"}));
  EXPECT_EQ(divideStr("a,", ","), (V{"a"}));
  EXPECT_EQ(divideStr(",,", ","), (V{"", ""}));
  EXPECT_EQ(divideStr("1 2\t3", " \t"), (V{"1", "2", "3"}));
  EXPECT_EQ(divideStr("", ","), V{});
  EXPECT_EQ(divideStr("abc", ""), V{});
  EXPECT_EQ(divideStr("abc", ";"), (V{"abc"}));
}

TEST_F(UtilTest, ReplaceAllDoesNotRescanReplacements) {
  std::string text = "aXbX";
  EXPECT_EQ(replaceall(text, "X", "XX"), "aXXbXX");
  EXPECT_EQ(text, "aXXbXX");
  text = "aaa";
  EXPECT_EQ(replaceall(text, "aa", "b"), "ba");
  text = "abc";
  EXPECT_EQ(replaceall(text, "", "z"), "abc");
  text = "a.b.c";
  EXPECT_EQ(replaceall(text, ".", ""), "abc");
}

// ---- Clock ----

TEST(Clock, TicksFollowInjectedClockRestartOnBackwardsAndWrap) {
  int64_t now = 1000000;  // far before any real clock: the first read restarts the count
  platform::SetWallClockOverride([&] { return now; });
  EXPECT_EQ(GetTickCount(), 0u);
  now += 1500 * 1000 + 999;  // sub-millisecond parts are dropped
  EXPECT_EQ(GetTickCount(), 1500u);
  now = 500000;  // a clock earlier than the start restarts the count at 0
  EXPECT_EQ(GetTickCount(), 0u);
  now += 7000;
  EXPECT_EQ(GetTickCount(), 7u);
  now += (int64_t(1) << 32) * 1000;  // wraps at 2^32 ms
  EXPECT_EQ(GetTickCount(), 7u);
  platform::SetWallClockOverride(nullptr);
  GetTickCount();  // the real clock is later: counting simply goes on from the old start
}

TEST(Clock, SequenceDistanceAcrossWrap) {
  EXPECT_EQ(CalcSequenceDistance(0xFFFFFFF0u, 0x10u), 0x20u);
  EXPECT_EQ(CalcSequenceDistance(5u, 3u), 0xFFFFFFFEu);
  EXPECT_EQ(CalcSequenceDistance(7u, 7u), 0u);
}

// ---- Folders and files ----

TEST_F(UtilTest, FoldersComeFromThePlatform) {
  std::string support = GetApplicationSupportDirectory();
  ASSERT_FALSE(support.empty());
  EXPECT_TRUE(isDir(support.c_str()));
  std::string temp = GetTempPath();
  ASSERT_FALSE(temp.empty());
  EXPECT_EQ(temp.back(), '/');

  const char* old = getenv("XDG_DATA_HOME");
  std::string saved = old ? old : "";
  setenv("XDG_DATA_HOME", "/proc/no-such-place/data", 1);
  EXPECT_EQ(GetApplicationSupportDirectory(), "");
  EXPECT_TRUE(AssertLogged("path"));
  if (old != nullptr) setenv("XDG_DATA_HOME", saved.c_str(), 1); else unsetenv("XDG_DATA_HOME");
}

TEST_F(UtilTest, MakeDirectoryCreatesOneLevel) {
  EXPECT_TRUE(MakeDirectory(dir_ / "one"));
  struct stat info;
  ASSERT_EQ(stat((dir_ / "one").c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
  EXPECT_FALSE(MakeDirectory(dir_ / "one"));  // exists already
  EXPECT_FALSE(MakeDirectory(dir_ / "two/three"));
}

TEST_F(UtilTest, TempFileNameStaysUntilTheFileIsMade) {
  std::string folder = dir_.path() + "/";
  std::string first, again, next;
  uint32_t n = GetTempFileName(folder.c_str(), "APK", first);
  ASSERT_NE(n, 0u);
  EXPECT_EQ(first, folder + "APK" + std::to_string(n) + ".tmp");
  EXPECT_EQ(GetTempFileName(folder.c_str(), "APK", again), n);
  EXPECT_EQ(again, first);
  dir_.Write("APK" + std::to_string(n) + ".tmp");
  dir_.Write("APK" + std::to_string(n + 1) + ".tmp");
  EXPECT_EQ(GetTempFileName(folder.c_str(), "APK", next), n + 2);
  EXPECT_EQ(next, folder + "APK" + std::to_string(n + 2) + ".tmp");
  EXPECT_EQ(GetTempFileName(nullptr, "APK", next), 0u);
}

TEST_F(UtilTest, TempFileNameGivesUpAbove9999) {
  std::string folder = dir_.path() + "/";
  // In a child process, so the exhausted counter does not outlive this test.
  EXPECT_EXIT(
      {
        std::string name;
        uint32_t n = GetTempFileName(folder.c_str(), "T", name);
        for (uint32_t i = n; i <= 9999; ++i) close(creat((folder + "T" + std::to_string(i) + ".tmp").c_str(), 0644));
        bool gave_up = GetTempFileName(folder.c_str(), "T", name) == 0;
        bool stays_given_up = GetTempFileName(folder.c_str(), "other", name) == 0;
        exit(gave_up && stays_given_up ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(UtilTest, LinkAndFolderTestsDoNotFollowLinks) {
  std::string folder = dir_.Folder("sub");
  std::string link = dir_.Link("to-sub", folder);
  std::string file = dir_.Write("file.txt");
  EXPECT_TRUE(isDir(folder));
  EXPECT_FALSE(isDir(link));
  EXPECT_TRUE(isLink(link));
  EXPECT_FALSE(isLink(file));
  EXPECT_FALSE(isDir(dir_ / "missing"));
  EXPECT_FALSE(isLink(static_cast<const char*>(nullptr)));
  EXPECT_TRUE(AssertLogged("path"));
}

TEST_F(UtilTest, FileExistsOnPlainFilesTouchesNothing) {
  std::string text = dir_.Write("notes.txt");
  EXPECT_TRUE(FileExists(text));
  EXPECT_TRUE(FileExists(dir_.path()));
  EXPECT_FALSE(FileExists(dir_ / "missing.txt"));
  EXPECT_FALSE(FileExists(""));
  EXPECT_FALSE(FileExists(static_cast<const char*>(nullptr)));
  std::vector<FSDirectoryItem> items;
  ASSERT_EQ(FSGetDirectoryItems(dir_.path(), items), FSListStatus::kListed);
  EXPECT_EQ(items.size(), 1u);
  EXPECT_TRUE(CapturedTracesSnapshot().empty());
}

TEST_F(UtilTest, DirectoryItemsTellLinksFoldersAndFilesApart) {
  dir_.Folder("f");
  dir_.Write("a.txt");
  dir_.Link("l", "a.txt");
  dir_.Link("dangling", "nowhere");
  std::vector<FSDirectoryItem> items;
  ASSERT_EQ(FSGetDirectoryItems(dir_.path(), items), FSListStatus::kListed);
  ASSERT_EQ(items.size(), 4u);
  std::sort(items.begin(), items.end(), [](auto& a, auto& b) { return a.name < b.name; });
  EXPECT_EQ(items[0].name, "a.txt");
  EXPECT_FALSE(items[0].isAlias || items[0].isFolder);
  EXPECT_TRUE(items[1].isAlias);
  EXPECT_TRUE(items[2].isFolder);
  EXPECT_TRUE(items[3].isAlias);
  EXPECT_EQ(FSGetDirectoryItems(dir_ / "a.txt", items), FSListStatus::kFolderNotFound);
  EXPECT_TRUE(items.empty());
  EXPECT_EQ(FSGetDirectoryItems(dir_ / "missing", items), FSListStatus::kFolderNotFound);
}

TEST_F(UtilTest, DeleteFilesRemovesOnlyMatchingVersionsOfOneLibrary) {
  dir_.Write("libfoo-1.0.so");
  dir_.Write("libfoo-2.0.so");
  dir_.Write("libfoo-2.0.dylib");
  dir_.Write("libbar-1.0.so");
  dir_.Write("libfoo.so");
  dir_.Link("libfoo-3.0.so", "libfoo-2.0.so");
  dir_.Folder("libfoo-4.0.so");
  DeleteFiles(dir_.path().c_str(), "libfoo", "so");
  EXPECT_FALSE(Exists(dir_ / "libfoo-1.0.so"));
  EXPECT_FALSE(Exists(dir_ / "libfoo-2.0.so"));
  for (const char* kept : {"libfoo-2.0.dylib", "libbar-1.0.so", "libfoo.so", "libfoo-3.0.so", "libfoo-4.0.so"}) {
    EXPECT_TRUE(Exists(dir_ / kept)) << kept;
  }
  DeleteFiles(dir_.path().c_str(), "", "");  // any name-version file
  EXPECT_FALSE(Exists(dir_ / "libfoo-2.0.dylib"));
  EXPECT_FALSE(Exists(dir_ / "libbar-1.0.so"));
  EXPECT_TRUE(Exists(dir_ / "libfoo.so"));
  DeleteFiles((dir_ / "missing").c_str(), "libfoo", "so");  // left alone
  DeleteFiles(nullptr, "libfoo", "so");
  EXPECT_TRUE(AssertLogged("lpszFolder"));
}

TEST_F(UtilTest, ProcessLookupIgnoresCase) {
  EXPECT_EQ(GetPIDForProcessName("gpcutil_test"), getpid());
  EXPECT_EQ(GetPIDForProcessName("GPCUTIL_TEST"), getpid());
  EXPECT_EQ(GetPIDForProcessName("no-such-process"), 0);
  EXPECT_EQ(GetPIDForProcessName(nullptr), 0);
}

// ---- RemoveFile ----

// Sets or clears the immutable attribute; even root cannot unlink or rename such an entry.
bool SetImmutable(const std::string& path, bool on) {
  int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
  if (fd < 0) return false;
  int flags = 0;
  bool ok = ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  if (ok) {
    flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    ok = ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  }
  close(fd);
  return ok;
}

// Keeps an entry immutable for one test and always releases it, so scratch folders can go.
class ImmutableEntry {
 public:
  explicit ImmutableEntry(std::string path) : path_(std::move(path)), set_(SetImmutable(path_, true)) {}
  ~ImmutableEntry() { Release(); }
  bool set() const { return set_; }
  void Release() {
    if (set_) SetImmutable(path_, false);
    set_ = false;
  }
  void Follow(const std::string& moved) { path_ = moved; }

 private:
  std::string path_;
  bool set_;
};

TEST_F(UtilTest, RemoveFileOfMissingOrEmptyPathFailsSilently) {
  EXPECT_FALSE(RemoveFile(dir_ / "missing"));
  EXPECT_FALSE(RemoveFile(""));
  EXPECT_FALSE(RemoveFile(static_cast<const char*>(nullptr)));
  EXPECT_TRUE(CapturedTracesSnapshot().empty());
}

TEST_F(UtilTest, RemoveFileTakesFolderWithContentsButNotLinkTargets) {
  ScratchFolder outside;
  std::string kept = outside.Write("keep/me.txt");
  std::string bundle = dir_.Folder("ext.bundle");
  dir_.Write("ext.bundle/Contents/MacOS/ext", "elf");
  dir_.Write("ext.bundle/Contents/Info.plist");
  dir_.Link("ext.bundle/Contents/outside", outside.path() + "/keep");
  EXPECT_TRUE(RemoveFile(bundle));
  EXPECT_FALSE(Exists(bundle));
  EXPECT_TRUE(Exists(kept));
  EXPECT_TRUE(TraceContains(1, "RemoveFile: remove file[" + bundle + "] success!"));

  std::string file = dir_.Write("APK1.tmp");
  EXPECT_TRUE(RemoveFile(file));
  EXPECT_FALSE(Exists(file));
}

TEST_F(UtilTest, RemoveFileMovesAnUndeletableFolderAsideUnderAHiddenName) {
  std::string folder = dir_.Folder("ext.bundle");
  std::string stuck = dir_.Write("ext.bundle/stuck");
  ImmutableEntry guard(stuck);
  if (!guard.set()) GTEST_SKIP() << "this file system or user cannot set the immutable attribute";

  EXPECT_TRUE(RemoveFile(folder));
  EXPECT_FALSE(Exists(folder));
  EXPECT_TRUE(TraceContains(1, "RemoveFile: remove file[" + folder + "] failed!"));
  std::vector<FSDirectoryItem> items;
  ASSERT_EQ(FSGetDirectoryItems(dir_.path(), items), FSListStatus::kListed);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].name.rfind(".ext.bundle.", 0), 0u) << items[0].name;
  guard.Follow(dir_ / items[0].name + "/stuck");
}

TEST_F(UtilTest, RemoveFileFallsBackToDeltmpWhenNoHiddenNameCanBeBuilt) {
  std::string folder = dir_.Folder("pkg");
  ImmutableEntry guard(dir_.Write("pkg/stuck"));
  if (!guard.set()) GTEST_SKIP() << "this file system or user cannot set the immutable attribute";
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  bool removed = RemoveFile("pkg");  // a bare name has no parent for the hidden name
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_TRUE(removed);
  EXPECT_TRUE(TraceContains(3, "RemoveFile: combine new name failed!"));
  EXPECT_FALSE(Exists(folder));
  EXPECT_TRUE(Exists(dir_ / "pkg.deltmp/stuck"));
  guard.Follow(dir_ / "pkg.deltmp/stuck");
}

TEST_F(UtilTest, RemoveFileReportsAFileThatCannotBeMoved) {
  std::string file = dir_.Write("locked.bin");
  ImmutableEntry guard(file);
  if (!guard.set()) GTEST_SKIP() << "this file system or user cannot set the immutable attribute";
  EXPECT_FALSE(RemoveFile(file));
  EXPECT_TRUE(Exists(file));
  EXPECT_TRUE(TraceContains(3, "RemoveFile: remove file[" + file + "] again, still failed!"));
}

TEST_F(UtilTest, RemoveFileInReadOnlyFolder) {
  if (geteuid() == 0) GTEST_SKIP() << "root ignores folder permissions; the immutable-attribute tests cover this";
  std::string folder = dir_.Folder("ro");
  std::string file = dir_.Write("ro/file.bin");
  ASSERT_EQ(chmod(folder.c_str(), 0555), 0);
  EXPECT_FALSE(RemoveFile(file));
  EXPECT_TRUE(Exists(file));
  EXPECT_TRUE(TraceContains(3, "again, still failed!"));
  chmod(folder.c_str(), 0755);
}

}  // namespace
