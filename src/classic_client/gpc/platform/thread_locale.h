// One locale category set on the calling thread for the life of an object; the thread's earlier
// locale comes back afterwards. Other threads, and the process's locale, are never touched.
#pragma once

#include <locale.h>

#include <initializer_list>

namespace platform {

class ThreadLocale {
 public:
  // The first of `names` that exists, for the categories in `mask` (LC_CTYPE_MASK, ...); when none
  // exists the thread keeps its locale.
  ThreadLocale(int mask, std::initializer_list<const char*> names) {
    for (const char* name : names) {
      m_locale = newlocale(mask, name, static_cast<locale_t>(0));
      if (m_locale != static_cast<locale_t>(0)) break;
    }
    if (m_locale != static_cast<locale_t>(0)) m_previous = uselocale(m_locale);
  }
  ~ThreadLocale() {
    if (m_locale == static_cast<locale_t>(0)) return;
    uselocale(m_previous);
    freelocale(m_locale);
  }
  ThreadLocale(const ThreadLocale&) = delete;
  ThreadLocale& operator=(const ThreadLocale&) = delete;

 private:
  locale_t m_locale = static_cast<locale_t>(0);
  locale_t m_previous = static_cast<locale_t>(0);
};

}  // namespace platform
