// gpc-pack as the vendor uses it: the sample extension packed and signed with certificates made by openssl
// and unpacked by the plug-in's own lib7zip, broken packages refused by `verify` for the plug-in's reason,
// bad input to `pack` refused without leaving anything behind and other spellings of good input taken.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "extension_package.h"
#include "gpc_host_run.h"
#include "http_test_server.h"
#include "lib7zip/lib7zip.h"
#include "platform/bundle.h"
#include "scoped_env.h"

namespace {

using gpctest::PageParams;
using gpctest::ShellQuote;
using gpctest::ToolRun;

const std::string kSampleBundle = std::string(GPC_BUNDLE_DIR) + "/Contents/Frameworks/zrgpcext64.bundle";

std::string Sh(const std::string& command) { return gpctest::ShellOutput(command); }

// gpc-pack pack with the vendor's key and chain unless `args` name others.
ToolRun Pack(const gpctest::PackageSigner& signer, const std::vector<std::string>& args,
             const std::string& format = "both", const char* program = GPC_BIN_DIR "/gpc-pack") {
  std::vector<std::string> all = {program, "pack", "--format", format, "--key",
                                  signer.Path("vendor.key"), "--cert", signer.Path("vendor.pem"), "--chain",
                                  signer.Path("root.pem")};
  all.insert(all.end(), args.begin(), args.end());
  return gpctest::RunTool(all);
}

// Appends line ends to the file at `path` until it holds `size` bytes.
bool PadTo(const std::string& path, size_t size) {
  const std::string bytes = gpctest::ReadFile(path);
  return bytes.size() <= size && gpctest::WriteFile(path, bytes + std::string(size - bytes.size(), '\n'));
}

// The vendor (its key file as large as gpc-pack takes), another signer "foreign", and the sample
// packed once: what `pack` printed, the JSON saved.
struct Packed {
  gpctest::TempFolder folder{"gpcpack"};
  gpctest::PackageSigner signer{folder.path()};
  const std::string package = folder.path() + "/zrgpcext64.bundle.7z";
  const std::string params = folder.path() + "/params.json";
  ToolRun run = signer.ok() && signer.AddSigner("foreign", "/CN=gpc.signer.example.com") &&
                        signer.AddSigner("lone", "/CN=lone.talvo.us", true) &&  // self-signed, no CA given
                        PadTo(signer.Path("vendor.key"), 2045)
                    ? Pack(signer, {"--out", folder.path(), kSampleBundle})
                    : ToolRun();
  const size_t json = run.out.rfind('{');  // the JSON object is the last line, the HTML element before it
  const bool saved = json != std::string::npos && gpctest::WriteFile(params, run.out.substr(json));
  std::string Param(const char* name) const { return gpchost::JsonEvent{run.out.substr(json)}.Str(name); }
};
const Packed& Shared() {
  static const Packed packed;
  return packed;
}

ToolRun Verify(const std::string& package, const PageParams& overrides,
               const std::string& params = Shared().params) {
  std::vector<std::string> args = {GPC_BIN_DIR "/gpc-pack", "verify", "--package", package, "--params",
                                   params};
  for (const auto& [name, value] : overrides) args.insert(args.end(), {"--param", name + "=" + value});
  return gpctest::RunTool(args);
}

std::string PageVersion() {
  std::string version = platform::BundleInfoString(kSampleBundle, "CFBundleVersion");
  std::replace(version.begin(), version.end(), '.', ',');
  return version;
}

TEST(GpcPack, PrintsParametersThatVerifyForAPackageThePluginUnpacksToTheBundle) {
  const Packed& p = Shared();
  ASSERT_TRUE(p.saved) << p.run.err;
  const std::string html = p.run.out.substr(0, p.json);
  EXPECT_EQ(html.rfind("<embed type=\"application/x-talvo-gpc\"", 0), 0u) << html;
  EXPECT_NE(p.run.out.find(">\n\n{"), std::string::npos) << "a blank line between HTML and JSON";
  const PageParams expected = {
      {"GpcExtName", "zrgpcext64"}, {"GpcExtVersion", PageVersion()}, {"GpcUnpackVersion", "1,0"},
      {"GpcCompressMethod", "7zip"},
      {"GpcHashMethod", "sha256"}, {"GpcExtHash", gpctest::FileDigest(p.package, "sha256")},
      {"GpcExtSignature", p.signer.Sign(p.Param("GpcExtHash"))},
      {"GpcCertification", p.signer.Chain()}};  // the root first, the signer last
  for (const auto& [name, value] : expected) {
    EXPECT_EQ(p.Param(name.c_str()), value) << name;
    EXPECT_NE(html.find(name + "=\"" + value + "\""), std::string::npos) << name;
  }
  EXPECT_EQ(Verify(p.package, {}).out, "ok\n");
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(static_cast<mode_t>(std::filesystem::status(p.package).permissions()), 0666 & ~mask) << "any new file's";

  void* library = dlopen(GPC_BUNDLE_DIR "/Contents/Frameworks/lib7zip.so", RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  auto unpack =
      reinterpret_cast<int32_t (*)(const char*, const char*)>(dlsym(library, "GpcDecompressFile7z"));
  const std::string into = p.folder.path() + "/unpacked", copy = ShellQuote(into + "/zrgpcext64.bundle");
  ASSERT_EQ(unpack(p.package.c_str(), into.c_str()), kGpc7zSuccess);
  const std::string list = "find . -printf '%P %y %m %s %l\\n' | LC_ALL=C sort";
  EXPECT_EQ(Sh("cd " + ShellQuote(into) + " && ls && cd zrgpcext64.bundle && " + list),
            "zrgpcext64.bundle\n" + Sh("cd " + ShellQuote(kSampleBundle) + " && " + list));
  EXPECT_EQ(Sh("diff -r " + ShellQuote(kSampleBundle) + " " + copy + " && echo same"), "same\n");
  // A running browser's trace file is left as it is.
  const std::string trace = p.folder.path() + "/browser.tvt";
  ASSERT_TRUE(gpctest::WriteFile(trace, "records"));
  ScopedEnv traceFile("GPC_TRACE_FILE", trace);
  EXPECT_EQ(gpctest::RunTool({GPC_BIN_DIR "/gpc-pack", "--help"}).exitCode, 0);
  EXPECT_EQ(gpctest::ReadFile(trace), "records");
}

TEST(GpcPack, EscapesWhatItPrintsAsJsonAndHtml) {
  const std::string name = "a\\\"'&b\x1f" + std::string(57, 'n'), out = Shared().folder.path() + "/odd";
  const std::string bundle = out + "/" + name + ".bundle";
  ASSERT_EQ(Sh("mkdir -p " + ShellQuote(out) + " && cp -a " + ShellQuote(kSampleBundle) + " " +
               ShellQuote(bundle) + " && cd " + ShellQuote(bundle) + "/Contents/MacOS && mv zrgpcext64 " +
               ShellQuote(name) + " && sed -i '/>CFBundleExecutable</,+1d' ../Info.plist && echo ok"),
            "ok\n");
  const ToolRun run = Pack(Shared().signer, {"--out", out, bundle});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(gpchost::JsonEvent{run.out}.Str("GpcExtName"), name) << run.out;
  EXPECT_NE(run.out.find("\"a\\\\\\\"'&b\\u001fn"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("GpcExtName=\"a\\&quot;&#39;&amp;b\x1f" "n"), std::string::npos) << run.out;
}

TEST(GpcPack, VerifyRefusesEachBrokenVariantForThePluginsReason) {
  const Packed& p = Shared();
  ASSERT_TRUE(p.saved) << p.run.err;
  const std::string foreign = p.signer.Sign(p.Param("GpcExtHash"), "foreign"),
                    tampered = p.folder.path() + "/tampered.bundle.7z",
                    noExecutable = p.folder.path() + "/noexe.7z", topFile = p.folder.path() + "/topfile.7z",
                    escape = p.folder.path() + "/escape.7z", declared = p.folder.path() + "/declared.7z";
  std::string bytes = gpctest::ReadFile(p.package);
  bytes[bytes.size() / 2] ^= 0x01;
  ASSERT_TRUE(gpctest::WriteFile(tampered, bytes));
  ASSERT_EQ(Sh("cd " + ShellQuote(kSampleBundle + "/..") + " && 7z a -mx=1 " + ShellQuote(noExecutable) +
               " zrgpcext64.bundle '-xr!zrgpcext64' >/dev/null && cd " + ShellQuote(p.folder.path()) +
               " && echo x > zrgpcext64.bundle && 7z a topfile.7z zrgpcext64.bundle >/dev/null && mkdir escape &&"
               " cp -a " + ShellQuote(kSampleBundle) + " escape && ln -s ../../../../outside escape/zrgpcext64.bundle/Contents/out"
               " && cd escape && 7z a -snl ../escape.7z zrgpcext64.bundle >/dev/null && cd .. && mkdir declared &&"
               " cp -a " + ShellQuote(kSampleBundle) + " declared && sed -i \"/>CFBundleExecutable</{n;s/>.*</>libdemo.so</}\""
               " declared/*/Contents/Info.plist && cd declared && 7z a ../declared.7z zrgpcext64.bundle >/dev/null && echo ok"),
            "ok\n");
  const std::tuple<std::string, PageParams, std::string> cases[] = {  // package, parameters changed, verdict
      {tampered, {}, "digest mismatch (message 111)\n"},
      {p.package, {{"GpcExtSignature", foreign}}, "signature does not verify (message 103)\n"},
      {p.package, {{"GpcCertification", p.signer.Chain("foreign")}, {"GpcExtSignature", foreign}},
       "signer's common name is not the vendor's (message 103)\n"},
      {p.package, {{"GpcCertification", "null"}}, "no package, digest or certificate chain (message 111)\n"},
      {p.package, {{"GpcExtName", "other"}},
       "the archive's top folder is \"zrgpcext64.bundle\", not \"other.bundle\"\n"},
      {p.package, {{"GpcCompressMethod", "7ZIP"}, {"GpcExtVersion", "9,9"}},
       "the bundle's version \"" + PageVersion() + "\" does not match GpcExtVersion \"9,9\"\n"},
      {p.package, {{"GpcCompressMethod", ""}}, "GpcCompressMethod is missing: the plug-in would fetch a .bundle.zip\n"},
      {p.package, {{"GpcCompressMethod", "7z"}},
       "GpcCompressMethod is \"7z\", not \"7zip\": the plug-in would fetch a .bundle.zip\n"},
      {noExecutable, p.signer.PackageParameters(noExecutable),
       "the archive has no zrgpcext64.bundle/Contents/MacOS/zrgpcext64: the plug-in would not see the "
       "version it installed\n"},
      {declared, p.signer.PackageParameters(declared),  // the executable the Info.plist names
       "the archive has no zrgpcext64.bundle/Contents/MacOS/libdemo.so: the plug-in would not see the "
       "version it installed\n"},
      {escape, p.signer.PackageParameters(escape),  // made by another tool
       "the plug-in's unpacker refuses the archive: an entry would land or point outside the folder it is "
       "unpacked in (lib7zip code 3)\n"},
      {topFile, p.signer.PackageParameters(topFile),  // a file, no folder
       "the archive's top folder is \"(none)\", not \"zrgpcext64.bundle\"\n"},
      {p.package, {{"GpcUnpackVersion", ""}},
       "GpcUnpackVersion is missing: the plug-in would compare no versions and never fetch the package\n"},
      {p.package, {{"GpcExtName", "a#b"}},
       "the extension name \"a#b\" holds \"#\": the plug-in would fetch another URL than the package's\n"},
      {p.package, {{"GpcExtVersion", ""}}, "ok\n"},  // no version to match
  };
  const gpctest::TempFolder tmp("gpcpacktmp");  // where verify unpacks, and leaves nothing
  ScopedEnv tmpdir("TMPDIR", tmp.path());
  for (const auto& [package, overrides, verdict] : cases) {
    const ToolRun run = Verify(package, overrides);
    EXPECT_EQ(run.exitCode, verdict == "ok\n" ? 0 : 1) << verdict << run.err;
    EXPECT_EQ(run.out, verdict);
  }
  EXPECT_TRUE(std::filesystem::is_empty(tmp.path()));
  ScopedEnv oldSystem("GPC_SYSTEM_VERSION", "1050");
  EXPECT_EQ(Verify(p.package, {}).out, "ok: accepted unchecked (sha256 on an old system)\n");
}

TEST(GpcPack, VerifyReadsTheParametersFileAsStrictJsonWithNamesInAnyCase) {
  const Packed& p = Shared();
  ASSERT_TRUE(p.saved) << p.run.err;
  const std::string file = p.folder.path() + "/page.json", rest = "," + p.run.out.substr(p.json + 1);
  const std::pair<std::string, std::string> cases[] = {  // the file, a part of what verify prints
      {"{\"GpcExtName\":\"\\u0800\"" + rest, "not \"\xe0\xa0\x80.bundle\"\n"},  // the first of a name counts
      {"{\"gpcextname\":\"other\"" + rest, "not \"other.bundle\"\n"},
      {"{\"GpcExtName\":\"\\ud800\\u0041\"" + rest, "the value of \"GpcExtName\" must be a string"},
      {"{\"GpcExtName\":\"\\udc00\"" + rest, "the value of \"GpcExtName\" must be a string"},
      {"{\"GpcExtName\":\"a\tb\"" + rest, "the value of \"GpcExtName\" must be a string"},
      {p.run.out.substr(p.json) + "x", "text after the JSON object"},
  };
  for (const auto& [json, said] : cases) {
    ASSERT_TRUE(gpctest::WriteFile(file, json));
    const ToolRun run = Verify(p.package, {}, file);
    EXPECT_EQ(run.exitCode, 1) << json;
    EXPECT_NE((run.out + run.err).find(said), std::string::npos) << said << "\n" << run.out << run.err;
  }
}

TEST(GpcPack, PackRefusesBadInputLeavingNothingBehindAndTakesOtherSpellingsOfGoodInput) {
  const gpctest::PackageSigner& signer = Shared().signer;
  const std::string work = Shared().folder.path() + "/bad", good = work + "/zrgpcext64.bundle";
  const std::string out = good + "2";  // beside the bundle, its name starting with the bundle's
  auto copy = [&work](const char* folder) { return work + "/" + folder + "/zrgpcext64.bundle"; };
  ASSERT_EQ(Sh("b=" + ShellQuote(kSampleBundle) + " k=" + ShellQuote(signer.Path("vendor.key")) +
               " c=" + ShellQuote(signer.Path("vendor.pem")) + " && mkdir -p " + ShellQuote(work) +
               " && cd " + ShellQuote(work) + " && for d in n l a v x k d u g; do mkdir $d && cp -a \"$b\" $d/; done"
               " && cp -a \"$b\" . && touch zrgpcext64.bundle/Contents/caf\xC3\xA9"
               " && mkdir h && cp -a \"$b\" 'h/a#b.bundle' && cp -a \"$b\" h/my.framework.bundle && cp -a \"$b\" h/my.dylib.bundle"
               " && mkdir e s && cp -a \"$b\" e/.bundle && ln -s ../zrgpcext64.bundle s/"
               " && rm n/*/Contents/Info.plist x/*/Contents/MacOS/*"
               " && ln -s ../../../outside l/zrgpcext64.bundle/Contents/MacOS/passwd"
               " && ln -s /etc/passwd a/zrgpcext64.bundle/Contents/passwd"
               " && ln -s MacOS k/zrgpcext64.bundle/Contents/bin && ln -s bin/../../../outside k/zrgpcext64.bundle/Contents/info"
               " && sed -i \"/>CFBundleVersion</{n;s/>.*</>$(printf %0256d 0)</}\" v/*/Contents/Info.plist"
               " && sed -i \"/>CFBundleExecutable</{n;s/>.*</>libdemo.so</}\" d/*/Contents/Info.plist"
               " && sed -i \"/>CFBundleExecutable</{n;s/>.*</>..</}\" u/*/Contents/Info.plist"
               " && cd g/zrgpcext64.bundle/Contents/MacOS && mv zrgpcext64 real && ln -s real zrgpcext64 && cd - >/dev/null"
               " && cp \"$k\" big.key && echo >> big.key && cat \"$c\" \"$c\" > two.pem"
               " && openssl x509 -in \"$c\" -outform DER -out vendor.der"
               " && openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ec.key"
               " && openssl rsa -in \"$k\" -aes256 -passout pass:s -out encrypted.key && echo ok"),
            "ok\n");
  const struct {
    std::vector<std::string> args;
    bool existing;  // an older package already lies in the output folder
    int exitCode;
    const char* message;
  } cases[] = {
      {{copy("n")}, false, 1, "Contents/Info.plist"},
      {{"--key", signer.Path("foreign.key"), kSampleBundle}, false, 1, "does not belong to"},
      {{kSampleBundle}, true, 1, "exists; use --force"},
      {{"--key", work + "/absent.key", kSampleBundle}, false, 1, "cannot read the key"},
      {{"--key", work + "/encrypted.key", kSampleBundle}, false, 1, "is encrypted"},
      {{"--key", work + "/big.key", kSampleBundle}, false, 1, "has 2046 bytes"},
      {{"--key", work + "/ec.key", kSampleBundle}, false, 1, "is no RSA key"},
      {{"--key", work, kSampleBundle}, false, 1, "is no file"},
      {{"--cert", work + "/two.pem", kSampleBundle}, false, 1, "holds 2 certificates"},
      {{"--key", signer.Path("lone.key"), "--cert", signer.Path("lone.pem"), kSampleBundle}, false, 1,
       "chains neither to a system anchor nor to a certificate given"},
      {{copy("l")}, false, 1, "leads out of the bundle"},
      {{copy("a")}, false, 1, "-> /etc/passwd leads out of the bundle"},
      {{copy("k")}, false, 1, "-> bin/../../../outside leads out of the bundle"},
      {{copy("v")}, false, 1, "cannot be matched by any page"},
      {{work + "/e/.bundle"}, false, 1, "must be <name>.bundle, not \".bundle\""},
      {{copy("x")}, false, 1, "has no executable"},
      {{copy("u")}, false, 1, "MacOS/..: the plug-in would not recognise it"},
      {{copy("g")}, false, 0, "wrote"},  // the executable a link to a file beside it, which the plug-in follows
      {{copy("d")}, false, 1, "MacOS/libdemo.so: the plug-in would not recognise it"},  // the one it names
      {{work + "/h/a#b.bundle"}, false, 1, "holds \"#\""},
      {{work + "/h/my.framework.bundle"}, false, 1, "holds \".framework\""},
      {{work + "/h/my.dylib.bundle"}, false, 1, "holds \".dylib\""},
      {{"--out", good, good}, false, 1, "lies inside the bundle"},
      {{"--sign-harder", kSampleBundle}, false, 2, "unknown option \"--sign-harder\""},
      {{"--hash", "md5", kSampleBundle}, false, 2, "--hash must be sha1 or sha256"},
      {{"--format=xml", kSampleBundle}, false, 2, "--format must be json, html or both"},
      {{kSampleBundle, kSampleBundle}, false, 2, "unexpected argument"},
      {{good}, false, 0, "wrote"},  // a file name outside ASCII
      {{copy("s")}, false, 0, "wrote"},  // a link to the bundle
      {{good + "//"}, false, 0, "wrote"},
      {{"--force", "--cert", work + "/vendor.der", kSampleBundle}, true, 0, "wrote"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    ASSERT_EQ(Sh("rm -rf " + ShellQuote(out) + " && mkdir " + ShellQuote(out) + " && echo ok"), "ok\n");
    ASSERT_TRUE(!c.existing || gpctest::WriteFile(out + "/zrgpcext64.bundle.7z", "older"));
    std::vector<std::string> args = {"--out", out};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const ToolRun run = Pack(signer, args);
    EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
    EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
    EXPECT_EQ(run.out.empty(), c.exitCode != 0) << run.out;
    const std::string left = c.exitCode == 0 ? "zrgpcext64.bundle.7z\n7z\xbc\xaf'"
                             : c.existing    ? "zrgpcext64.bundle.7z\nolder"
                                             : "";
    EXPECT_EQ(Sh("cd " + ShellQuote(out) + " && ls -A && cat * | head -c 5"), left)
        << "the new package alone, or no package and no temporary file";
  }
  // A file-size limit is a full disk: the failed write is reported, and nothing is left.
  ASSERT_EQ(Sh("rm -rf " + ShellQuote(out) + " && mkdir " + ShellQuote(out) + " && echo ok"), "ok\n");
  const ToolRun full = (ScopedFileSizeLimit(8192), Pack(signer, {"--out", out, kSampleBundle}));
  EXPECT_TRUE(full.exitCode != 0 && full.err.find("cannot finish the archive") != std::string::npos) << full.err;
  EXPECT_EQ(Sh("ls -A " + ShellQuote(out)), "");
}

}  // namespace

// The signals handled and ignored by the process `pid`, from its status.
std::pair<unsigned long, unsigned long> CaughtAndIgnored(pid_t pid) {
  std::istringstream masks(Sh("awk '/^Sig(Cgt|Ign):/ {print $2}' /proc/" + std::to_string(pid) + "/status"));
  unsigned long ignored = 0, caught = 0;
  masks >> std::hex >> ignored >> caught;  // in the status file's order
  return {caught, ignored};
}

// Stopped while it packs, gpc-pack removes its unfinished package; a signal its caller has it
// ignore (nohup) stays ignored.
TEST(GpcPack, AStoppedPackLeavesNothingAndAnIgnoredSignalStaysIgnored) {
  const gpctest::PackageSigner& signer = Shared().signer;
  const std::string work = Shared().folder.path() + "/stopped", bundle = work + "/zrgpcext64.bundle";
  ASSERT_EQ(Sh("mkdir -p " + ShellQuote(work) + "/out && cp -a " + ShellQuote(kSampleBundle) + " " + ShellQuote(bundle) +
               " && truncate -s 1G " + ShellQuote(bundle) + "/Contents/large && echo ok"), "ok\n");
  const std::vector<std::string> args = {GPC_BIN_DIR "/gpc-pack", "pack", "--key", signer.Path("vendor.key"), "--cert",
                                         signer.Path("vendor.pem"), "--chain", signer.Path("root.pem"), "--out",
                                         work + "/out", bundle};
  std::vector<char*> argv;
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  void (*const hangUp)(int) = signal(SIGHUP, SIG_IGN);  // inherited, as under nohup
  pid_t pack = -1;
  ASSERT_EQ(posix_spawn(&pack, argv[0], nullptr, nullptr, argv.data(), environ), 0);
  signal(SIGHUP, hangUp);
  const unsigned long term = 1ul << (SIGTERM - 1), hup = 1ul << (SIGHUP - 1);
  auto signals = CaughtAndIgnored(pack);
  for (int polls = 0; polls < 1000 && (signals.first & term) == 0; ++polls, usleep(5000)) signals = CaughtAndIgnored(pack);
  EXPECT_EQ(signals.first & (term | hup), term) << "the package is under way";
  EXPECT_EQ(signals.second & hup, hup);
  kill(pack, SIGTERM);
  int status = 0;
  ASSERT_EQ(waitpid(pack, &status, 0), pack);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  EXPECT_EQ(Sh("ls -A " + ShellQuote(work) + "/out"), "");
  Sh("rm -rf " + ShellQuote(work));
}

// A hardened gpc-pack trusts only the anchors a plug-in bundle ships, as the hardened plug-in does:
// it refuses to start without such a bundle, refuses a signer whose root is not among them, and
// packs and verifies once it is.
TEST(GpcPack, AHardenedBuildTrustsTheAnchorsOfThePluginBundleItIsGiven) {
  const Packed& p = Shared();
  const char* const hardened = GPC_BIN_DIR "/gpc-pack-hardened";
  const std::string out = p.folder.path() + "/hardened", plugin = out + "/hardened.plugin",
                    anchors = plugin + "/Contents/Resources/Anchors", package = out + "/zrgpcext64.bundle.7z";
  const auto anchor = [&](const std::string& signer) {  // the signer's certificate among the bundle's anchors
    return Sh("mkdir -p " + ShellQuote(anchors) + " && openssl x509 -in " + ShellQuote(p.signer.Path(signer + ".pem")) +
              " -outform DER -out " + ShellQuote(anchors + "/" + signer + ".der") + " && echo ok");
  };
  const auto pack = [&](const std::string& bundle) {  // "--plugin" with no bundle is none
    return Pack(p.signer, {"--force", "--out", out, "--plugin", bundle, kSampleBundle}, "json", hardened);
  };
  ASSERT_EQ(anchor("lone"), "ok\n");
  const std::pair<std::string, std::string> refused[] = {{"", "name the bundle with --plugin"},
                                                         {out, "/Contents/Resources/Anchors is no folder"},
                                                         {plugin, "chains to none of the anchors in " + anchors}};
  for (const auto& [bundle, refusal] : refused) {
    const ToolRun run = pack(bundle);
    EXPECT_TRUE(run.exitCode == 1 && run.err.find(refusal) != std::string::npos) << refusal << ": " << run.err;
  }
  EXPECT_FALSE(std::filesystem::exists(package));
  ASSERT_EQ(anchor("root"), "ok\n");
  const ToolRun packed = pack(plugin);
  ASSERT_TRUE(packed.exitCode == 0 && gpctest::WriteFile(out + "/params.json", packed.out)) << packed.err;
  for (const std::string& bundle : {plugin, std::string()}) {
    const ToolRun run = gpctest::RunTool({hardened, "verify", "--package", package, "--params", out + "/params.json",
                                          "--plugin", bundle});
    EXPECT_EQ(run.out + std::to_string(run.exitCode), bundle.empty() ? "1" : "ok\n0") << run.err;
  }
  // No SHA-1 digest: pack makes none, verify takes none.
  EXPECT_EQ(Pack(p.signer, {"--force", "--out", out, "--plugin", plugin, "--hash", "sha1", kSampleBundle}, "json", hardened).exitCode, 2);
  std::string digest = Sh("sha1sum " + ShellQuote(package) + " | cut -c1-40");
  digest.pop_back();
  const ToolRun sha1 = gpctest::RunTool({hardened, "verify", "--package", package, "--params", out + "/params.json", "--plugin", plugin,
                                         "--param", "GpcHashMethod=sha1", "--param", "GpcExtHash=" + digest, "--param",
                                         "GpcExtSignature=" + p.signer.Sign(digest)});
  EXPECT_NE(sha1.out.find("(message 111)"), std::string::npos) << sha1.out;
  // A name the hardened plug-in refuses, fetching the default extension instead, is refused here too.
  for (const char* name : {"a\\b", "..", "tab\tname"}) {
    const ToolRun named = gpctest::RunTool({hardened, "verify", "--package", package, "--params", out + "/params.json",
                                            "--plugin", plugin, "--param", std::string("GpcExtName=") + name});
    EXPECT_NE(named.out.find("is refused by the hardened plug-in"), std::string::npos) << name << named.out;
  }
  // An old system's sha256 package is checked all the same: the signature of another does not do.
  ScopedEnv oldSystem("GPC_SYSTEM_VERSION", "1050");
  const ToolRun run = gpctest::RunTool({hardened, "verify", "--package", package, "--params", out + "/params.json",
                                        "--plugin", plugin, "--param", "GpcExtSignature=" + p.signer.Sign(p.Param("GpcExtHash"), "foreign")});
  EXPECT_EQ(run.out, "signature does not verify (message 103)\n") << run.err;
}
