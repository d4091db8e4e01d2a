// tlvtracer: shows the plug-in's binary trace file as readable lines or JSON, once or as it grows.
// While a process of this name runs, plug-ins loaded afterwards also write their debug records.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "platform/folders.h"
#include "tvtdecoder.h"
#include "tvtprinter.h"

namespace {

const std::string kDefaultPath = std::string(platform::kSharedTempFolder) + "/tlvgpc.tvt";
constexpr long kPollMillis = 100;
constexpr size_t kReadBatch = 1 << 20;

volatile sig_atomic_t g_stop = 0;

void OnStopSignal(int) { g_stop = 1; }

struct Options {
  std::string path;
  bool json = false;
  bool follow = false;
  uint32_t min_level = 0;
};

void PrintUsage(FILE* to) {
  fprintf(to,
          "usage: tlvtracer [--json] [--follow] [--level debug|info|warn|error] [FILE]\n"
          "Shows the records of a trace file (default %s, or $GPC_TRACE_FILE when it is an absolute path).\n"
          "  --json          one JSON object per record\n"
          "  --follow, -f    keep reading as records are appended, until interrupted\n"
          "  --level LEVEL   only records of LEVEL and above\n",
          kDefaultPath.c_str());
}

// The file the plug-in writes: GPC_TRACE_FILE when it is an absolute path of at most 254 bytes
// (the writer's limit), else the default.
std::string DefaultPath() {
  const char* wanted = getenv("GPC_TRACE_FILE");
  return wanted != nullptr && wanted[0] == '/' && strlen(wanted) <= 254 ? wanted : kDefaultPath;
}

// Returns 0 when the options are good, else the exit code to leave with.
int ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--json") {
      options->json = true;
    } else if (arg == "--follow" || arg == "-f") {
      options->follow = true;
    } else if (arg == "--level" && i + 1 < argc) {
      options->min_level = tlvtracer::LevelFromName(argv[++i]);
      if (options->min_level == 0) {
        fprintf(stderr, "tlvtracer: unknown level \"%s\"\n", argv[i]);
        return 2;
      }
    } else if (arg == "--help" || arg == "-h") {
      PrintUsage(stdout);
      return -1;
    } else if (!arg.empty() && arg[0] == '-') {
      fprintf(stderr, "tlvtracer: unknown option \"%s\"\n", arg.c_str());
      PrintUsage(stderr);
      return 2;
    } else if (options->path.empty()) {
      options->path = arg;
    } else {
      fprintf(stderr, "tlvtracer: only one file at a time\n");
      return 2;
    }
  }
  if (options->path.empty()) options->path = DefaultPath();
  return 0;
}

void InstallStopHandlers() {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

// Waits one poll interval; a stop signal cuts it short.
void Pause() {
  struct timespec wait = {0, kPollMillis * 1000000L};
  nanosleep(&wait, nullptr);
}

// A stretch of the file that was zero when the reader passed it: the front of a writer in another
// process that a later writer had cut short. The records that writer adds land here, from `start`.
struct Gap {
  uint64_t start = 0;
  uint64_t end = 0;                        // where the records read past the hole begin
  std::vector<unsigned char> unconfirmed;  // a record seen at `start` on the last poll, maybe half-copied
};

// Reads a trace file from its start, printing each record as soon as it is whole.
class TraceReader {
 public:
  explicit TraceReader(const Options& options) : m_options(options) {}
  ~TraceReader() { Close(); }

  bool Open() {
    m_fd = open(m_options.path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_fd < 0) return false;
    struct stat info;
    m_inode = fstat(m_fd, &info) == 0 ? info.st_ino : 0;
    return true;
  }
  bool IsOpen() const { return m_fd >= 0; }

  // Appends what the file holds beyond what was read, one batch at most, so that a long backlog
  // is shown as it is read rather than held whole. False on a read error; *more when the file
  // may hold more than the batch took.
  bool ReadAvailable(bool* more) {
    unsigned char chunk[65536];
    *more = true;
    for (size_t taken = 0; taken < kReadBatch;) {
      const ssize_t got = read(m_fd, chunk, sizeof chunk);
      if (got == 0) {
        *more = false;
        return true;
      }
      if (got < 0) {
        if (errno == EINTR) continue;
        return false;
      }
      KeepFirstRecord(chunk, static_cast<size_t>(got));
      m_pending.insert(m_pending.end(), chunk, chunk + got);
      read_end_ += static_cast<uint64_t>(got);
      taken += static_cast<size_t>(got);
    }
    return true;
  }

  // Prints every whole record read so far, stepping over holes. False at a corrupt header or record.
  bool Drain() {
    size_t at = 0;
    bool good = true;
    while (good) {
      const unsigned char* data = m_pending.data() + at;
      const size_t size = m_pending.size() - at;
      if (!header_seen_) {
        const tlvtracer::DecodeResult result = tlvtracer::CheckHeader(data, size, &m_problem);
        if (result == tlvtracer::DecodeResult::kCorrupt) good = false;
        if (result != tlvtracer::DecodeResult::kRecord) break;
        header_seen_ = true;
        at += tlvtracer::kHeaderSize;
        continue;
      }
      const size_t hole = tlvtracer::HoleLength(data, size);
      if (hole == tlvtracer::kHoleUnended) {
        // A run of zeros with no end yet: where it starts is kept in mind, not its bytes.
        const size_t whole = size & ~static_cast<size_t>(3);
        if (whole > 0 && !m_hole_start) m_hole_start = m_base + at;
        at += whole;
        break;
      }
      if (hole > 0 || m_hole_start) {
        const uint64_t start = m_hole_start.value_or(m_base + at);
        m_hole_start.reset();
        SkipHole(start, static_cast<size_t>(m_base + at + hole - start));
        at += hole;
        continue;
      }
      tlvtracer::TraceRecord record;
      size_t used = 0;
      const tlvtracer::DecodeResult result = tlvtracer::DecodeRecord(data, size, m_base + at, &record, &used, &m_problem);
      if (result == tlvtracer::DecodeResult::kCorrupt) good = false;
      if (result != tlvtracer::DecodeResult::kRecord) break;
      Print(record);
      at += used;
    }
    m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(at));
    m_base += at;
    fflush(stdout);
    return good;
  }

  // Prints the records that writers left behind have added in their gaps since the last poll.
  void ReadGaps() {
    for (auto gap = m_gaps.begin(); gap != m_gaps.end();) {
      ReadGap(&*gap);
      // A writer that reached the records read past its hole now writes over them: nothing it
      // writes after that can be told apart from what was shown.
      gap = gap->start >= gap->end ? m_gaps.erase(gap) : gap + 1;
    }
    fflush(stdout);
  }

  // Offset of the first byte not yet decoded, and how many bytes follow it.
  uint64_t Offset() const { return m_hole_start.value_or(m_base); }
  size_t Leftover() const { return m_pending.size() + static_cast<size_t>(m_base - Offset()); }
  bool HeaderSeen() const { return header_seen_; }
  const std::string& Problem() const { return m_problem; }

  // True when the file at the path was replaced, cut short, or started anew by a plug-in loading
  // (the bytes of its first record, as far as they were read, changed).
  bool WasRestarted() const {
    struct stat info;
    if (stat(m_options.path.c_str(), &info) != 0) return false;
    if (info.st_ino != m_inode || static_cast<uint64_t>(info.st_size) < read_end_) return true;
    const size_t span = FirstRecordSpan();
    if (span == 0) return false;
    std::vector<unsigned char> now(span);
    const ssize_t got = pread(m_fd, now.data(), span, tlvtracer::kHeaderSize);
    return got != static_cast<ssize_t>(span) || !std::equal(now.begin(), now.end(), m_first.begin());
  }

  void Restart() {
    Close();
    m_pending.clear();
    m_first.clear();
    m_gaps.clear();
    m_base = read_end_ = 0;
    m_hole_start.reset();
    header_seen_ = false;
    Open();
  }

 private:
  void Print(const tlvtracer::TraceRecord& record) {
    if (record.level < m_options.min_level) return;
    const std::string line = m_options.json ? tlvtracer::FormatJson(record) : tlvtracer::FormatLine(record);
    fwrite(line.data(), 1, line.size(), stdout);
    fputc('\n', stdout);
  }

  // Keeps the bytes read from where the first record starts, one longest record at most.
  void KeepFirstRecord(const unsigned char* chunk, size_t size) {
    const uint64_t begin = tlvtracer::kHeaderSize, end = begin + tlvtracer::kMaxRecordSize;
    const uint64_t from = std::max(read_end_, begin), to = std::min(read_end_ + size, end);
    if (from < to) m_first.insert(m_first.end(), chunk + (from - read_end_), chunk + (to - read_end_));
  }

  // How many of the kept bytes belong to the first record. None when the records start with a
  // hole: a writer may still fill it, which is no new start.
  size_t FirstRecordSpan() const {
    if (m_first.size() < 2) return m_first.size();
    const size_t length = m_first[0] | m_first[1] << 8;
    return std::min(length, m_first.size());
  }

  void SkipHole(uint64_t offset, size_t length) {
    fflush(stdout);  // the lines shown so far go first: a reader may take both outputs in one pipe
    fprintf(stderr, "tlvtracer: %s: %zu zero bytes at byte offset %llu, left by a writer in another process; skipped\n",
            m_options.path.c_str(), length, static_cast<unsigned long long>(offset));
    Gap gap;
    gap.start = offset;
    gap.end = offset + length;
    m_gaps.push_back(gap);
  }

  // Prints the whole records written at the gap's start. A record is known whole when a later one
  // follows it or it reads the same on two polls: a write in progress may show a record whose
  // tail is still zero.
  void ReadGap(Gap* gap) {
    unsigned char bytes[tlvtracer::kMaxRecordSize + 4];
    while (gap->start < gap->end) {
      const ssize_t got = pread(m_fd, bytes, sizeof bytes, static_cast<off_t>(gap->start));
      if (got <= 0) return;
      const size_t size = static_cast<size_t>(got);
      if (tlvtracer::HoleLength(bytes, size) != 0) return;  // nothing new written there yet
      tlvtracer::TraceRecord record;
      size_t used = 0;
      std::string problem;
      if (tlvtracer::DecodeRecord(bytes, size, gap->start, &record, &used, &problem) != tlvtracer::DecodeResult::kRecord) {
        return;  // still being written, or never whole: printed only once it decodes
      }
      const bool followed = gap->start + used < gap->end && used + 4 <= size && tlvtracer::HoleLength(bytes + used, 4) == 0;
      const std::vector<unsigned char> seen(bytes, bytes + used);
      if (!followed && seen != gap->unconfirmed) {
        gap->unconfirmed = seen;
        return;
      }
      gap->unconfirmed.clear();
      Print(record);
      gap->start += used;
    }
  }

  void Close() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
  }

  const Options& m_options;
  int m_fd = -1;
  ino_t m_inode = 0;
  std::vector<unsigned char> m_pending;
  std::vector<unsigned char> m_first;  // bytes read from offset 48 on, one longest record at most
  std::vector<Gap> m_gaps;
  uint64_t m_base = 0;      // file offset of m_pending[0]
  std::optional<uint64_t> m_hole_start;  // where a run of zeros not ended yet begins
  uint64_t read_end_ = 0;  // file offset just past the last byte read
  bool header_seen_ = false;
  std::string m_problem;
};

void ReportCorrupt(const Options& options, const TraceReader& reader) {
  fprintf(stderr, "tlvtracer: %s: corrupt %s at byte offset %llu: %s\n", options.path.c_str(),
          reader.HeaderSeen() ? "record" : "header", static_cast<unsigned long long>(reader.Offset()),
          reader.Problem().c_str());
}

int ShowOnce(const Options& options) {
  TraceReader reader(options);
  if (!reader.Open()) {
    fprintf(stderr, "tlvtracer: cannot open %s: %s\n", options.path.c_str(), strerror(errno));
    return 1;
  }
  for (bool more = true; more;) {
    if (!reader.ReadAvailable(&more)) {
      fprintf(stderr, "tlvtracer: cannot read %s: %s\n", options.path.c_str(), strerror(errno));
      return 1;
    }
    if (!reader.Drain()) {
      ReportCorrupt(options, reader);
      return 1;
    }
  }
  if (!reader.HeaderSeen() || reader.Leftover() != 0) {
    fprintf(stderr, "tlvtracer: %s: truncated %s at byte offset %llu: only %zu bytes follow\n", options.path.c_str(),
            reader.HeaderSeen() ? "record" : "header", static_cast<unsigned long long>(reader.Offset()),
            reader.Leftover());
    return 1;
  }
  return 0;
}

int Follow(const Options& options) {
  TraceReader reader(options);
  bool said_waiting = false;
  while (!g_stop) {
    if (!reader.IsOpen() && !reader.Open()) {
      if (!said_waiting) fprintf(stderr, "tlvtracer: waiting for %s\n", options.path.c_str());
      said_waiting = true;
      Pause();
      continue;
    }
    bool more = false;
    if (!reader.ReadAvailable(&more)) {
      fprintf(stderr, "tlvtracer: cannot read %s: %s\n", options.path.c_str(), strerror(errno));
      return 1;
    }
    // Checked before decoding: when a plug-in started the file anew since the last poll, what was
    // just read from the old offset may belong to the new file.
    if (reader.WasRestarted()) {
      fprintf(stderr, "tlvtracer: %s started anew; reading from its beginning\n", options.path.c_str());
      reader.Restart();
      continue;
    }
    const bool good = reader.Drain();
    reader.ReadGaps();
    if (!good) {
      ReportCorrupt(options, reader);
      return 1;
    }
    // A partial record at the end is still being written: wait for the rest.
    if (!more) Pause();
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  const int bad = ParseOptions(argc, argv, &options);
  if (bad != 0) return bad < 0 ? 0 : bad;
  if (!options.follow) return ShowOnce(options);
  InstallStopHandlers();
  return Follow(options);
}
