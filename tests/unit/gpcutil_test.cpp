#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/gpcutil.h"
#include "http_test_server.h"
#include "platform/clock.h"
#include "scoped_env.h"
#include "util_test_folder.h"

// Opens as the system does; once armed, first swaps the folder at `swapped` for a link to `victim`
// (with no victim, only moves it away), as another process could between a walk's look at a name
// and its opening.
static struct {
  const char *name = nullptr, *swapped = nullptr, *moved = nullptr, *victim = nullptr;
} g_swap;
extern "C" int openat(int dir, const char* name, int flags, ...) {
  if (g_swap.name != nullptr && std::strcmp(name, g_swap.name) == 0) {
    if (rename(g_swap.swapped, g_swap.moved) != 0 || (g_swap.victim && symlink(g_swap.victim, g_swap.swapped) != 0)) abort();
    g_swap.name = nullptr;
  }
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return static_cast<int>(syscall(SYS_openat, dir, name, flags, mode));
}

namespace {

using V = std::vector<std::string>;

TEST(Profile, ValuesAsTheReaderFindsThem) {
  const std::string longLines = "[A]\n" + std::string(2047, 'x') + "Key=tail\nBig=" + std::string(3000, 'v') + "\n";
  const std::string odd = "[A]\nOdd='x\"\nOne=\"\nTwo=\"\"\n", twice = "Key=early\n[A]\nother=1\n[B]\nKey=late\n";
  const std::string noComments = "[A]\n;Key=commented\n#x = 2\nno equals\n";
  struct Case { std::string text; const char *section, *key, *def; size_t size; std::string want; };
  const Case cases[] = {
      {"[Main]\nPath = 'x y' \n[Other]\n", "main", "PATH", "d", 256, "x y"},  // names ignore case
      {"[ Main ]\r\nName=\" a b \"\r\n", "MAIN", "name", "d", 256, "a b"},
      {odd, "A", "Odd", "d", 256, "'x\""}, {odd, "A", "One", "d", 256, "\""},  // quotes that differ are kept
      {odd, "A", "Two", "d", 256, ""},
      {twice, "A", "Key", "d", 256, "d"}, {twice, "B", "Key", "d", 256, "late"},
      {"[A]\nlist=[1]\nKey=v\n", "A", "Key", "d", 256, "d"},  // a bracketed value is a section line
      {"[A]\nlist=[1]\nKey=v\n", "A", "list", "d", 256, "d"},
      {noComments, "A", ";Key", "d", 256, "commented"}, {noComments, "A", "#x", "d", 256, "2"},
      {noComments, "A", "Key", "d", 256, "d"},
      {longLines, "A", "Key", "d", 256, "tail"},  // 2047 characters make one read
      {longLines, "A", "Big", "d", 256, std::string(255, 'v')},
      {"", "A", "Key", "abcdef", 4, "abc"},  // "" stands for a missing file
      {"", "A", "Key", nullptr, 256, ""}, {"[A]\nKey=abcdef\n", "A", "Key", "d", 4, "abc"},
  };
  ScratchFolder dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40) + " " + c.key);
    std::string path = c.text.empty() ? dir / "missing.ini" : dir.Write("p.ini", c.text);
    char dest[256];
    EXPECT_EQ(ZRGetPrivateProfileString(c.section, c.key, c.def, dest, c.size, path.c_str()), c.want.size());
    EXPECT_EQ(dest, c.want);
  }
  std::string path = dir.Write("n.ini", "[A]\nn=12abc\nneg=  -7 \nword=abc\nempty=\nhuge=99999999999\ntiny=-99999999999\n");
  const std::pair<const char*, int> numbers[] = {{"n", 12},    {"neg", -7},  {"word", 5},
                                                 {"empty", 5}, {"absent", 5}, {"huge", 2147483647},
                                                 {"tiny", INT_MIN}};
  for (const auto& [key, want] : numbers) EXPECT_EQ(ZRGetPrivateProfileInt("A", key, 5, path.c_str()), want) << key;
  EXPECT_EQ(ZRGetPrivateProfileInt("A", "n", 5, (dir / "missing.ini").c_str()), 5);

  FILE* file = fopen(dir.Write("r.ini", "[A]\nk=1\n[A]\nk=2\n").c_str(), "r");  // reads go on from the position
  char dest[16];
  for (const char* want : {"1", "2"}) EXPECT_TRUE(ZRReadIni(file, "a", "K", dest, sizeof dest) && dest == std::string(want));
  EXPECT_FALSE(ZRReadIni(file, "a", "K", dest, sizeof dest));
  fclose(file);
}

TEST(Text, TrimDivideReplace) {
  char blanks[] = " \t\r\n ", text[] = "\t a b \r\n";
  EXPECT_STREQ(ZRTrimString(blanks), "");
  EXPECT_EQ(ZRTrimStringA(text), text + 2);
  EXPECT_STREQ(text + 2, "a b");
  const std::tuple<const char*, const char*, V> pieces[] = {
      {"a,,b", ",", {"a", "", "b"}}, {",a", ",", {"", "a"}}, {"a,", ",", {"a"}},  // no trailing empty piece
      {",,", ",", {"", ""}},         {"1 2\t3", " \t", {"1", "2", "3"}},          {"", ",", {}},
      {"abc", "", {}},               {"abc", ";", {"abc"}}};
  for (const auto& [in, seps, want] : pieces) EXPECT_EQ(divideStr(in, seps), want) << in;
  const std::tuple<std::string, const char*, const char*, const char*> replaced[] = {
      {"aXbX", "X", "XX", "aXXbXX"}, {"aaa", "aa", "b", "ba"}, {"abc", "", "z", "abc"}, {"a.b.c", ".", "", "abc"}};
  for (auto [in, from, to, want] : replaced) EXPECT_EQ(replaceall(in, from, to), want);
}

TEST(Clock, TicksFollowTheClockRestartOnBackwardsAndWrap) {
  int64_t now = 0;  // far before any real clock: the first read restarts the count
  platform::SetWallClockOverride([&] { return now; });
  // Sub-millisecond parts are dropped; an earlier clock restarts at 0; the count wraps at 2^32 ms.
  const std::pair<int64_t, uint32_t> steps[] = {
      {1000000, 0}, {2500999, 1500}, {500000, 0}, {507000, 7}, {507000 + (int64_t(1) << 32) * 1000, 7}};
  for (const auto& [at, ticks] : steps) {
    now = at;
    EXPECT_EQ(GetTickCount(), ticks) << now;
  }
  platform::SetWallClockOverride(nullptr);
  EXPECT_EQ(CalcSequenceDistance(0xFFFFFFF0u, 0x10u), 0x20u);
}

TEST(Files, FoldersTempNamesAndListings) {
  ScratchFolder dir;
  EXPECT_TRUE(MakeDirectory(dir / "one") && isDir(dir / "one"));
  EXPECT_FALSE(MakeDirectory(dir / "one") || MakeDirectory(dir / "two/three"));  // one level, only when missing

  std::string folder = dir.path() + "/", first, again;
  uint32_t n = GetTempFileName(folder.c_str(), "APK", first);
  EXPECT_EQ(first, folder + "APK" + std::to_string(n) + ".tmp");
  EXPECT_EQ(GetTempFileName(folder.c_str(), "APK", again), n);  // the name is free until the file is made
  dir.Lay("APK" + std::to_string(n) + ".tmp APK" + std::to_string(n + 1) + ".tmp");
  EXPECT_EQ(GetTempFileName(folder.c_str(), "APK", again), n + 2);
  EXPECT_EXIT(  // a child process, so the counter run to the end does not outlive this test
      {
        const uint32_t start = GetTempFileName(folder.c_str(), "T", again);  // above 1: APK took some
        for (uint32_t i = start; i < 9999; ++i) dir.Write("T" + std::to_string(i) + ".tmp");
        const bool last = GetTempFileName(folder.c_str(), "T", again) == 9999;  // the last number is handed out
        dir.Write("T9999.tmp");
        const bool back = GetTempFileName(folder.c_str(), "T", again) == 1;  // then the free names below
        for (uint32_t i = 1; i < start; ++i) dir.Write("T" + std::to_string(i) + ".tmp");
        const bool full = GetTempFileName(folder.c_str(), "T", again) == 0;
        exit(last && back && full && GetTempFileName(folder.c_str(), "U", again) == 1 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");  // gives up only when none is free, and not for good

  dir.Lay("caf\xe9/");  // a TMPDIR that is not UTF-8 gives way to the shared folder
  EXPECT_EQ((ScopedEnv("TMPDIR", dir / "caf\xe9"), GetTempPath()), "/tmp/");
  EXPECT_EQ((ScopedEnv("TMPDIR", dir / "one"), GetTempPath()), dir / "one/");

  ScratchFolder list;
  list.Lay("f/ a.txt l@f dangling@nowhere");
  std::string file = list / "a.txt", link = list / "l";
  EXPECT_TRUE(isDir(list / "f") && !isDir(link) && isLink(link) && !isLink(file) && !isDir(list / "missing"));
  EXPECT_TRUE(FileExists(file) && FileExists(list.path()) && FileExists(list / "dangling"));
  EXPECT_FALSE(FileExists(list / "missing") || FileExists(""));
  std::vector<FSDirectoryItem> items;
  ASSERT_EQ(FSGetDirectoryItems(list.path(), items), FSListStatus::kListed);
  std::sort(items.begin(), items.end(), [](auto& a, auto& b) { return a.name < b.name; });
  std::string kinds;
  for (const auto& item : items) kinds += item.name + (item.isAlias ? "@" : "") + (item.isFolder ? "/" : "") + " ";
  EXPECT_EQ(kinds, "a.txt dangling@ f/ l@ ");
  EXPECT_EQ(FSGetDirectoryItems(file, items), FSListStatus::kFolderNotFound);
  EXPECT_TRUE(items.empty());
}

TEST(Files, DeleteFilesRemovesOnlyMatchingVersionsOfOneLibrary) {
  ScratchFolder dir;
  dir.Lay("libfoo-1.0.so libfoo-2.0.so libfoo-2.0.dylib libbar-1.0.so libfoobar-1.0.so libfoo.so libfoo-3.0.so@libfoo-2.0.so libfoo-4.0.so/");
  DeleteFiles(dir.path().c_str(), "libfoo", "so");
  EXPECT_EQ(dir.Describe(), "libbar-1.0.so libfoo-2.0.dylib libfoo-3.0.so@libfoo-2.0.so libfoo-4.0.so/ libfoo.so libfoobar-1.0.so");
  DeleteFiles(dir.path().c_str(), "", "");  // any name-version file
  EXPECT_EQ(dir.Describe(), "libfoo-3.0.so@libfoo-2.0.so libfoo-4.0.so/ libfoo.so");
}

TEST(Files, ProcessLookupIgnoresCase) {
  std::string name;  // another copy of this program may be the one found
  std::getline(std::ifstream("/proc/" + std::to_string(GetPIDForProcessName("GPCUTIL_TEST")) + "/comm"), name);
  EXPECT_EQ(name, "gpcutil_test");
  auto openFiles = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
  const auto before = openFiles();
  EXPECT_EQ(GetPIDForProcessName("no-such-process"), 0);
  EXPECT_EQ(openFiles(), before);  // nothing stays open after a lookup
}

// Even root cannot unlink or rename an entry with the immutable attribute.
bool SetImmutable(const std::string& path, bool on) {
  int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW), flags = 0;
  bool ok = fd >= 0 && ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
  ok = ok && ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  if (fd >= 0) close(fd);
  return ok;
}

TEST(RemoveFile, PlainEntriesGoLinkTargetsStayUndeletableOnesAreMovedAsideOrReported) {
  ScratchFolder dir, outside;
  outside.Write("keep/me.txt");
  dir.Lay("ext.bundle/Contents/MacOS/ext APK1.tmp dangling@nowhere ext.bundle/Contents/outside@" + outside / "keep" +
          " linked@" + outside / "keep");
  EXPECT_TRUE(RemoveFile(dir / "ext.bundle") && RemoveFile(dir / "APK1.tmp") && RemoveFile(dir / "dangling") &&
              RemoveFile(dir / "linked//"));  // the link goes, not what it points to
  EXPECT_EQ(dir.Describe() + "|" + outside.Describe(), "|keep/ keep/me.txt");
  EXPECT_FALSE(RemoveFile(dir / "missing") || RemoveFile(""));
  // `stuck` is made immutable and `target` removed (a bare name, from inside the folder, when
  // `bare`), `times` times over; afterwards the folder holds that many entries starting with `left`.
  struct Case { const char *stuck, *target; bool bare, removed; const char* left; size_t times; };
  const Case cases[] = {{"ext.bundle/stuck", "ext.bundle", false, true, ".ext.bundle.", 3},  // each under its own name
                        {"ext.bundle/stuck", "ext.bundle/", false, true, ".ext.bundle.", 1},
                        {"pkg/stuck", "pkg", true, true, "pkg.deltmp", 1},  // a bare name: no hidden name beside it
                        {"locked.bin", "locked.bin", false, false, "locked.bin", 1}};
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  platform::SetWallClockOverride([] { return int64_t(1700000000) * 1000000; });  // one time for all names
  const struct ClockBack { ~ClockBack() { platform::SetWallClockOverride(nullptr); } } clockBack;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.target);
    ScratchFolder dir;
    for (size_t i = 0; i < c.times; ++i) {
      if (!SetImmutable(dir.Write(c.stuck), true)) GTEST_SKIP() << "this file system or user cannot set the immutable attribute";
      EXPECT_EQ(chdir(c.bare ? dir.path().c_str() : cwd), 0);
      EXPECT_EQ(RemoveFile(c.bare ? c.target : (dir / c.target).c_str()), c.removed);
      EXPECT_EQ(chdir(cwd), 0);
    }
    std::vector<FSDirectoryItem> items;
    FSGetDirectoryItems(dir.path(), items);
    EXPECT_EQ(items.size(), c.times);
    for (const FSDirectoryItem& item : items) {
      EXPECT_EQ(item.name.rfind(c.left, 0), 0u) << item.name;
      EXPECT_TRUE(SetImmutable(dir / item.name + (c.stuck + strcspn(c.stuck, "/")), false));
    }
  }
}

// A folder swapped for a link just before the walk opens it is not walked through: what the link
// leads to stays. A folder moved away while the walk is inside it ends the walk there: it never goes
// on in the folder the moved one now lies in, where names like those left to remove are another's.
TEST(RemoveFile, AFolderSwappedForALinkOrMovedMeanwhileIsNotFollowed) {
  ScratchFolder victim;
  victim.Write("a.txt");
  const struct { const char *opened, *swapped; bool link; const char* left; } cases[] = {
      {"z", "tree/z", true, "moved/ moved/f zz.txt"}, {"..", "tree/z", false, "moved/ zz.txt"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.opened);
    ScratchFolder dir;
    dir.Lay("zz.txt tree/z/f tree/zz.txt");  // "z" is walked into before "zz.txt" is removed
    const std::string swapped = dir / c.swapped, moved = dir / "moved";
    g_swap = {c.opened, swapped.c_str(), moved.c_str(), c.link ? victim.path().c_str() : nullptr};
    RemoveFile(dir / "tree");
    EXPECT_EQ(g_swap.name, nullptr) << "never swapped";
    EXPECT_EQ(dir.Describe() + "|" + victim.Describe(), std::string(c.left) + "|a.txt");
  }
}

// A tree deeper than the descriptors the process may hold goes whole.
TEST(RemoveFile, ATreeDeeperThanTheDescriptorLimitGoesWhole) {
  ScratchFolder dir;
  std::string deep = dir / "deep";
  for (int level = 0; level < 300; ++level, deep += "/d") ASSERT_EQ(mkdir(deep.c_str(), 0755), 0) << level;
  EXPECT_TRUE(gpctest::InChild([&] {
    const rlimit few{64, 64};
    return setrlimit(RLIMIT_NOFILE, &few) == 0 && RemoveFile(dir / "deep");
  }));
  EXPECT_EQ(dir.Describe(), "");
}

// A bundle packed with folders its owner may not write or list is still removed whole.
TEST(RemoveFile, FoldersTheOwnerMayNotWriteAreOpenedUpAndRemoved) {
  ScratchFolder dir;
  dir.Lay("ro.bundle/Contents/MacOS/ro ro.bundle/Contents/Resources/r.strings");
  chmod((dir / "ro.bundle/Contents/MacOS").c_str(), 0555);
  chmod((dir / "ro.bundle/Contents/Resources").c_str(), 0311);
  chmod((dir / "ro.bundle/Contents").c_str(), 0500);
  EXPECT_TRUE(gpctest::InChild([&] { return RemoveFile(dir / "ro.bundle"); }, true));
  EXPECT_EQ(dir.Describe(), "");
  // Another user's folder that cannot be searched stays; everything around it goes.
  dir.Lay("tree/a/x tree/b.txt");
  ASSERT_TRUE(chmod((dir / "tree/a").c_str(), 0644) == 0 && chown((dir / "tree/a").c_str(), 65534, 65534) == 0);
  EXPECT_TRUE(gpctest::InChild([&] { return RemoveFile(dir / "tree") || true; }, true));
  EXPECT_EQ(dir.Describe().find("b.txt"), std::string::npos) << dir.Describe();
}

}  // namespace
