// The stream provider: an extension's requests and the GPCMessage records its access points
// receive, against browser stream events in any order and count, all through the plug-in table
// (NPP_NewStream, NPP_WriteReady, NPP_Write, NPP_DestroyStream, NPP_StreamAsFile,
// NPP_URLNotify) and the service table.
//
// Input: a program of one-byte operations with their arguments (see Step). Each access point's
// callback takes its reaction to every message from the same input: keep or lower the ready and
// data counts, abort the stream, unregister itself, ask for another stream, or register another
// access point. The browser only ever hands back the notify data the plug-in gave it, and keeps
// every stream's private data as the plug-in set it.
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "fuzz_browser.h"

namespace {

constexpr size_t kMostSaps = 8;
constexpr int kDeepestReaction = 3;
const char* const kUrls[] = {"https://www.talvo.us/data", "https://www.talvo.us/client/pkg.7z",
                             "https://a.example/next", ""};

struct SapRecord {
  void* sap = nullptr;
  bool live = false;
};

struct BrowserStream {
  NPStream np{};
  std::string url;
};

// One run's world; the callbacks find it through g_run.
struct Run {
  explicit Run(fuzz::Reader* input) : reader(input) {}
  fuzz::Reader* reader;
  CGpcWindow* window = nullptr;
  NPP npp = nullptr;
  std::deque<SapRecord> saps;
  std::vector<void*> handles;  // every stream handle the plug-in gave, finished ones included
  std::deque<BrowserStream> streams;
  int depth = 0;
  unsigned char sink = 0;
};

fuzz::PluginHarness* g_harness = nullptr;
Run* g_run = nullptr;
std::string* g_asFilePath = nullptr;

int SapCallback(GPCMessage* message);

std::string PickUrl(fuzz::Reader& reader) {
  const uint8_t choice = reader.Byte() % 5;
  return choice < 4 ? kUrls[choice] : reader.Text(40);
}

SapRecord* PickLiveSap(fuzz::Reader& reader) {
  std::vector<SapRecord*> live;
  for (SapRecord& record : g_run->saps) {
    if (record.live) live.push_back(&record);
  }
  if (live.empty()) return nullptr;
  return live[reader.Byte() % live.size()];
}

void* PickHandle(fuzz::Reader& reader) {
  if (g_run->handles.empty()) return nullptr;
  return g_run->handles[reader.Byte() % g_run->handles.size()];
}

void RegisterSap() {
  if (g_run->saps.size() >= kMostSaps) return;
  g_run->saps.emplace_back();
  SapRecord& record = g_run->saps.back();
  if (g_run->window->m_serviceTable.GpcRegisterStreamSap(SapCallback, &record, g_run->window, &record.sap) != 0) {
    fuzz::Fail("registering an access point failed");
  }
  record.live = true;
}

void UnregisterSap(SapRecord* record) {
  if (record == nullptr || !record->live) return;
  record->live = false;
  if (g_run->window->m_serviceTable.GpcUnregisterStreamSap(record->sap) != 0) fuzz::Fail("unregistering failed");
}

void Get(SapRecord* record, const std::string& url, int asFile) {
  if (record == nullptr) return;
  void* stream = nullptr;
  const uint32_t result = g_run->window->m_serviceTable.GpcGetStream(record->sap, url.c_str(), asFile, &stream);
  if ((result == 0) != (stream != nullptr)) fuzz::Fail("GET answered %u with stream %p", result, stream);
  if (stream != nullptr) g_run->handles.push_back(stream);
}

void Post(SapRecord* record, const std::string& url, const std::string& body, int asFile) {
  if (record == nullptr) return;
  void* stream = nullptr;
  const uint32_t result = g_run->window->m_serviceTable.GpcPostStream(
      record->sap, url.c_str(), body.data(), static_cast<unsigned>(body.size()), asFile, &stream);
  if ((result == 0) != (stream != nullptr)) fuzz::Fail("POST answered %u with stream %p", result, stream);
  if (stream != nullptr) g_run->handles.push_back(stream);
}

void Abort(SapRecord* record, void* stream) {
  if (record == nullptr || stream == nullptr) return;
  (void)g_run->window->m_serviceTable.GpcAbortStream(record->sap, stream);
}

// Reads every byte a message points to, so that a stale or short buffer is caught.
void Touch(const GPCMessage* message) {
  if (message->url != nullptr) g_run->sink ^= static_cast<unsigned char>(strlen(message->url));
  if (message->type == GPC_STREAM_DATA) {
    const int32_t length = message->payload.data.length;
    if (length < 0) fuzz::Fail("a data message of %d bytes", length);
    const auto* bytes = static_cast<const unsigned char*>(message->payload.data.buffer);
    if (length > 0 && bytes == nullptr) fuzz::Fail("a data message without its bytes");
    for (int32_t i = 0; i < length; ++i) g_run->sink ^= bytes[i];
  } else if (message->type == GPC_STREAM_FILE && message->payload.file.fileName != nullptr) {
    g_run->sink ^= static_cast<unsigned char>(strlen(message->payload.file.fileName));
  }
  if (message->type < GPC_STREAM_READY || message->type > GPC_SAP_DETACH) fuzz::Fail("message type %d", message->type);
}

void React(SapRecord* record, GPCMessage* message) {
  fuzz::Reader& reader = *g_run->reader;
  switch (reader.Byte() % 8) {
    case 1: {
      const int32_t count = static_cast<int16_t>(reader.Word());
      if (message->type == GPC_STREAM_READY) message->payload.ready.result = count;
      if (message->type == GPC_STREAM_DATA) message->payload.data.result = count;
      break;
    }
    case 2:
      Abort(record, message->stream);
      break;
    case 3:
      UnregisterSap(record);
      break;
    case 4: {
      const std::string url = PickUrl(reader);
      Get(record, url, reader.Byte() & 1);
      break;
    }
    case 5:
      RegisterSap();
      break;
    case 6: {
      void* stream = PickHandle(reader);
      Abort(record, stream);
      break;
    }
    default:
      break;
  }
}

int SapCallback(GPCMessage* message) {
  if (message == nullptr) fuzz::Fail("a null message");
  auto* record = static_cast<SapRecord*>(message->context);
  if (record == nullptr || !record->live) fuzz::Fail("a message for an access point that is gone");
  Touch(message);
  if (g_run->depth < kDeepestReaction) {
    ++g_run->depth;
    React(record, message);
    --g_run->depth;
  }
  return 0;
}

void FetchCallback(void*, void*, GPCGetFileNotifyMessageType type, void* data) {
  if (type == GPC_GETFILE_COMPLETE && data != nullptr) {
    FILE* file = fopen(static_cast<const char*>(data), "rb");
    if (file == nullptr) return;
    unsigned char chunk[256];
    while (size_t got = fread(chunk, 1, sizeof chunk, file)) {
      for (size_t i = 0; i < got; ++i) g_run->sink ^= chunk[i];
    }
    fclose(file);
  }
}

const window_test::UrlRequest* PickRequest(fuzz::Reader& reader) {
  const std::vector<window_test::UrlRequest>& requests = window_test::Browser().requests;
  if (requests.empty()) return nullptr;
  return &requests[reader.Byte() % requests.size()];
}

// The browser opens a stream for one of the plug-in's requests (or one nobody asked for).
void NewStream(fuzz::Reader& reader) {
  const window_test::UrlRequest* request = PickRequest(reader);
  g_run->streams.emplace_back();
  BrowserStream& stream = g_run->streams.back();
  const uint8_t variant = reader.Byte() % 4;
  if (request != nullptr && variant < 2) {
    stream.url = request->url;
    // URLs compare without regard to case.
    if (variant == 1) {
      for (char& c : stream.url) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    }
  } else {
    stream.url = PickUrl(reader);
  }
  stream.np.url = stream.url.c_str();
  stream.np.notifyData = request != nullptr ? request->notifyData : nullptr;
  stream.np.end = reader.Word();
  uint16_t stype = NP_NORMAL;
  g_harness->plugin().newstream(g_run->npp, const_cast<char*>("application/octet-stream"), &stream.np,
                                false, &stype);
  if (stype != NP_NORMAL && stype != NP_ASFILEONLY) fuzz::Fail("stream type %u", stype);
}

NPStream* PickStream(fuzz::Reader& reader) {
  if (g_run->streams.empty()) return nullptr;
  return &g_run->streams[reader.Byte() % g_run->streams.size()].np;
}

NPReason PickReason(fuzz::Reader& reader) {
  static const NPReason kReasons[] = {NPRES_DONE, NPRES_NETWORK_ERR, NPRES_USER_BREAK};
  return kReasons[reader.Byte() % 3];
}

void Write(fuzz::Reader& reader) {
  NPStream* stream = PickStream(reader);
  if (stream == nullptr) return;
  const int32_t offset = reader.Word();
  std::string block = reader.Text(255);
  const int32_t taken = g_harness->plugin().write(g_run->npp, stream, offset, static_cast<int32_t>(block.size()),
                                                  block.empty() ? nullptr : &block[0]);
  (void)taken;
}

void HostSite(fuzz::Reader& reader) {
  g_run->streams.emplace_back();
  BrowserStream& stream = g_run->streams.back();
  stream.url = "https://www.talvo.us/meeting";
  stream.np.url = stream.url.c_str();
  stream.np.notifyData = reinterpret_cast<void*>(static_cast<uintptr_t>(NOTIFICATION_GET_HOSTSITE));
  std::string page = PickUrl(reader);
  const NPPluginFuncs& plugin = g_harness->plugin();
  uint16_t stype = NP_NORMAL;
  plugin.newstream(g_run->npp, const_cast<char*>("text/plain"), &stream.np, false, &stype);
  plugin.writeready(g_run->npp, &stream.np);
  plugin.write(g_run->npp, &stream.np, 0, static_cast<int32_t>(page.size()), page.empty() ? nullptr : &page[0]);
  plugin.destroystream(g_run->npp, &stream.np, NPRES_DONE);
}

// One operation of the program.
void Step(fuzz::Reader& reader) {
  const NPPluginFuncs& plugin = g_harness->plugin();
  CGpcWindow* window = g_run->window;
  switch (reader.Byte() % 16) {
    case 0: {
      SapRecord* record = PickLiveSap(reader);
      const std::string url = PickUrl(reader);
      Get(record, url, reader.Byte() & 1);
      break;
    }
    case 1: {
      SapRecord* record = PickLiveSap(reader);
      const std::string url = PickUrl(reader);
      const std::string body = reader.Text(64);
      Post(record, url, body, reader.Byte() & 1);
      break;
    }
    case 2: {
      SapRecord* record = PickLiveSap(reader);
      Abort(record, PickHandle(reader));
      break;
    }
    case 3:
      RegisterSap();
      break;
    case 4:
      UnregisterSap(PickLiveSap(reader));
      break;
    case 5:
      NewStream(reader);
      break;
    case 6:
      if (NPStream* stream = PickStream(reader)) plugin.writeready(g_run->npp, stream);
      break;
    case 7:
      Write(reader);
      break;
    case 8:
      if (NPStream* stream = PickStream(reader)) plugin.destroystream(g_run->npp, stream, PickReason(reader));
      break;
    case 9:
      if (const window_test::UrlRequest* request = PickRequest(reader)) {
        // Copies: the notification may add requests, which moves the list.
        const std::string url = request->url;
        void* notifyData = request->notifyData;
        plugin.urlnotify(g_run->npp, url.c_str(), PickReason(reader), notifyData);
      }
      break;
    case 10:
      if (NPStream* stream = PickStream(reader)) plugin.asfile(g_run->npp, stream, g_asFilePath->c_str());
      break;
    case 11:
      HostSite(reader);
      break;
    case 12: {
      const std::string url = PickUrl(reader);
      const std::string target = reader.Text(8);
      window->m_serviceTable.GpcChangeLocation(window, url.c_str(), target.empty() ? nullptr : target.c_str());
      break;
    }
    case 13:
      window->CheckLocationChanging();
      break;
    case 14:
      window_test::Browser().answers.push_back(NPERR_GENERIC_ERROR);
      break;
    default:
      if (reader.Byte() & 1) {
        const std::string url = PickUrl(reader);
        window->m_serviceTable.GpcGetFileAtUrl(window, FetchCallback, nullptr, url.c_str());
      } else {
        // The heartbeat, with the extension manager started and the old download mode on, so
        // that files come through browser streams and nothing goes to the network.
        window->m_bExtMgrStarted = 1;
        window->m_nFetchReady = 0;
        window->OnTimer();
      }
      break;
  }
}

window_test::PageParams GoodPage() {
  return window_test::PageParams{{"GpcProductVersion", "1,0"},
                                 {"GpcUrlRoot", "https://www.talvo.us/client/a/"},
                                 {"LoggingURL", "https://log.example/l"},
                                 {"MeetingID", "m"},
                                 {"SessionID", "s"},
                                 {"GpcErrorPageUrl", "https://e.example/err"}};
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_harness = new fuzz::PluginHarness("stream");
  g_asFilePath = new std::string(fuzz::TempBase() + "/stream-as-file");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  g_harness->BeginRun();
  fuzz::WriteFile(*g_asFilePath, data, size);
  fuzz::Reader reader(data, size);
  Run run(&reader);
  g_run = &run;
  NPP_t npp{};
  window_test::PageParams page = GoodPage();
  if (g_harness->New(&npp, static_cast<int16_t>(page.argc()), page.argn(), page.argv()) != NPERR_NO_ERROR) {
    fuzz::Fail("the instance was refused");
  }
  run.npp = &npp;
  run.window = fuzz::PluginHarness::WindowOf(&npp);
  RegisterSap();
  while (!reader.empty()) Step(reader);
  g_harness->plugin().destroy(&npp, nullptr);
  g_run = nullptr;
  g_harness->EndRun();
  return 0;
}
