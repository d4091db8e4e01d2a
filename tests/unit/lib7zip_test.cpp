// lib7zip.so through its one entry, loaded from the built bundle as the plug-in loads it, on archives
// made by the 7z tool: what lands in the destination, what is refused, and that a refusal writes nothing.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <tuple>
#include <vector>

#include "extension_package.h"
#include "lib7zip/lib7zip.h"
#include "scoped_env.h"
#include "util_test_folder.h"

namespace {

using gpctest::ShellQuote;

bool Sh(const std::string& command) {
  bool ok = false;
  gpctest::ShellOutput(command, &ok);
  return ok;
}
// Every name below `folder` with its kind, mode and link target.
std::string Listing(const std::string& folder) {
  return gpctest::ShellOutput("cd " + ShellQuote(folder) +
                              " && find . -mindepth 1 -printf '%P %y %m %l\\n' | LC_ALL=C sort");
}

int g_umaskCalls = 0;

}  // namespace

// The program's umask stands in for the C library's, for lib7zip.so too.
extern "C" __attribute__((visibility("default"))) mode_t umask(mode_t mask) {
  ++g_umaskCalls;
  return static_cast<mode_t>(syscall(SYS_umask, mask));
}

namespace {

class Lib7zipTest : public ::testing::Test {
 protected:
  void SetUp() override {
    void* library = dlopen(GPC_BUNDLE_DIR "/Contents/Frameworks/lib7zip.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    decompress_ =
        reinterpret_cast<int32_t (*)(const char*, const char*)>(dlsym(library, "GpcDecompressFile7z"));
    ASSERT_NE(decompress_, nullptr);
    EXPECT_EQ(dlsym(library, "archive_read_new"), nullptr) << "libarchive's symbols stay inside";
  }
  // Runs `script` in a fresh source folder, then archives `items` of it (links kept as links).
  std::string Pack(const std::string& script, const std::string& items, const std::string& options = "") {
    const std::string archive = work_ / ("a" + std::to_string(++archives_) + ".7z");
    EXPECT_TRUE(Sh("cd " + ShellQuote(work_.path()) + " && rm -rf src && mkdir src && cd src && " + script +
                   " && 7z a -snl " + options + " " + ShellQuote(archive) + " " + items))
        << script;
    return archive;
  }
  int32_t Extract(const std::string& archive, const std::string& destination) {
    return decompress_(archive.c_str(), destination.c_str());
  }

  ScratchFolder work_;  // sources and archives
  ScratchFolder box_;   // the destination "out" and whatever an escape would reach
  const std::string out_ = box_ / "out";
  int32_t (*decompress_)(const char*, const char*) = nullptr;
  int archives_ = 0;
};

TEST_F(Lib7zipTest, ExtractsANestedBundleWithModesTimesAndLinksIntoAFolderItCreates) {
  const std::string archive =
      Pack("mkdir -p A.bundle/Contents/MacOS A.bundle/Contents/Resources A.bundle/Empty && cd A.bundle && "
           "printf plist > Contents/Info.plist && printf '#!/bin/sh' > Contents/MacOS/run && "
           "printf strings > Contents/Resources/R\xC3\xA9sum\xC3\xA9.strings && ln -s Contents/Info.plist Current && "
           "ln -s ../MacOS/run Contents/Resources/Tool && chmod 755 . Contents Contents/Resources && "
           "chmod 1755 Empty && chmod 664 Contents/Info.plist && chmod 4751 Contents/MacOS/run && "
           "chmod 750 Contents/MacOS && chmod 644 Contents/Resources/*.strings && "
           "touch -d @1000000000 Contents/MacOS/run && cd ..",
           "A.bundle");
  const std::string destination = out_ + "/not/yet/there";
  ASSERT_EQ(Extract(archive, destination), kGpc7zSuccess);
  EXPECT_EQ(Listing(destination),  // without the set-id and sticky bits
            "A.bundle d 755 \nA.bundle/Contents d 755 \nA.bundle/Contents/Info.plist f 664 \n"
            "A.bundle/Contents/MacOS d 750 \nA.bundle/Contents/MacOS/run f 751 \nA.bundle/Contents/Resources d 755 \n"
            "A.bundle/Contents/Resources/R\xC3\xA9sum\xC3\xA9.strings f 644 \n"
            "A.bundle/Contents/Resources/Tool l 777 ../MacOS/run\nA.bundle/Current l 777 Contents/Info.plist\n"
            "A.bundle/Empty d 755 \n");
  EXPECT_EQ(gpctest::ShellOutput("cd " + ShellQuote(destination) + "/A.bundle && cat Current Contents/Resources/Tool "
                                 "Contents/Resources/*.strings && stat -c ' %Y' Contents/MacOS/run"),
            "plist#!/bin/shstrings 1000000000\n");
}

// Folders an archive does not hold are made under the umask, which is read and never set: it is
// the browser's, for all its threads.
TEST_F(Lib7zipTest, FoldersNotInTheArchiveFollowTheUmaskWhichIsReadNeverSet) {
  const std::string archive = Pack("mkdir -p a/b && echo x > a/b/f && chmod 640 a/b/f", "a/b/f");
  const mode_t old = umask(027);
  g_umaskCalls = 0;
  const int32_t result = Extract(archive, out_);
  const int calls = g_umaskCalls;
  umask(old);
  EXPECT_EQ(result, kGpc7zSuccess);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(Listing(out_), "a d 750 \na/b d 750 \na/b/f f 640 \n");
}

TEST_F(Lib7zipTest, ReplacesFilesThatExistWithoutWritingThroughTheirOtherNames) {
  const std::string archive = Pack("mkdir A.bundle && printf new > A.bundle/Info.plist", "A.bundle");
  const std::string outside = box_.Write("outside", "old");
  box_.Folder("out/A.bundle");
  ASSERT_EQ(link(outside.c_str(), (out_ + "/A.bundle/Info.plist").c_str()), 0);
  ASSERT_EQ(Extract(archive, out_), kGpc7zSuccess);
  EXPECT_EQ(gpctest::ReadFile(out_ + "/A.bundle/Info.plist") + gpctest::ReadFile(outside), "newold");
}

// A write that fails part-way (a file where a folder with contents lies) takes back the links
// written before it, and only them.
TEST_F(Lib7zipTest, AFailedWriteTakesBackTheLinksItWrote) {
  const std::string archive = Pack("mkdir d && ln -s d/e a && ln -s d b && echo x > z", "a b d z");
  box_.Folder("out/z/keep");
  ASSERT_TRUE(Sh("ln -s nowhere " + ShellQuote(out_ + "/mine")));
  EXPECT_EQ(Extract(archive, out_), kGpc7zWriteFailed);
  EXPECT_EQ(Listing(out_), "d d 755 \nmine l 777 nowhere\nz d 755 \nz/keep d 755 \n");
}

TEST_F(Lib7zipTest, RefusesEntriesThatLeaveTheDestinationAndWritesNothing) {
  const std::string escape = box_ / "escape", linkInOut = "mkdir -p out escape && ln -s ../escape out/ext";
  // A name that makes the destination's real path, "/" and the name PATH_MAX bytes (realpath's
  // newline stands for the "/"), in parts the file system takes.
  const size_t deepBytes = PATH_MAX - gpctest::ShellOutput("realpath " + ShellQuote(out_)).size();
  std::string deep;
  while (deepBytes - deep.size() > 255) deep += std::string(200, 'd') + "/";
  deep += std::string(deepBytes - deep.size(), 'f');
  struct Case {
    const char* what;
    std::string script, items, options, rename, prepare;  // rename: "from to" inside the archive
  } const cases[] = {
      {"a ../ entry", "echo x > ../escape", "../escape", "-spf", "", ""},
      {"an absolute entry", "echo x > escape", "escape", "", "escape " + ShellQuote(escape), ""},
      {"an absolute link", "mkdir C && ln -s " + ShellQuote(escape) + " C/escape", "C", "", "", ""},
      {"a relative link that climbs out", "mkdir C && ln -s ../../escape C/escape", "C", "", "", ""},
      {"a link stepping back out of another link", "mkdir x && ln -s .. x/up && ln -s x/up/.. escape", "x escape",
       "", "", ""},
      {"an entry below a link of the archive", "ln -s x inner && mkdir s && echo x > s/file", "inner s/file", "",
       "s/file inner/file", ""},
      {"an entry below a link in the destination", "mkdir ext && echo x > ext/file", "ext/file", "", "", linkInOut},
      {"a link through a link in the destination", "ln -s ext/file mine", "mine", "", "", linkInOut},
      {"a link through a link of the archive into one in the destination", "ln -s d l2 && ln -s l2/ext l1", "l1 l2",
       "", "", "mkdir -p out/d escape && ln -s ../../escape out/d/ext"},
      {"a link that leads to itself", "ln -s loop loop", "loop", "", "", ""},
      {"a name given twice, to a link and a folder", "ln -s d1/d2/d3 xl && mkdir xd && ln -s x/../../.. y",
       "xl xd y", "", "xl x xd x", ""},
      {"a link through a link of the archive that a folder in the destination keeps out",
       "ln -s d1/d2 x && ln -s x/../.. y", "x y", "", "", "mkdir -p out/x/keep"},
      {"links that lead through each other for over ten million steps",  // 1000 walks of 40 x 400 parts
       "mkdir d && ln -s $(printf 'd/../%.0s' $(seq 199))d/.. l && t=$(printf 'l/%.0s' $(seq 39))l && "
       "for i in $(seq 1000); do ln -s $t m$i; done", "d l m*", "", "", ""},
      {"a full path of PATH_MAX bytes", "echo x > f", "f", "", "f " + deep, ""},  // "out" not made either
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_TRUE(Sh("cd " + ShellQuote(box_.path()) + " && rm -rf out escape"));
    const std::string archive = Pack(c.script, c.items, c.options);
    EXPECT_TRUE(c.rename.empty() || Sh("7z rn " + ShellQuote(archive) + " " + c.rename));
    EXPECT_TRUE(c.prepare.empty() || Sh("cd " + ShellQuote(box_.path()) + " && " + c.prepare));
    const std::string before = Listing(box_.path());
    EXPECT_EQ(Extract(archive, out_), kGpc7zUnsafeEntry);
    EXPECT_EQ(Listing(box_.path()), before);
  }
}

TEST_F(Lib7zipTest, FailsOnBadArgumentsAndArchivesItCannotRead) {
  const std::string good = Pack("mkdir A && head -c 4000 /dev/urandom > A/Info.plist", "A");
  const std::string half = work_ / "half.7z", zip = work_ / "a.zip", missing = work_ / "missing.7z",
                    secret = work_ / "secret.7z", lzop = work_ / "a.lzo", file = box_.Write("file", "x");
  ASSERT_TRUE(Sh("head -c 2000 " + ShellQuote(good) + " > " + ShellQuote(half) + " && cd " +
                 ShellQuote(work_ / "src") + " && 7z a -tzip " + ShellQuote(zip) + " A && 7z a -psecret " +
                 ShellQuote(secret) + " A"));  // entries encrypted, their names not
  // Wrapped as lzop, which libarchive would hand to a program of that name on PATH.
  ASSERT_TRUE(Sh("cd " + ShellQuote(work_.path()) + " && mkdir bin && printf '#!/bin/sh\\ntouch %s/ran; cat\\n' " +
                 ShellQuote(box_.path()) + " > bin/lzop && chmod +x bin/lzop && { printf '\\211LZO\\0\\r\\n\\032\\n'; cat " +
                 ShellQuote(good) + "; } > " + ShellQuote(lzop)));
  ScopedEnv path("PATH", (work_ / "bin:" + getenv("PATH")).c_str());
  const std::string before = Listing(box_.path());
  const char* const out = out_.c_str();
  typedef std::tuple<const char*, const char*, int32_t> Case;  // archive, destination, result
  for (const auto& [archive, destination, expected] : std::vector<Case>{
           {nullptr, out, kGpc7zBadArguments}, {good.c_str(), "", kGpc7zBadArguments},
           {missing.c_str(), out, kGpc7zCannotReadArchive}, {zip.c_str(), out, kGpc7zCannotReadArchive},
           {half.c_str(), out, kGpc7zCannotReadArchive}, {secret.c_str(), out, kGpc7zCannotReadArchive},
           {lzop.c_str(), out, kGpc7zCannotReadArchive},
           {good.c_str(), file.c_str(), kGpc7zWriteFailed}}) {
    EXPECT_EQ(decompress_(archive, destination), expected) << (archive ? archive : "-") << " " << destination;
    EXPECT_EQ(Listing(box_.path()), before);
  }
}

TEST_F(Lib7zipTest, StopsAtTheEntryAndByteLimits) {
  // Three entries (a folder and two files) holding 1200 bytes.
  const std::string archive = Pack("mkdir d && head -c 600 /dev/zero > d/a && cp d/a d/b", "d");
  for (const auto& [entries, bytes, expected] : std::vector<std::tuple<const char*, const char*, int32_t>>{
           {"3", "1200", kGpc7zSuccess}, {"2", nullptr, kGpc7zLimitExceeded},
           {nullptr, "1199", kGpc7zLimitExceeded}, {"2x", nullptr, kGpc7zSuccess}}) {  // no number: no limit
    SCOPED_TRACE(std::string(entries ? entries : "-") + " entries, " + (bytes ? bytes : "-") + " bytes");
    ASSERT_TRUE(Sh("rm -rf " + ShellQuote(out_)));
    ScopedEnv entryLimit("GPC_7Z_MAX_ENTRIES", entries), byteLimit("GPC_7Z_MAX_BYTES", bytes);
    EXPECT_EQ(Extract(archive, out_), expected);
    EXPECT_EQ(Exists(out_ + "/d/b"), expected == kGpc7zSuccess);
  }
}

// Small archives that would cost gigabytes: forty-one bytes whose header claims 16843008 folders
// (libarchive alone would fill 1.7 GB of folder records before finding the header too short), and
// a link whose target has 40,000 parts. Each runs in a child to measure its memory.
TEST_F(Lib7zipTest, RefusesSmallArchivesThatWouldFillTheMemory) {
  const std::string header("\x01\x04\x07\x0B\xE1\x00\x01\x01\x00", 9);  // header, streams, folders
  // Signature, version, then start-header CRC and next-header offset, size and CRC (the CRCs zero:
  // the header is parsed before they are checked).
  const std::string archive = work_.Write("claims.7z", std::string("7z\xBC\xAF\x27\x1C\x00\x04", 8) +
                                                           std::string(12, '\0') + '\x09' + std::string(11, '\0') + header);
  std::string deep;
  for (int part = 0; part < 40000; ++part) deep += "a/";
  const std::string linkBomb = work_ / "link.7z";
  ASSERT_TRUE(Sh("cd " + ShellQuote(work_.path()) + " && ln -s x l && bsdtar -cf link.7z --format 7zip -s '|^x$|" +
                 deep + "|' l"));
  for (const auto& [bomb, expected] : {std::make_pair(archive, kGpc7zCannotReadArchive),
                                       std::make_pair(linkBomb, kGpc7zUnsafeEntry)}) {
    SCOPED_TRACE(bomb);
    const pid_t child = fork();
    if (child == 0) _exit(Extract(bomb, out_) == expected && !Exists(out_) ? 0 : 1);
    int status = -1;
    rusage usage{};
    ASSERT_EQ(wait4(child, &status, 0, &usage), child);
    EXPECT_EQ(status, 0);
    // Resident size alone misses it on kernels that count zero-filled pages lazily; first touches
    // of a page do not.
    EXPECT_LT(usage.ru_maxrss, 512 * 1024) << "kB at most in the child";
    EXPECT_LT(usage.ru_minflt, 512 * 1024 / 4) << "pages first touched by the child";
  }
}

}  // namespace
