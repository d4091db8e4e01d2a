// Digest speed of package files: Sha256OfFile and Sha1OfFile on a 200 MB file against
// `openssl dgst -sha256` / `-sha1` on the same file in the same run, best of three each, taken
// in turns.
// Goal: at most 1.10 times the tool's elapsed time. Processor time (user + system) is printed
// too: on a busy machine it is the steadier figure. The file is read once first so that every run
// finds it in the page cache.
//
// Usage: digest_bench [size in MB, default 200] [folder, default $TMPDIR or /tmp]
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "common/NSString+Hex.h"
#include "platform/folders.h"

namespace {

struct Timing {
  double wall = 1e30;  // elapsed seconds
  double cpu = 1e30;   // user + system seconds of this process or of the tool it ran
};

double CpuSeconds(int who) {
  struct rusage usage {};
  getrusage(who, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Times one run; `who` says whose processor time counts (RUSAGE_SELF or RUSAGE_CHILDREN).
void TimeRun(const std::function<bool()>& work, int who, Timing* best, bool* ok) {
  const double cpuBefore = CpuSeconds(who);
  const auto start = std::chrono::steady_clock::now();
  *ok = work() && *ok;
  const double wall =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  best->wall = std::min(best->wall, wall);
  best->cpu = std::min(best->cpu, CpuSeconds(who) - cpuBefore);
}

// Best of three runs of each, taken in turns so that a change in the machine's load falls on both.
void BestOfThreeInTurns(const std::function<bool()>& ours, const std::function<bool()>& tool,
                        Timing* oursBest, Timing* toolBest, bool* ok) {
  for (int run = 0; run < 3; ++run) {
    TimeRun(ours, RUSAGE_SELF, oursBest, ok);
    TimeRun(tool, RUSAGE_CHILDREN, toolBest, ok);
  }
}

bool ToolDigest(const std::string& algorithm, const std::string& path) {
  const std::string command = "openssl dgst -" + algorithm + " '" + path + "' > /dev/null";
  return std::system(command.c_str()) == 0;
}

void Report(const char* name, const Timing& ours, const Timing& tool, double megabytes) {
  printf("%-13s elapsed: ours %.3f s (%.0f MB/s), openssl dgst %.3f s (%.0f MB/s), ratio %.3f %s\n",
         name, ours.wall, megabytes / ours.wall, tool.wall, megabytes / tool.wall,
         ours.wall / tool.wall, ours.wall / tool.wall <= 1.10 ? "(goal met)" : "(goal missed)");
  printf("%-13s processor: ours %.3f s, openssl dgst %.3f s, ratio %.3f\n", "", ours.cpu, tool.cpu,
         ours.cpu / tool.cpu);
}

}  // namespace

int main(int argc, char** argv) {
  const long megabytes = argc > 1 ? atol(argv[1]) : 200;
  const std::string folder = argc > 2 ? argv[2] : platform::TempDir();
  const std::string path = folder + "/gpc_digest_bench_" + std::to_string(getpid());
  const std::string make = "head -c " + std::to_string(megabytes * 1048576) + " /dev/urandom > '" +
                           path + "' && cat '" + path + "' > /dev/null";
  if (megabytes <= 0 || std::system(make.c_str()) != 0) {
    fprintf(stderr, "digest_bench: cannot make %ld MB in %s\n", megabytes, folder.c_str());
    unlink(path.c_str());
    return 1;
  }
  printf("digest_bench: %ld MB file, best of 3 runs each\n", megabytes);
  bool ok = true;
  Timing sha256Ours, sha256Tool, sha1Ours, sha1Tool;
  BestOfThreeInTurns([&] { return Sha256OfFile(path.c_str()).size() == 64; },
                     [&] { return ToolDigest("sha256", path); }, &sha256Ours, &sha256Tool, &ok);
  BestOfThreeInTurns([&] { return Sha1OfFile(path.c_str()).size() == 40; },
                     [&] { return ToolDigest("sha1", path); }, &sha1Ours, &sha1Tool, &ok);
  unlink(path.c_str());
  if (!ok) {
    fprintf(stderr, "digest_bench: a digest failed\n");
    return 1;
  }
  Report("Sha256OfFile", sha256Ours, sha256Tool, static_cast<double>(megabytes));
  Report("Sha1OfFile", sha1Ours, sha1Tool, static_cast<double>(megabytes));
  return 0;
}
