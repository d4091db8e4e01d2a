// The stream provider: an extension's requests and the GPCMessage records its access points
// receive, against browser stream events in any order and count, all through the plug-in table
// and the service table.
//
// Input: a program of one-byte operations with their arguments (see Step). Each access point's
// callback takes its reaction to every message from the same input: keep or lower the ready and
// data counts, abort a stream, unregister itself, ask for another stream, or register another
// access point. The browser only ever hands back the notify data the plug-in gave it, and keeps
// every stream's private data as the plug-in set it.
#include <cctype>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "fuzz_browser.h"

namespace {

const char* const kUrls[] = {"https://www.talvo.us/data", "https://www.talvo.us/client/pkg.7z",
                             "https://a.example/next", ""};
void* const kHostSite = reinterpret_cast<void*>(static_cast<uintptr_t>(NOTIFICATION_GET_HOSTSITE));

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
  Run(fuzz::Reader* input, NPP instance, CGpcWindow* plugin)
      : reader(input), npp(instance), window(plugin), services(plugin->m_serviceTable) {}
  fuzz::Reader* reader;
  NPP npp;
  CGpcWindow* window;
  GpcServiceTable& services;
  std::deque<SapRecord> saps;
  std::vector<void*> handles;  // every stream handle the plug-in gave, finished ones included
  std::deque<BrowserStream> streams;
  int depth = 0;
  unsigned char sink = 0;
};

fuzz::PluginHarness* g_harness = nullptr;
Run* g_run = nullptr;
std::string* g_asFilePath = nullptr;

template <typename T>
T* Pick(fuzz::Reader& reader, std::vector<T*> from) {
  return from.empty() ? nullptr : from[reader.Byte() % from.size()];
}
std::string PickUrl(fuzz::Reader& reader) {
  const uint8_t choice = reader.Byte() % 5;
  return choice < 4 ? kUrls[choice] : reader.Text(40);
}
SapRecord* PickLiveSap(fuzz::Reader& reader) {
  std::vector<SapRecord*> live;
  for (SapRecord& record : g_run->saps) if (record.live) live.push_back(&record);
  return Pick(reader, live);
}
void* PickHandle(fuzz::Reader& reader) {
  return g_run->handles.empty() ? nullptr : g_run->handles[reader.Byte() % g_run->handles.size()];
}
NPStream* PickStream(fuzz::Reader& reader) {
  return g_run->streams.empty() ? nullptr : &g_run->streams[reader.Byte() % g_run->streams.size()].np;
}
const gpctest::UrlRequest* PickRequest(fuzz::Reader& reader) {
  const std::vector<gpctest::UrlRequest>& requests = gpctest::Browser().requests;
  return requests.empty() ? nullptr : &requests[reader.Byte() % requests.size()];
}
NPReason PickReason(fuzz::Reader& reader) {
  static const NPReason kReasons[] = {NPRES_DONE, NPRES_NETWORK_ERR, NPRES_USER_BREAK};
  return kReasons[reader.Byte() % 3];
}

int SapCallback(GPCMessage* message);

void RegisterSap() {
  if (g_run->saps.size() >= 8) return;
  SapRecord& record = g_run->saps.emplace_back();
  if (g_run->services.GpcRegisterStreamSap(SapCallback, &record, g_run->window, &record.sap) != 0) {
    fuzz::Fail("registering an access point failed");
  }
  record.live = true;
}
void UnregisterSap(SapRecord* record) {
  if (record == nullptr || !record->live) return;
  record->live = false;
  if (g_run->services.GpcUnregisterStreamSap(record->sap) != 0) fuzz::Fail("unregistering failed");
}

// A GET, or a POST of `body` when one is given; a stream handle comes exactly with success.
void Request(SapRecord* record, const std::string& url, const std::string* body, int asFile) {
  if (record == nullptr) return;
  void* stream = nullptr;
  const uint32_t result =
      body ? g_run->services.GpcPostStream(record->sap, url.c_str(), body->data(), unsigned(body->size()), asFile,
                                           &stream)
           : g_run->services.GpcGetStream(record->sap, url.c_str(), asFile, &stream);
  if ((result == 0) != (stream != nullptr)) fuzz::Fail("request answered %u with stream %p", result, stream);
  if (stream != nullptr) g_run->handles.push_back(stream);
}
void Abort(SapRecord* record, void* stream) {
  if (record != nullptr && stream != nullptr) g_run->services.GpcAbortStream(record->sap, stream);
}

// Reads every byte a message points to, so that a stale or short buffer is caught.
void Touch(const GPCMessage* message) {
  if (message->type < GPC_STREAM_READY || message->type > GPC_SAP_DETACH) fuzz::Fail("message type %d", message->type);
  if (message->url != nullptr) g_run->sink ^= static_cast<unsigned char>(strlen(message->url));
  if (message->type == GPC_STREAM_DATA) {
    const int32_t length = message->payload.data.length;
    const auto* bytes = static_cast<const unsigned char*>(message->payload.data.buffer);
    if (length < 0 || (length > 0 && bytes == nullptr)) fuzz::Fail("a data message of %d bytes at %p", length, bytes);
    for (int32_t i = 0; i < length; ++i) g_run->sink ^= bytes[i];
  } else if (message->type == GPC_STREAM_FILE && message->payload.file.fileName != nullptr) {
    g_run->sink ^= static_cast<unsigned char>(strlen(message->payload.file.fileName));
  }
}

int SapCallback(GPCMessage* message) {
  if (message == nullptr) fuzz::Fail("a null message");
  auto* record = static_cast<SapRecord*>(message->context);
  if (record == nullptr || !record->live) fuzz::Fail("a message for an access point that is gone");
  Touch(message);
  if (g_run->depth >= 3) return 0;
  ++g_run->depth;
  fuzz::Reader& reader = *g_run->reader;
  switch (reader.Byte() % 8) {
    case 1: {
      const int32_t count = static_cast<int16_t>(reader.Word());
      if (message->type == GPC_STREAM_READY) message->payload.ready.result = count;
      if (message->type == GPC_STREAM_DATA) message->payload.data.result = count;
      break;
    }
    case 2: Abort(record, message->stream); break;
    case 3: UnregisterSap(record); break;
    case 4: {
      const std::string url = PickUrl(reader);
      Request(record, url, nullptr, reader.Byte() & 1);
      break;
    }
    case 5: RegisterSap(); break;
    case 6: Abort(record, PickHandle(reader)); break;
    default: break;
  }
  --g_run->depth;
  return 0;
}

void FetchCallback(void*, void*, GPCGetFileNotifyMessageType type, void* data) {
  if (type != GPC_GETFILE_COMPLETE || data == nullptr) return;
  if (FILE* file = fopen(static_cast<const char*>(data), "rb")) {
    for (int c = fgetc(file); c != EOF; c = fgetc(file)) g_run->sink ^= static_cast<unsigned char>(c);
    fclose(file);
  }
}

// The browser opens a stream: for one of the plug-in's requests (its URL as asked, or in capitals,
// since URLs compare without regard to case), for another URL, or the host-site stream.
NPStream* OpenStream(fuzz::Reader& reader, bool hostSite) {
  const gpctest::UrlRequest* request = hostSite ? nullptr : PickRequest(reader);
  BrowserStream& stream = g_run->streams.emplace_back();
  const uint8_t variant = hostSite ? 2 : reader.Byte() % 4;
  stream.url = hostSite ? "https://www.talvo.us/meeting" : request && variant < 2 ? request->url : PickUrl(reader);
  if (request && variant == 1) for (char& c : stream.url) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  stream.np.url = stream.url.c_str();
  stream.np.notifyData = hostSite ? kHostSite : request ? request->notifyData : nullptr;
  stream.np.end = hostSite ? 0 : reader.Word();
  uint16_t stype = NP_NORMAL;
  g_harness->plugin().newstream(g_run->npp, const_cast<char*>("application/octet-stream"), &stream.np, false, &stype);
  if (stype != NP_NORMAL && stype != NP_ASFILEONLY) fuzz::Fail("stream type %u", stype);
  return &stream.np;
}

void Write(NPStream* stream, int32_t offset, std::string block) {
  if (stream == nullptr) return;
  g_harness->plugin().write(g_run->npp, stream, offset, int32_t(block.size()), block.empty() ? nullptr : &block[0]);
}

// One operation of the program.
void Step(fuzz::Reader& reader) {
  const NPPluginFuncs& plugin = g_harness->plugin();
  CGpcWindow* window = g_run->window;
  const uint8_t operation = reader.Byte() % 16;
  switch (operation) {
    case 0:  // GET
    case 1: {  // POST
      const bool post = operation == 1;
      SapRecord* record = PickLiveSap(reader);
      const std::string url = PickUrl(reader);
      const std::string body = post ? reader.Text(64) : "";
      Request(record, url, post ? &body : nullptr, reader.Byte() & 1);
      break;
    }
    case 2: {
      SapRecord* record = PickLiveSap(reader);
      Abort(record, PickHandle(reader));
      break;
    }
    case 3: RegisterSap(); break;
    case 4: UnregisterSap(PickLiveSap(reader)); break;
    case 5: OpenStream(reader, false); break;
    case 6:
      if (NPStream* stream = PickStream(reader)) plugin.writeready(g_run->npp, stream);
      break;
    case 7: {
      NPStream* stream = PickStream(reader);
      const int32_t offset = reader.Word();
      Write(stream, offset, reader.Text(255));
      break;
    }
    case 8:
      if (NPStream* stream = PickStream(reader)) plugin.destroystream(g_run->npp, stream, PickReason(reader));
      break;
    case 9:
      if (const gpctest::UrlRequest* request = PickRequest(reader)) {
        // Copies: the notification may add requests, which moves the list.
        const std::string url = request->url;
        plugin.urlnotify(g_run->npp, url.c_str(), PickReason(reader), request->notifyData);
      }
      break;
    case 10:
      if (NPStream* stream = PickStream(reader)) plugin.asfile(g_run->npp, stream, g_asFilePath->c_str());
      break;
    case 11: {
      NPStream* stream = OpenStream(reader, true);
      plugin.writeready(g_run->npp, stream);
      Write(stream, 0, PickUrl(reader));
      plugin.destroystream(g_run->npp, stream, NPRES_DONE);
      break;
    }
    case 12: {
      const std::string url = PickUrl(reader);
      const std::string target = reader.Text(8);
      g_run->services.GpcChangeLocation(window, url.c_str(), target.empty() ? nullptr : target.c_str());
      break;
    }
    case 13: window->CheckLocationChanging(); break;
    case 14: gpctest::Browser().answers.push_back(NPERR_GENERIC_ERROR); break;
    default:
      if (reader.Byte() & 1) {
        g_run->services.GpcGetFileAtUrl(window, FetchCallback, nullptr, PickUrl(reader).c_str());
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
  NPP_t npp{};
  gpctest::EmbedArgs page{{"GpcProductVersion", "1,0"},        {"GpcUrlRoot", "https://www.talvo.us/client/a/"},
                          {"LoggingURL", "https://log.example/l"}, {"MeetingID", "m"},
                          {"SessionID", "s"},                      {"GpcErrorPageUrl", "https://e.example/err"}};
  if (g_harness->New(&npp, page) != NPERR_NO_ERROR) fuzz::Fail("the instance was refused");
  CGpcWindow* window = fuzz::PluginHarness::WindowOf(&npp);
  Run run(&reader, &npp, window);
  g_run = &run;
  RegisterSap();
  while (!reader.empty()) Step(reader);
  g_harness->plugin().destroy(&npp, nullptr);
  g_run = nullptr;
  g_harness->EndRun();
  return 0;
}
