#include "common/gpcnotification.h"

#include <algorithm>

namespace gpc {

std::shared_ptr<GPCUserInfo> GPCUserInfo::CreateMutable() {
  return std::shared_ptr<GPCUserInfo>(new GPCUserInfo(true));
}

std::shared_ptr<GPCUserInfo> GPCUserInfo::CreateImmutable(std::map<std::string, Value> values) {
  std::shared_ptr<GPCUserInfo> info(new GPCUserInfo(false));
  info->m_mapValues = std::move(values);
  return info;
}

bool GPCUserInfo::Set(const std::string& key, Value value) {
  if (!m_bMutable) return false;
  std::lock_guard<std::mutex> lock(m_mutex);
  m_mapValues[key] = std::move(value);
  return true;
}

bool GPCUserInfo::SetString(const std::string& key, std::string value) { return Set(key, std::move(value)); }
bool GPCUserInfo::SetNumber(const std::string& key, double value) { return Set(key, value); }
bool GPCUserInfo::SetBool(const std::string& key, bool value) { return Set(key, value); }

bool GPCUserInfo::Remove(const std::string& key) {
  if (!m_bMutable) return false;
  std::lock_guard<std::mutex> lock(m_mutex);
  m_mapValues.erase(key);
  return true;
}

bool GPCUserInfo::Has(const std::string& key) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_mapValues.count(key) != 0;
}

std::optional<std::string> GPCUserInfo::GetString(const std::string& key) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto found = m_mapValues.find(key);
  if (found == m_mapValues.end()) return std::nullopt;
  if (const std::string* text = std::get_if<std::string>(&found->second)) return *text;
  return std::nullopt;
}

std::optional<double> GPCUserInfo::GetNumber(const std::string& key) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto found = m_mapValues.find(key);
  if (found == m_mapValues.end()) return std::nullopt;
  if (const double* number = std::get_if<double>(&found->second)) return *number;
  if (const bool* flag = std::get_if<bool>(&found->second)) return *flag ? 1.0 : 0.0;
  return std::nullopt;
}

bool GPCUserInfo::GetBool(const std::string& key, bool fallback) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto found = m_mapValues.find(key);
  if (found == m_mapValues.end()) return fallback;
  if (const bool* flag = std::get_if<bool>(&found->second)) return *flag;
  if (const double* number = std::get_if<double>(&found->second)) return *number != 0.0;
  return fallback;
}

GPCNotificationCenter& GPCNotificationCenter::defaultCenter() {
  // Never destroyed: objects torn down at exit may still post.
  static GPCNotificationCenter* center = new GPCNotificationCenter;
  return *center;
}

GPCNotificationCenter::ObserverId GPCNotificationCenter::addObserver(const std::string& name, Handler handler) {
  std::lock_guard<std::mutex> lock(m_mutex);
  const ObserverId id = m_nNextId++;
  m_vectorObservers.push_back(Observer{id, name, std::make_shared<Handler>(std::move(handler))});
  return id;
}

void GPCNotificationCenter::removeObserver(ObserverId id) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_vectorObservers.erase(std::remove_if(m_vectorObservers.begin(), m_vectorObservers.end(),
                                         [id](const Observer& observer) { return observer.id == id; }),
                          m_vectorObservers.end());
}

size_t GPCNotificationCenter::postNotification(const std::string& name, const void* object,
                                               std::shared_ptr<GPCUserInfo> userInfo) {
  // Handlers run outside the lock, so that they may post or (un)register themselves.
  std::vector<std::shared_ptr<Handler>> receivers;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const Observer& observer : m_vectorObservers) {
      if (observer.name == name) receivers.push_back(observer.handler);
    }
  }
  if (receivers.empty()) return 0;
  const GPCNotification notification{name, object, std::move(userInfo)};
  for (const std::shared_ptr<Handler>& handler : receivers) (*handler)(notification);
  return receivers.size();
}

}  // namespace gpc
