#include "native_messaging.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <glib.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "frame_reader.h"
#include "json_line.h"
#include "json_value.h"
#include "plugin_host.h"
#include "trace_follower.h"

namespace {

constexpr size_t kMaxOutgoing = 1024 * 1024;  // the browser refuses larger messages
constexpr size_t kMaxParams = 1024;
constexpr size_t kMaxIdBytes = 256;

// Writes framed messages to the browser on a descriptor of its own.
class Outbox {
 public:
  explicit Outbox(int fd) : m_fd(fd) {}
  // Runs once when a write fails: the browser has gone.
  void OnBroken(std::function<void()> broken) { on_broken_ = std::move(broken); }
  // Sends `json`; a message over the browser's limit is replaced by an error. False when the
  // browser is gone.
  bool Send(const std::string& json, const std::string& id) {
    if (json.size() > kMaxOutgoing) {
      JsonObjectText error;
      error.Add("type", "error");
      if (!id.empty()) error.Add("id", id);
      error.Add("message", "a message of " + std::to_string(json.size()) + " bytes exceeds the 1 MB limit; not sent");
      return Write(FrameMessage(error.Finish()));
    }
    return Write(FrameMessage(json));
  }
  bool Error(const std::string& id, const std::string& message) {
    JsonObjectText error;
    error.Add("type", "error");
    if (!id.empty()) error.Add("id", id);
    error.Add("message", message);
    return Send(error.Finish(), id);
  }

 private:
  bool Write(const std::string& bytes) {
    size_t done = 0;
    while (!m_broken && done < bytes.size()) {
      ssize_t wrote = write(m_fd, bytes.data() + done, bytes.size() - done);
      if (wrote < 0 && errno == EINTR) continue;
      if (wrote > 0) {
        done += static_cast<size_t>(wrote);
        continue;
      }
      m_broken = true;
      if (on_broken_) on_broken_();
    }
    return !m_broken;
  }
  int m_fd;
  bool m_broken = false;
  std::function<void()> on_broken_;
};

std::string ParamValue(const std::vector<std::pair<std::string, std::string>>& params, const char* name) {
  for (const auto& param : params)
    if (strcasecmp(param.first.c_str(), name) == 0) return param.second;
  return std::string();
}

// A JSON number as the page sent it (1.5, 1e+30): no integer conversion, which any size would overflow.
std::string NumberText(double number) {
  char text[32];
  std::snprintf(text, sizeof text, "%.15g", number);
  return text;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return !prefix.empty() && text.compare(0, prefix.size(), prefix) == 0;
}

// The milestones of an embed, in the order the plug-in passes them.
enum class Stage { kStarted, kChecking, kDownloading, kVerified, kUnpacked, kRunning };
const char* StageName(Stage stage) {
  static const char* const kNames[] = {"started", "checking", "downloading", "verified", "unpacked", "running"};
  return kNames[static_cast<int>(stage)];
}

// The plug-in's trace records that mark a milestone, and the stages an embed may be at to pass
// it. Marks about the package name its URL, in the record or in the download being handled;
// they go only to an embed whose package lies there.
struct StageMark {
  const char* prefix;
  Stage stage;
  std::vector<Stage> from;
  bool about_package;
};
const StageMark kStageMarks[] = {
    {"CGpcExtMgr::CheckExtension", Stage::kChecking, {Stage::kStarted}, false},
    {"CGpcWindow::GetFileAtUrl,url=[", Stage::kDownloading, {Stage::kChecking}, true},
    {"CGpcExtMgr::GpcGetFileNotify,Unpack extension from ", Stage::kVerified, {Stage::kDownloading}, true},
    {"CGpcExtMgr::GpcGetFileNotify,Load extension : ", Stage::kUnpacked, {Stage::kVerified}, true},
    // Loaded after an install, after a failed unpack (what was there before), or as installed. An
    // extension whose start failed stays loaded too: each embed takes its own record, whatever the
    // extension answered.
    {"CGpcWindow::InitExtension,Initialize GPC extension,return value =", Stage::kRunning,
     {Stage::kChecking, Stage::kVerified, Stage::kUnpacked}, false},
};
// The records that start the handling of a finished download, direct or through the browser, and
// where their URL starts; a browser download's record ends with ",<n> bytes".
constexpr char kHandlingDownload[] = "CGpcWindow::CheckDownloadingTasks,begin handle stream[";
constexpr char kUrlStart[] = "url[";
constexpr char kHandlingStreamFile[] = "CGpcWindow::FinishDownloadingStreamFile,dwonloaded file=";
// The record of a message the plug-in could not show: the embed stopped without navigating.
constexpr char kNoErrorPage[] = "CGpcWindow::ShowMessage: ErrorPageURL is nil.";

// One embed: an instance of the module and the milestones the extension hears of.
class Embed : public HostEvents {
 public:
  Embed(const std::string& id, const HostOptions& options, const PluginHost& module, Outbox* outbox)
      : m_id(id),
        package_root_(ParamValue(options.params, "GpcUrlRoot")),
        error_page_(ParamValue(options.params, "GpcErrorPageUrl")),
        m_outbox(outbox),
        m_host(options, module) {
    m_host.SetEvents(this);
  }
  ~Embed() override {
    if (refuse_source_ != 0) g_source_remove(refuse_source_);
    m_host.Unload();
  }

  const std::string& id() const { return m_id; }
  bool Start() {
    if (!m_host.CreateInstance()) return false;
    Send(Stage::kStarted);
    return true;
  }
  bool Answer(int request, bool ok) { return m_host.AnswerNavigation(request, ok); }

  // Whether `mark` can be this embed's next milestone; `url` is the one the mark is about.
  bool Awaits(const StageMark& mark, const std::string& url) const {
    if (m_halted) return false;
    bool from = false;
    for (Stage stage : mark.from) from = from || stage == m_stage;
    // Only the package is a download of the plug-in's own; later fetches are the extension's.
    return from && (!mark.about_package || IsPackageUrl(url));
  }
  // A hardened plug-in fetches an "http" root over https.
  bool IsPackageUrl(const std::string& url) const {
    const bool http = package_root_.size() > 5 && g_ascii_strncasecmp(package_root_.c_str(), "http:", 5) == 0;
    return StartsWith(url, package_root_) || (http && StartsWith(url, "https" + package_root_.substr(4)));
  }
  // `result`: what the extension's start answered, for "running".
  void Pass(Stage stage, const std::string& result) { Send(stage, result); }
  // Halts this embed when it is one the plug-in can stop without navigating: one still going
  // with no error page. False when it is not.
  bool HaltWithoutErrorPage() {
    if (m_halted || !error_page_.empty()) return false;
    Halt();
    return true;
  }

  // Whether `url` is the plug-in's error page: the page, or the page with the error's query joined
  // on. Another page whose URL merely starts with the error page's is not.
  bool IsErrorPage(const std::string& url) const {
    if (!StartsWith(url, error_page_)) return false;
    std::string rest = url.substr(error_page_.size());
    if (!rest.empty() && (rest[0] == '?' || rest[0] == '&')) rest.erase(0, 1);
    return rest.empty() || StartsWith(rest, "ErrorType=1&ErrorMsg=");
  }

  bool OnNavigate(int request, const std::string& url, const std::string& target) override {
    if (IsErrorPage(url) && !m_halted) Halt();
    JsonObjectText message;
    message.Add("type", "navigate").Add("id", m_id).Add("request", request).Add("url", url).Add("target", target);
    std::string json = message.Finish();
    if (json.size() > kMaxOutgoing) {
      m_outbox->Error(m_id, "navigation " + std::to_string(request) + " is too long to send; it failed");
      RefuseLater(request);
    } else {
      m_outbox->Send(json, m_id);
    }
    return true;
  }

  // Byte progress of the package when the browser (this host) downloads it; about fifty
  // messages for a whole package at most.
  void OnStreamProgress(const std::string& url, int64_t done, int64_t total) override {
    if (m_stage != Stage::kDownloading || m_halted || !IsPackageUrl(url)) return;
    const int64_t step = std::max<int64_t>(total / 50, 256 * 1024);
    if (done != total && done - progress_sent_ < step) return;
    progress_sent_ = done;
    JsonObjectText message;
    message.Add("type", "status").Add("id", m_id).Add("stage", StageName(m_stage)).Add("done", done);
    if (total >= 0) message.Add("total", total);
    m_outbox->Send(message.Finish(), m_id);
  }

 private:
  void Halt() {
    m_halted = true;
    JsonObjectText message;
    m_outbox->Send(message.Add("type", "status").Add("id", m_id).Add("stage", "halted").Finish(), m_id);
  }
  void Send(Stage stage, const std::string& result = std::string()) {
    m_stage = stage;
    JsonObjectText message;
    message.Add("type", "status").Add("id", m_id).Add("stage", StageName(stage));
    if (!result.empty()) message.Add("result", static_cast<int64_t>(std::strtoll(result.c_str(), nullptr, 10)));
    m_outbox->Send(message.Finish(), m_id);
  }

  // A navigation that could not be sent fails, from the main loop rather than inside the
  // plug-in's call that asked for it.
  void RefuseLater(int request) {
    m_refused.push_back(request);
    if (refuse_source_ == 0) refuse_source_ = g_idle_add(&Embed::OnRefuse, this);
  }
  static gboolean OnRefuse(gpointer self) {
    auto* embed = static_cast<Embed*>(self);
    embed->refuse_source_ = 0;
    std::vector<int> refused;
    refused.swap(embed->m_refused);
    for (int request : refused) embed->m_host.AnswerNavigation(request, false);
    return G_SOURCE_REMOVE;
  }

  std::string m_id;
  std::string package_root_;
  std::string error_page_;
  Outbox* m_outbox;
  Stage m_stage = Stage::kStarted;
  bool m_halted = false;
  int64_t progress_sent_ = 0;  // bytes of the package the last progress message told of
  std::vector<int> m_refused;
  guint refuse_source_ = 0;
  PluginHost m_host;  // last: destroyed first, while the state above still stands
};

class Bridge {
 public:
  Bridge(const HostOptions& options, const PluginHost& module, Outbox* outbox)
      : m_options(options), m_module(module), m_outbox(outbox) {}

  int Run(int input) {
    m_loop = g_main_loop_new(nullptr, FALSE);
    m_outbox->OnBroken([this] { g_main_loop_quit(m_loop); });
    TraceFollower follower([this](const std::string& text) { OnTrace(text); });
    follower.Start();
    guint watch = g_unix_fd_add(input, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR),
                                &Bridge::OnInput, this);
    g_main_loop_run(m_loop);
    if (!input_ended_) g_source_remove(watch);
    m_embeds.clear();  // each ends its instance as a closed page would
    m_outbox->OnBroken(nullptr);
    g_main_loop_unref(m_loop);
    m_loop = nullptr;
    return 0;
  }

 private:
  // Trace records carry no instance: a milestone goes to the oldest embed that can pass it next.
  void OnTrace(const std::string& text) {
    if (StartsWith(text, kHandlingDownload)) {
      size_t start = text.find(kUrlStart);
      handled_url_ = start == std::string::npos ? std::string() : text.substr(start + std::strlen(kUrlStart));
      return;
    }
    if (StartsWith(text, kHandlingStreamFile)) {
      const size_t start = std::strlen(kHandlingStreamFile), comma = text.rfind(',');
      handled_url_ = comma == std::string::npos || comma < start ? std::string() : text.substr(start, comma - start);
      return;
    }
    if (StartsWith(text, kNoErrorPage)) {
      for (auto& embed : m_embeds)
        if (embed->HaltWithoutErrorPage()) break;
      return;
    }
    for (const StageMark& mark : kStageMarks) {
      if (!StartsWith(text, mark.prefix)) continue;
      const std::string url = mark.stage == Stage::kDownloading ? text.substr(std::strlen(mark.prefix)) : handled_url_;
      for (auto& embed : m_embeds) {
        if (!embed->Awaits(mark, url)) continue;
        embed->Pass(mark.stage, mark.stage == Stage::kRunning ? text.substr(std::strlen(mark.prefix)) : "");
        break;
      }
      return;
    }
  }

  Embed* Find(const std::string& id) {
    for (auto& embed : m_embeds)
      if (embed->id() == id) return embed.get();
    return nullptr;
  }

  static gboolean OnInput(gint fd, GIOCondition, gpointer self) {
    auto* bridge = static_cast<Bridge*>(self);
    char buffer[64 * 1024];
    ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) return G_SOURCE_CONTINUE;
    if (got <= 0) {
      // The port was disconnected: the page is gone with all its embeds.
      if (bridge->m_reader.InsideFrame()) bridge->m_outbox->Error("", "the input ended inside a message");
      bridge->input_ended_ = true;
      g_main_loop_quit(bridge->m_loop);
      return G_SOURCE_REMOVE;
    }
    std::vector<FrameReader::Item> items;
    bridge->m_reader.Feed(buffer, static_cast<size_t>(got), &items);
    for (const FrameReader::Item& item : items) {
      if (item.ok) bridge->Dispatch(item.text);
      else bridge->m_outbox->Error("", item.text);
    }
    return G_SOURCE_CONTINUE;
  }

  void Dispatch(const std::string& text) {
    JsonValue message;
    std::string error;
    if (!ParseJson(text, &message, &error)) {
      m_outbox->Error("", "invalid JSON: " + error);
      return;
    }
    if (message.kind != JsonValue::Kind::kObject) {
      m_outbox->Error("", "a message is a JSON object");
      return;
    }
    const JsonValue* type = message.Find("type");
    const JsonValue* id = message.Find("id");
    std::string id_text = id != nullptr && id->IsString() ? id->text : std::string();
    if (type == nullptr || !type->IsString()) {
      m_outbox->Error(id_text, "a message needs a \"type\" string");
      return;
    }
    if (id == nullptr || !id->IsString() || id->text.empty() || id->text.size() > kMaxIdBytes) {
      m_outbox->Error("", "\"" + type->text + "\" needs an \"id\" string of 1 to " + std::to_string(kMaxIdBytes) + " bytes");
      return;
    }
    if (type->text == "embed") {
      CreateEmbed(id_text, message);
    } else if (type->text == "navigated") {
      AnswerNavigation(id_text, message);
    } else if (type->text == "destroy") {
      DestroyEmbed(id_text);
    } else {
      m_outbox->Error(id_text, "unknown message type \"" + type->text + "\"");
    }
  }

  void DestroyEmbed(const std::string& id) {
    for (auto it = m_embeds.begin(); it != m_embeds.end(); ++it) {
      if ((*it)->id() != id) continue;
      std::unique_ptr<Embed> embed = std::move(*it);
      m_embeds.erase(it);
      return;  // the instance ends here, with `embed`
    }
    m_outbox->Error(id, "no embed " + id);
  }

  void CreateEmbed(const std::string& id, const JsonValue& message) {
    if (Find(id) != nullptr) {
      m_outbox->Error(id, "an embed " + id + " exists already");
      return;
    }
    const JsonValue* page = message.Find("pageUrl");
    const JsonValue* frame = message.Find("frame");
    const JsonValue* params = message.Find("params");
    if (page == nullptr || !page->IsString() || page->text.empty()) {
      m_outbox->Error(id, "\"embed\" needs a \"pageUrl\" string");
      return;
    }
    if (frame != nullptr && !frame->IsString()) {
      m_outbox->Error(id, "\"frame\" is a string");
      return;
    }
    HostOptions options = m_options;
    options.page_url = page->text;
    options.params.clear();
    if (params != nullptr) {
      if (params->kind != JsonValue::Kind::kArray) {
        m_outbox->Error(id, "\"params\" is an array of [name, value] pairs");
        return;
      }
      if (params->items.size() > kMaxParams) {
        m_outbox->Error(id, "an embed takes at most " + std::to_string(kMaxParams) + " parameters, not " +
                               std::to_string(params->items.size()));
        return;
      }
      for (const JsonValue& pair : params->items) {
        if (pair.kind != JsonValue::Kind::kArray || pair.items.size() != 2 || !pair.items[0].IsString() ||
            !pair.items[1].IsString() || pair.items[0].text.empty()) {
          m_outbox->Error(id, "\"params\" is an array of [name, value] pairs of strings");
          return;
        }
        options.params.emplace_back(pair.items[0].text, pair.items[1].text);
      }
    }
    JsonLine("embed").Add("id", id).Add("page_url", page->text).Add("frame", frame != nullptr ? frame->text : "top").Emit();
    m_embeds.push_back(std::make_unique<Embed>(id, options, m_module, m_outbox));
    if (!m_embeds.back()->Start()) {
      m_embeds.pop_back();
      m_outbox->Error(id, "the plug-in refused the embed");
    }
  }

  void AnswerNavigation(const std::string& id, const JsonValue& message) {
    const JsonValue* request = message.Find("request");
    const JsonValue* ok = message.Find("ok");
    Embed* embed = Find(id);
    if (embed == nullptr) {
      m_outbox->Error(id, "no embed " + id);
      return;
    }
    if (request == nullptr || request->kind != JsonValue::Kind::kNumber || ok == nullptr ||
        ok->kind != JsonValue::Kind::kBool) {
      m_outbox->Error(id, "\"navigated\" needs a \"request\" number and an \"ok\" boolean");
      return;
    }
    int number = request->number >= 1 && request->number <= 1e9 ? static_cast<int>(request->number) : 0;
    if (number != request->number || !embed->Answer(number, ok->boolean))
      m_outbox->Error(id, "no navigation " + NumberText(request->number) + " waits for an answer");
  }

  const HostOptions& m_options;
  const PluginHost& m_module;
  Outbox* m_outbox;
  FrameReader m_reader;
  std::vector<std::unique_ptr<Embed>> m_embeds;  // in the order they were made
  std::string handled_url_;  // the download the plug-in handles now, as its trace names it
  GMainLoop* m_loop = nullptr;
  bool input_ended_ = false;
};

}  // namespace

int RunNativeMessaging(const HostOptions& options) {
  // The browser's port gets descriptors of its own, closed on exec: whatever else writes to
  // standard output (the host's event lines, a module's stray print) reaches standard error
  // instead, and a program the extension starts reads nothing of the page's messages.
  std::fflush(stdout);
  // Above 2: a browser that started the host with standard input closed gets its answers still.
  const int frames = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3), input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (frames < 0 || input < 0 || nothing < 0 || dup2(STDERR_FILENO, STDOUT_FILENO) < 0 ||
      dup2(nothing, STDIN_FILENO) < 0) {
    std::fprintf(stderr, "gpc-host: cannot set up standard output for native messaging\n");
    return 1;
  }
  close(nothing);
  std::signal(SIGPIPE, SIG_IGN);  // a closed port shows as a failed write
  JsonLine::SetOutput(stderr);
  Outbox outbox(frames);
  int code = 0;
  {
    PluginHost module(options);
    if (!module.Load()) {
      outbox.Error("", "the plug-in module could not be loaded");
      code = 1;
    } else {
      code = Bridge(options, module, &outbox).Run(input);
    }
    module.Unload();
  }
  close(frames);
  close(input);
  return code;
}
