// The language names that select the plug-in's localisation tables ("Localizable_<name>").
#pragma once

#include <string>

// The language name for the page's numeric language identifier, given as text exactly as the
// page wrote it ("3" -> "zh_CN"). A null, unknown or differently written identifier ("03", " 3")
// gives "English".
std::string localizedExtNameFromLanguageID(const char* id);
