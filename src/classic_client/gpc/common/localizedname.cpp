#include "common/localizedname.h"

#include <cstring>

namespace {

struct LanguageName {
  const char* id;
  const char* name;
};

// The names are the suffixes of the localisation tables shipped in the bundle; both styles
// (language names and locale codes) occur, and some identifiers share a table.
constexpr LanguageName kLanguageNames[] = {
    {"1", "English"},  {"2", "English"},   {"3", "zh_CN"},    {"4", "zh_TW"},   {"5", "Japanese"},
    {"6", "ko"},       {"7", "French"},    {"8", "French"},   {"9", "German"},  {"10", "Italian"},
    {"11", "Spanish"}, {"12", "es_419"},   {"13", "sv"},      {"14", "Dutch"},  {"15", "pt"},
    {"16", "ru"},      {"17", "tr"},       {"18", "da"},      {"19", "fi"},     {"20", "pl"},
};

}  // namespace

std::string localizedExtNameFromLanguageID(const char* id) {
  std::string name = "English";
  if (id == nullptr) return name;
  for (const LanguageName& entry : kLanguageNames) {
    if (std::strcmp(id, entry.id) == 0) {
      name = entry.name;
      break;
    }
  }
  return name;
}
