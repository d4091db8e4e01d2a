// The instance's parameter store: the page's name and value pairs, in page order.
#include <cstring>

#include "plugin/plugin/npgpc_text.h"
#include "plugin/plugin/npgpcimp.h"
#include "common/trace.h"

namespace {

const char kUrlRootName[] = "GpcUrlRoot";

struct LengthLimit {
  const char* name;
  size_t longest;
};

const LengthLimit kLengthLimits[] = {
    {"GpcProductVersion", 32},
    {"GpcProductRoot", 32},
    {"GpcComponentName", 64},
};

}  // namespace

bool CGpcWindow::SetParameters(int argc, char** argn, char** argv) {
  MacInfoTrace("CGpcWindow::SetParameters");
  if (!SaveParameters(argc, argn, argv)) {
    MacErrorTrace("CGpcWindow::SetParameters,call SaveParameters is failed!");
    return false;
  }
  for (int i = 0; i < argc; ++i) {
    const char* name = argn[i];
    const char* value = argv[i];
    // The root is only tested here; the page's own text is what gets stored.
    if (GpcNamesEqual(name, kUrlRootName) && CorrectSchemaofUrlRoot(value).empty()) {
      MacErrorTrace("CGpcWindow::SetParameters, Mac parameter[%s,%s] is not corrent!", name,
                    value ? value : "");
      return false;
    }
    MacInfoTrace("CGpcWindow::SetParameters,%d : %s = %s ", i, name ? name : "", value ? value : "");
    AppendOwned(&m_vectorParam, new CItem(name, value));
  }
  m_bHalted = 0;
  return true;
}

bool CGpcWindow::SetParameter(const char* name, const char* value) {
  if (name == nullptr || value == nullptr) return false;
  const bool valid = ValidateParameterLength(name, value);
  if (GpcNamesEqual(name, kUrlRootName)) {
    const std::string corrected = CorrectSchemaofUrlRoot(value);
    if (!corrected.empty() && valid) {
      MacInfoTrace("CGpcWindow::SetParameter :[%s],[%s]", name, corrected.c_str());
      SetParameterVector(name, corrected);
      return true;
    }
  } else if (valid) {
    MacInfoTrace("CGpcWindow::SetParameter :[%s],[%s]", name, value);
    SetParameterVector(name, value);
    return true;
  }
  m_bParamsValid = 0;
  m_strBadParamName = name;
  MacErrorTrace("CGpcWindow::SetParameter, Mac parameter[%s,%s] is not corrent!", name, value);
  return false;
}

void CGpcWindow::SetParameterVector(const std::string& name, const std::string& value) {
  // An empty value can never be stored this way, so the extension cannot clear a parameter.
  if (name.empty() || value.empty()) return;
  for (CItem* item : m_vectorParam) {
    if (item->m_strName.empty()) continue;
    if (GpcNamesEqual(item->m_strName.c_str(), name.c_str())) {
      item->m_strValue = value;
      return;
    }
  }
  AppendOwned(&m_vectorParam, new CItem(name, value));
}

const char* CGpcWindow::GetParameter(const char* name) {
  for (CItem* item : m_vectorParam) {
    if (item->m_strName.empty()) continue;
    if (GpcNamesEqual(item->m_strName.c_str(), name)) {
      // The first item of the name decides, even when its value is empty.
      return item->m_strValue.empty() ? nullptr : item->m_strValue.c_str();
    }
  }
  return nullptr;
}

bool CGpcWindow::GetParameterAt(int index, const char** name, const char** value) {
  if (name == nullptr || value == nullptr) return false;
  if (index < 0 || index >= GetParameterCount()) return false;
  const CItem* item = m_vectorParam[index];
  *name = item->m_strName.empty() ? nullptr : item->m_strName.c_str();
  *value = item->m_strValue.empty() ? nullptr : item->m_strValue.c_str();
  return true;
}

int CGpcWindow::GetParameterCount() { return static_cast<int>(m_vectorParam.size()); }

bool CGpcWindow::ValidateParameterLength(const char* name, const char* value) {
  if (name == nullptr || value == nullptr) return false;
  for (const LengthLimit& limit : kLengthLimits) {
    if (GpcNamesEqual(name, limit.name)) return std::strlen(value) <= limit.longest;
  }
  return true;
}
