// The stream provider against browser stream events and extension requests in any order and count,
// all through the plug-in table and the service table. Input: one-byte operations with their
// arguments (see Step); each access point's callback takes its reaction to every message from the
// input too. The browser only hands back the notify data the plug-in gave it.
#include <cctype>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "fuzz_browser.h"

namespace {

struct Sap {
  void* sap = nullptr;
  bool live = false;
};

// One run's world; the callbacks find it through g_run.
struct Run {
  Run(fuzz::Reader& reader, NPP instance, CGpcWindow* plugin) : in(reader), npp(instance), window(plugin) {}
  fuzz::Reader& in;
  NPP npp;
  CGpcWindow* window;
  std::deque<Sap> saps;
  std::vector<void*> handles;  // every stream handle the plug-in gave, finished ones included
  std::deque<std::string> urls;
  std::deque<NPStream> streams;
  int depth = 0;
  unsigned char sink = 0;
};

fuzz::PluginHarness* g_harness = nullptr;
Run* g_run = nullptr;
std::string* g_asFilePath = nullptr;

uint8_t Byte() { return g_run->in.Byte(); }
template <typename Container>
auto* Pick(Container& from) {
  return from.empty() ? nullptr : &from[Byte() % from.size()];
}
std::string PickUrl() {
  static const char* const kUrls[] = {"https://www.talvo.us/data", "https://www.talvo.us/client/pkg.7z",
                                      "https://a.example/next", ""};
  const uint8_t choice = Byte() % 5;
  return choice < 4 ? kUrls[choice] : g_run->in.Text(40);
}
Sap* PickLiveSap() {
  Sap* sap = Pick(g_run->saps);
  return sap && sap->live ? sap : nullptr;
}
void* PickHandle() { return g_run->handles.empty() ? nullptr : *Pick(g_run->handles); }
NPReason PickReason() { return Byte() % 3; }  // done, network error, user break

int SapCallback(GPCMessage* message);
void RegisterSap() {
  if (g_run->saps.size() >= 8) return;
  Sap& sap = g_run->saps.emplace_back();
  sap.live = GpcRegisterStreamSap(SapCallback, &sap, g_run->window, &sap.sap) == GPC_RESULT_OK;
}
void UnregisterSap(Sap* sap) {
  if (sap == nullptr || !sap->live) return;
  sap->live = false;
  GpcUnregisterStreamSap(sap->sap);
}
// A GET, or a POST of `body` when one is given.
void Request(Sap* sap, const std::string& url, const std::string* body) {
  void* stream = nullptr;
  const int asFile = Byte() & 1;
  if (sap && body) GpcPostStream(sap->sap, url.c_str(), body->data(), unsigned(body->size()), asFile, &stream);
  if (sap && !body) GpcGetStream(sap->sap, url.c_str(), asFile, &stream);
  if (stream != nullptr) g_run->handles.push_back(stream);
}
void Abort(Sap* sap, void* stream) {
  if (sap != nullptr && stream != nullptr) GpcAbortStream(sap->sap, stream);
}

int SapCallback(GPCMessage* message) {
  auto* sap = static_cast<Sap*>(message->context);
  if (sap == nullptr || !sap->live) fuzz::Fail("a message for an access point that is gone");
  // Every byte a message points to is read, so that a stale or short buffer is caught.
  if (message->url != nullptr) g_run->sink ^= static_cast<unsigned char>(strlen(message->url));
  if (message->type == GPC_STREAM_DATA) {
    const auto* bytes = static_cast<const unsigned char*>(message->payload.data.buffer);
    for (int32_t i = 0; i < message->payload.data.length; ++i) g_run->sink ^= bytes[i];
  }
  if (g_run->depth >= 3) return 0;
  ++g_run->depth;
  switch (Byte() % 8) {
    case 1: {
      const int32_t count = static_cast<int16_t>(g_run->in.Word());
      if (message->type == GPC_STREAM_READY) message->payload.ready.result = count;
      if (message->type == GPC_STREAM_DATA) message->payload.data.result = count;
      break;
    }
    case 2: Abort(sap, message->stream); break;
    case 3: UnregisterSap(sap); break;
    case 4: Request(sap, PickUrl(), nullptr); break;
    case 5: RegisterSap(); break;
    case 6: Abort(sap, PickHandle()); break;
  }
  --g_run->depth;
  return 0;
}

// The browser opens a stream: for one of the plug-in's requests (its URL as asked, or in capitals),
// for another URL, or the host-site stream.
NPStream* OpenStream(bool hostSite) {
  const gpctest::UrlRequest* request = hostSite ? nullptr : Pick(gpctest::Browser().requests);
  const uint8_t variant = hostSite ? 2 : Byte() % 4;
  std::string& url = g_run->urls.emplace_back(hostSite ? "https://www.talvo.us/meeting"
                                              : request && variant < 2 ? request->url : PickUrl());
  if (request && variant == 1) for (char& c : url) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  NPStream& stream = g_run->streams.emplace_back();
  stream.url = url.c_str();
  stream.notifyData = hostSite ? reinterpret_cast<void*>(uintptr_t(NOTIFICATION_GET_HOSTSITE))
                      : request ? request->notifyData : nullptr;
  stream.end = hostSite ? 0 : g_run->in.Word();
  uint16_t stype = NP_NORMAL;
  g_harness->plugin().newstream(g_run->npp, const_cast<char*>("application/octet-stream"), &stream, false, &stype);
  return &stream;
}
void Write(NPStream* stream, int32_t offset, std::string block) {
  char* bytes = block.empty() ? nullptr : &block[0];
  if (stream) g_harness->plugin().write(g_run->npp, stream, offset, int32_t(block.size()), bytes);
}

void Step() {
  const NPPluginFuncs& plugin = g_harness->plugin();
  const NPP npp = g_run->npp;
  CGpcWindow* window = g_run->window;
  NPStream* stream = nullptr;
  const uint8_t operation = Byte() % 16;
  if (operation >= 6 && operation <= 10 && operation != 9 && (stream = Pick(g_run->streams)) == nullptr) return;
  switch (operation) {
    case 0:    // GET
    case 1: {  // POST
      Sap* sap = PickLiveSap();
      const std::string url = PickUrl(), body = operation == 1 ? g_run->in.Text(64) : "";
      Request(sap, url, operation == 1 ? &body : nullptr);
      break;
    }
    case 2: {
      Sap* sap = PickLiveSap();
      Abort(sap, PickHandle());
      break;
    }
    case 3: RegisterSap(); break;
    case 4: UnregisterSap(PickLiveSap()); break;
    case 5: OpenStream(false); break;
    case 6: plugin.writeready(npp, stream); break;
    case 7: {
      const int32_t offset = g_run->in.Word();
      Write(stream, offset, g_run->in.Text(255));
      break;
    }
    case 8: plugin.destroystream(npp, stream, PickReason()); break;
    case 9:
      if (const gpctest::UrlRequest* request = Pick(gpctest::Browser().requests)) {
        const gpctest::UrlRequest copy = *request;  // the notification may add requests, which moves the list
        plugin.urlnotify(npp, copy.url.c_str(), PickReason(), copy.notifyData);
      }
      break;
    case 10: plugin.asfile(npp, stream, g_asFilePath->c_str()); break;
    case 11:
      stream = OpenStream(true);
      plugin.writeready(npp, stream);
      Write(stream, 0, PickUrl());
      plugin.destroystream(npp, stream, NPRES_DONE);
      break;
    case 12: {
      const std::string url = PickUrl(), target = g_run->in.Text(8);
      GpcChangeLocation(window, url.c_str(), target.empty() ? nullptr : target.c_str());
      break;
    }
    case 13: window->CheckLocationChanging(); break;
    case 14: gpctest::Browser().answers.push_back(NPERR_GENERIC_ERROR); break;
    default:
      if (Byte() & 1) {
        const std::string url = PickUrl();
        GpcGetFileAtUrl(window, [](void*, void*, GPCGetFileNotifyMessageType, void*) {}, nullptr, url.c_str());
      } else {  // the heartbeat in the old download mode, so that files come through browser streams
        window->m_bExtMgrStarted = 1;
        window->m_nFetchReady = 0;
        window->OnTimer();
      }
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
  gpctest::EmbedArgs page{{"GpcProductVersion", "1,0"}, {"GpcUrlRoot", "https://www.talvo.us/client/a/"},
                          {"LoggingURL", "https://log.example/l"}, {"GpcErrorPageUrl", "https://e.example/err"}};
  if (g_harness->New(&npp, page) != NPERR_NO_ERROR) fuzz::Fail("the instance was refused");
  Run run(reader, &npp, fuzz::PluginHarness::WindowOf(&npp));
  g_run = &run;
  RegisterSap();
  while (!reader.empty()) Step();
  g_harness->plugin().destroy(&npp, nullptr);
  g_run = nullptr;
  g_harness->EndRun();
  return 0;
}
