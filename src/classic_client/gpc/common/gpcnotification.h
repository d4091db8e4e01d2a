// The in-process notification hub: observers register for a notification name; posting delivers
// synchronously, on the posting thread, to every observer of that name, in registration order.
// The user information is a small dictionary of text, number and boolean values, mutable or not,
// so that an observer can answer a query by writing into the poster's own dictionary.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace gpc {

class GPCUserInfo {
 public:
  using Value = std::variant<std::string, double, bool>;

  // A mutable dictionary accepts Set and Remove; an immutable one refuses them once built.
  static std::shared_ptr<GPCUserInfo> CreateMutable();
  static std::shared_ptr<GPCUserInfo> CreateImmutable(std::map<std::string, Value> values);

  bool IsMutable() const { return m_bMutable; }

  // Each returns false, changing nothing, on an immutable dictionary.
  bool SetString(const std::string& key, std::string value);
  bool SetNumber(const std::string& key, double value);
  bool SetBool(const std::string& key, bool value);
  bool Remove(const std::string& key);

  bool Has(const std::string& key) const;
  // The text under `key`, or nothing when absent or not text.
  std::optional<std::string> GetString(const std::string& key) const;
  // The number under `key` (a boolean reads as 1 or 0), or nothing.
  std::optional<double> GetNumber(const std::string& key) const;
  // The boolean under `key` (a number reads as true when not zero), or `fallback`.
  bool GetBool(const std::string& key, bool fallback = false) const;

 private:
  explicit GPCUserInfo(bool is_mutable) : m_bMutable(is_mutable) {}
  bool Set(const std::string& key, Value value);

  const bool m_bMutable;
  mutable std::mutex m_mutex;
  std::map<std::string, Value> m_mapValues;
};

struct GPCNotification {
  std::string name;
  const void* object = nullptr;  // the sender; none for trace entries
  std::shared_ptr<GPCUserInfo> userInfo;
};

class GPCNotificationCenter {
 public:
  using Handler = std::function<void(const GPCNotification&)>;
  using ObserverId = uint64_t;

  // The one hub of the process.
  static GPCNotificationCenter& defaultCenter();

  // Registers `handler` for `name`; the id removes it again. Never returns 0.
  ObserverId addObserver(const std::string& name, Handler handler);
  // Unregisters; unknown ids are ignored. A delivery already under way on another thread may
  // still reach the handler, so owners remove themselves before they go.
  void removeObserver(ObserverId id);

  // Delivers to every observer of `name`, synchronously; returns how many received it.
  size_t postNotification(const std::string& name, const void* object, std::shared_ptr<GPCUserInfo> userInfo);

 private:
  struct Observer {
    ObserverId id;
    std::string name;
    std::shared_ptr<Handler> handler;
  };
  std::mutex m_mutex;
  ObserverId m_nNextId = 1;
  std::vector<Observer> m_vectorObservers;
};

}  // namespace gpc
